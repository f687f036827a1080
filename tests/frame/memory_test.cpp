// Heap functions, the debugging entry points and page-level memory.
#include <sys/mman.h>

#include "frame/frame_test.h"

namespace {

// An address above the user half of a 47-bit address space: never mapped
// unless asked for by name, so operations on it fail.
void *const kUnmapped = (void *)((uintptr_t)1 << 47);

// The sanitizers' runtimes stand between the library and the system's heap
// and memory locking.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizer = true;
#else
constexpr bool kSanitizer = false;
#endif

class MemoryTest : public FrameTest {
  protected:
    const size_t page = PageSize();
};

// Blocks come from the runtime heap; size 0 frees. Heap debugging has no
// effect here: the dumps say so at level 1.
TEST_F(MemoryTest, AllocateResizesFreesAndCopies) {
    static std::vector<std::string> shown;  // level, with the system error, format
    QKSetMessageHandler(
        [](const char *, int, int level, int showError, const char *format, va_list) {
            shown.push_back(std::to_string(level) + std::to_string(showError) + " " + format);
        });
    EXPECT_EQ(Allocate_(0, nullptr, __FILE__, __LINE__), nullptr);
    char *block = (char *)Allocate(16, nullptr);
    memcpy(block, "0123456789abcdef", 16);
    block = (char *)Allocate(1 << 20, block);
    EXPECT_EQ(std::string(block, 16), "0123456789abcdef");
    block[(1 << 20) - 1] = 'z';
    block = (char *)Allocate(4, block);
    EXPECT_TRUE(std::string(block, 4) == "0123" && Allocate(0, block) == nullptr);
    UnAllocate(nullptr), free(Allocate(8, nullptr)), UnAllocate(malloc(10));
    char text[] = "search platform", *copy = Strdup(text);
    EXPECT_TRUE(copy != text && strcmp(copy, text) == 0);
    UnAllocate(copy);
    EXPECT_TRUE(shown.empty());
    DEBUG_MALLOC_DUMP(), DEBUG_MALLOC_DUMP_SORTED(), DEBUG_MALLOC_DUMP_SORTED_SIZE();
    DEBUG_MALLOC_DUMP_INFO(), DEBUG_MALLOC_LOCK(), DEBUG_MALLOC_UNLOCK();
    EXPECT_EQ(DEBUG_MALLOC_FIND_BLOCK_START(text), nullptr);
    EXPECT_EQ(shown, std::vector<std::string>(7, "10 No malloc debugging info available"));
}

// Fresh mappings are zero and page-aligned; remapping copies the smaller
// size; a zero size does nothing and clears errno.
TEST_F(MemoryTest, MapRemapAndTheirFailures) {
    EXPECT_EQ(std::tuple(page, MappingGranularity()),
              std::tuple((size_t)sysconf(_SC_PAGESIZE), page));
    EXPECT_TRUE(AvailableMemory() > 0 &&
                AvailableMemory() <= (ULong)sysconf(_SC_PHYS_PAGES) * page);
    auto *p = (UByte *)MemoryRemap(nullptr, 0, page + 10);
    ASSERT_TRUE(p != nullptr && (uintptr_t)p % page == 0);
    Bytes expected(3 * page, 0);
    EXPECT_EQ(Bytes(p, p + page + 10), Bytes(page + 10, 0));
    for (size_t i = 0; i < page; i++) expected[i] = p[i] = (UByte)(i * 7 + 1);
    auto *grown = (UByte *)MemoryRemap(p, page + 10, 3 * page);
    ASSERT_TRUE(grown && Bytes(grown, grown + 3 * page) == expected);
    auto *shrunk = (UByte *)MemoryRemap(grown, 3 * page, page / 2);
    expected.resize(page / 2);
    ASSERT_TRUE(shrunk && Bytes(shrunk, shrunk + page / 2) == expected);
    errno = 7;
    EXPECT_EQ(WithErrno(MemoryMap(0)), std::tuple(nullptr, 0));
    EXPECT_EQ(MemoryUnmap(shrunk, 0) + MemoryUnmap(nullptr, page), 2);
    shrunk[0] = 2;  // still mapped
    errno = 5;
    EXPECT_EQ(WithErrno(MemoryRemap(shrunk, page / 2, 0)), std::tuple(nullptr, 0));
    // Each failure leaves errno -1 and the system's error; a failed remap keeps
    // the old mapping. The sanitizers' mlock and munlock always succeed.
    auto *m = (char *)MemoryMap(page);
    m[page - 1] = 'k';
    for (auto [call, code, sanitized] :
         std::initializer_list<std::tuple<std::function<bool()>, int, bool>>{
             {[&] { return MemoryUnmap(m + 1, page); }, EINVAL, false},  // not page-aligned
             {[] { return MemoryMap(SIZE_MAX / 2); }, ENOMEM, false},
             {[&] { return MemoryRemap(m, page, SIZE_MAX / 2); }, ENOMEM, false},
             {[&] { return MemoryProtect(kUnmapped, page, 1); }, ENOMEM, false},
             {[] { return MemoryLock(kUnmapped, 4096); }, ENOMEM, true},
             {[] { return MemoryUnlock(kUnmapped, 4096); }, ENOMEM, true}}) {
        if (sanitized && kSanitizer) continue;
        errno = 0;
        EXPECT_EQ(Left(call()), OS_FAILURE(false, code));
    }
    EXPECT_TRUE(m[page - 1] == 'k' && MemoryUnmap(m, page));
}

// Loading makes whole pages resident; the middle of a page locks or
// protects all of it, and no more.
TEST_F(MemoryTest, LoadLockAndProtectWorkOnWholePages) {
    auto *p = (char *)MemoryMap(6 * page);
    ASSERT_TRUE(p && MemoryLoad(p + page + 100, 2 * page));
    UByte resident[6];
    ASSERT_EQ(mincore(p, 6 * page, resident), 0);
    for (int i = 0; i < 6; i++) EXPECT_EQ(resident[i] & 1, i >= 1 && i <= 3) << i;
    EXPECT_TRUE(MemoryLock(p + 10, 20) && MemoryUnlock(p + 10, 20));
    EXPECT_EQ(MemoryProtect((void *)1, 0, 1), 1);  // zero length: at once
    p[0] = 'a';
    ASSERT_TRUE(MemoryProtect(p + 100, 10, 1) && p[0] == 'a');
    p[page] = 'b';
    ASSERT_EQ(MemoryProtect(p + 100, 10, 0), 1);
    p[0] = 'c';
    // A write to the protected page ends the process, with the default action
    // so that neither the library's crash report nor the sanitizer stands
    // between.
    EXPECT_EXIT((signal(SIGSEGV, SIG_DFL), MemoryProtect(p + page - 1, 1, 1), p[0] = 'x', _exit(0)),
                ::testing::KilledBySignal(SIGSEGV), "");
    EXPECT_EQ(MemoryUnmap(p, 6 * page), 1);
}

TEST_F(MemoryTest, FailedAllocationIsFatalWithCountersAndSystemText) {
    if (kSanitizer) GTEST_SKIP() << "the sanitizer's allocator refuses such sizes itself";
    EXPECT_EXIT(Allocate(SIZE_MAX / 2, nullptr), ::testing::ExitedWithCode(1),
                "malloc failed: ptr=0x.* size=" + std::to_string(SIZE_MAX / 2) +
                    ", process=\\{PeakWorkingSetSize=.*\\}: " + strerror(ENOMEM));
}

}  // namespace
