// Heap functions, the debugging entry points and page-level memory.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qk/qkcommon.h"

namespace {

// The messages shown: level, whether with the system error, format.
std::vector<std::string> gCaptured;

void CaptureHandler(const char *, int, int level, int showError, const char *format, va_list) {
    gCaptured.push_back(std::to_string(level) + " " + std::to_string(showError) + " " + format);
}

class MemoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("memtest");
        gCaptured.clear();
        QKSetMessageHandler(CaptureHandler);
    }
    void TearDown() override { QKSetMessageHandler(nullptr); }
};

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

// Runs `call`, which must fail with the system's error `code`: errno -1,
// the code in the error state.
template <class Call>
void ExpectSystemError(int code, Call call) {
    errno = 0;
    EXPECT_FALSE(call());
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(code, QK_DOMAIN_OS));
}

// ---- Heap ----

TEST_F(MemoryTest, AllocateResizesFreesAndCopies) {
    EXPECT_EQ(Allocate_(0, nullptr, __FILE__, __LINE__), nullptr);
    char *block = (char *)Allocate(16, nullptr);
    memcpy(block, "0123456789abcdef", 16);
    block = (char *)Allocate(1 << 20, block);
    EXPECT_EQ(memcmp(block, "0123456789abcdef", 16), 0);
    block[(1 << 20) - 1] = 'z';
    block = (char *)Allocate(4, block);
    EXPECT_EQ(memcmp(block, "0123", 4), 0);
    // Size 0 with a block frees it (the leak checker of the sanitizer build
    // would report it otherwise).
    EXPECT_EQ(Allocate(0, block), nullptr);
    UnAllocate(nullptr);
    // Blocks come from the runtime heap: free() may release them.
    free(Allocate(8, nullptr));
    UnAllocate(malloc(10));

    char text[] = "search platform";
    char *copy = Strdup(text);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, "search platform");
    UnAllocate(copy);
    EXPECT_TRUE(gCaptured.empty());
}

TEST_F(MemoryTest, AllocateFailureIsFatalWithCountersAndSystemText) {
    if (kSanitizer) GTEST_SKIP() << "the sanitizer's allocator refuses such sizes itself";
    QKSetMessageHandler(nullptr);
    const size_t huge = SIZE_MAX / 2;
    std::string expected = "malloc failed: ptr=0x.* size=" + std::to_string(huge) +
                           ", process=\\{PeakWorkingSetSize=.*\\}: " + strerror(ENOMEM);
    EXPECT_EXIT(Allocate(huge, nullptr), ::testing::ExitedWithCode(1), expected);
}

// Heap debugging has no effect here: the dumps say so at level 1.
TEST_F(MemoryTest, HeapDumpsSayThereIsNoDebuggingInfo) {
    DEBUG_MALLOC_DUMP();
    DEBUG_MALLOC_DUMP_SORTED();
    DEBUG_MALLOC_DUMP_SORTED_SIZE();
    DEBUG_MALLOC_DUMP_INFO();
    DEBUG_MALLOC_LOCK();
    DEBUG_MALLOC_UNLOCK();
    int x;
    EXPECT_EQ(DEBUG_MALLOC_FIND_BLOCK_START(&x), nullptr);
    EXPECT_EQ(gCaptured, std::vector<std::string>(7, "1 0 No malloc debugging info available"));
}

// ---- Page-level memory ----

TEST_F(MemoryTest, MapAndUnmap) {
    size_t page = PageSize(), size = 3 * page + 10;
    EXPECT_EQ(page, (size_t)sysconf(_SC_PAGESIZE));
    EXPECT_EQ(MappingGranularity(), page);
    EXPECT_GT(AvailableMemory(), 0u);
    EXPECT_LE(AvailableMemory(), (ULong)sysconf(_SC_PHYS_PAGES) * page);
    auto *p = (unsigned char *)MemoryMap(size);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ((uintptr_t)p % page, 0u);
    for (size_t i = 0; i < size; i++) ASSERT_EQ(p[i], 0) << i;
    memset(p, 0x5a, size);

    // A zero argument does nothing.
    errno = 7;
    EXPECT_EQ(MemoryMap(0), nullptr);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(MemoryUnmap(p, 0), 1);
    EXPECT_EQ(MemoryUnmap(nullptr, page), 1);
    EXPECT_EQ(errno, 0);
    p[0] = 2;  // still mapped

    // Failures leave the system's error.
    ExpectSystemError(EINVAL, [&] { return MemoryUnmap(p + 1, page); });  // not page-aligned
    ExpectSystemError(ENOMEM, [] { return MemoryMap(SIZE_MAX / 2); });
    EXPECT_EQ(MemoryUnmap(p, size), 1);
}

TEST_F(MemoryTest, RemapCopiesTheSmallerSize) {
    size_t page = PageSize();
    auto *p = (unsigned char *)MemoryRemap(nullptr, 0, page);  // maps fresh
    ASSERT_NE(p, nullptr);
    for (size_t i = 0; i < page; i++) p[i] = (unsigned char)(i * 7 + 1);

    // A failed remap keeps the old mapping.
    ExpectSystemError(ENOMEM, [&] { return MemoryRemap(p, page, SIZE_MAX / 2); });
    EXPECT_EQ(p[page - 1], (unsigned char)((page - 1) * 7 + 1));

    auto *grown = (unsigned char *)MemoryRemap(p, page, 3 * page);
    ASSERT_NE(grown, nullptr);
    for (size_t i = 0; i < page; i++) ASSERT_EQ(grown[i], (unsigned char)(i * 7 + 1)) << i;
    for (size_t i = page; i < 3 * page; i++) ASSERT_EQ(grown[i], 0) << i;
    grown[3 * page - 1] = 9;

    auto *shrunk = (unsigned char *)MemoryRemap(grown, 3 * page, page / 2);
    ASSERT_NE(shrunk, nullptr);
    for (size_t i = 0; i < page / 2; i++) ASSERT_EQ(shrunk[i], (unsigned char)(i * 7 + 1)) << i;

    errno = 5;
    EXPECT_EQ(MemoryRemap(shrunk, page / 2, 0), nullptr);
    EXPECT_EQ(errno, 0);
}

TEST_F(MemoryTest, LoadMakesTheWholeRangeResident) {
    size_t page = PageSize();
    auto *p = (char *)MemoryMap(6 * page);
    ASSERT_NE(p, nullptr);
    // The range starts inside page 1 and ends inside page 3.
    EXPECT_EQ(MemoryLoad(p + page + 100, 2 * page), 1);
    unsigned char resident[6];
    ASSERT_EQ(mincore(p, 6 * page, resident), 0);
    for (int i = 0; i < 6; i++) EXPECT_EQ(resident[i] & 1, i >= 1 && i <= 3) << i;
    EXPECT_EQ(MemoryUnmap(p, 6 * page), 1);
}

TEST_F(MemoryTest, LockAndUnlockPages) {
    char buffer[100];
    EXPECT_EQ(MemoryLock(buffer + 10, 20), 1);
    EXPECT_EQ(MemoryUnlock(buffer + 10, 20), 1);
    // The sanitizers replace mlock and munlock with calls that always succeed.
    if (kSanitizer) return;
    // A range that is not mapped fails with the system's error.
    ExpectSystemError(ENOMEM, [] { return MemoryLock(kUnmapped, 4096); });
    ExpectSystemError(ENOMEM, [] { return MemoryUnlock(kUnmapped, 4096); });
}

// Protects the page holding its last byte, then writes to the first.
void WriteToProtectedPage() {
    // The default action, so that neither the library's crash report nor the
    // sanitizer stands between the fault and the end of the process.
    signal(SIGSEGV, SIG_DFL);
    size_t page = PageSize();
    auto *p = (volatile char *)MemoryMap(page);
    if (p == nullptr || !MemoryProtect((void *)(p + page - 1), 1, 1)) _exit(3);
    p[0] = 'x';
    _exit(0);
}

TEST_F(MemoryTest, ProtectReadOnlyThenReadWrite) {
    EXPECT_EQ(MemoryProtect((void *)1, 0, 1), 1);  // zero length: at once
    size_t page = PageSize();
    auto *p = (char *)MemoryMap(2 * page);
    ASSERT_NE(p, nullptr);
    p[0] = 'a';
    // The middle of the first page protects all of it.
    ASSERT_EQ(MemoryProtect(p + 100, 10, 1), 1);
    EXPECT_EQ(p[0], 'a');
    p[page] = 'b';  // the second page stays writable
    ASSERT_EQ(MemoryProtect(p + 100, 10, 0), 1);
    p[0] = 'c';
    EXPECT_EQ(p[0], 'c');
    EXPECT_EQ(MemoryUnmap(p, 2 * page), 1);

    ExpectSystemError(ENOMEM, [&] { return MemoryProtect(kUnmapped, page, 1); });
    EXPECT_EXIT(WriteToProtectedPage(), ::testing::KilledBySignal(SIGSEGV), "");
}

}  // namespace
