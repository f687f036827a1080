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

struct CapturedMessage {
    int level;
    int showError;
    std::string format;
};

std::vector<CapturedMessage> gCaptured;

void CaptureHandler(const char *, int, int level, int showError, const char *format, va_list) {
    gCaptured.push_back({level, showError, format});
}

class MemoryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("memtest");
        gCaptured.clear();
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

// ---- Heap ----

TEST_F(MemoryTest, AllocateZeroReturnsNoneWithoutMessage) {
    QKSetMessageHandler(CaptureHandler);
    EXPECT_EQ(Allocate_(0, nullptr, __FILE__, __LINE__), nullptr);
    void *block = Allocate(100, nullptr);
    ASSERT_NE(block, nullptr);
    // Size 0 with a block frees it (the leak checker of the sanitizer build
    // would report it otherwise).
    EXPECT_EQ(Allocate(0, block), nullptr);
    UnAllocate(nullptr);
    EXPECT_TRUE(gCaptured.empty());
}

TEST_F(MemoryTest, AllocateResizesKeepingContents) {
    char *block = (char *)Allocate(16, nullptr);
    memcpy(block, "0123456789abcdef", 16);
    block = (char *)Allocate(1 << 20, block);
    EXPECT_EQ(memcmp(block, "0123456789abcdef", 16), 0);
    block[(1 << 20) - 1] = 'z';
    block = (char *)Allocate(4, block);
    EXPECT_EQ(memcmp(block, "0123", 4), 0);
    // Blocks come from the runtime heap: free() may release them.
    free(block);
    UnAllocate(malloc(10));
}

TEST_F(MemoryTest, StrdupCopies) {
    char text[] = "search platform";
    char *copy = Strdup(text);
    EXPECT_NE(copy, text);
    EXPECT_STREQ(copy, "search platform");
    UnAllocate(copy);
    char *empty = Strdup("");
    EXPECT_STREQ(empty, "");
    UnAllocate(empty);
}

TEST_F(MemoryTest, AllocateFailureIsFatalWithCountersAndSystemText) {
    if (kSanitizer) GTEST_SKIP() << "the sanitizer's allocator refuses such sizes itself";
    const size_t huge = SIZE_MAX / 2;
    std::string expected = "malloc failed: ptr=0x.* size=" + std::to_string(huge) +
                           ", process=\\{PeakWorkingSetSize=.*\\}: " + strerror(ENOMEM);
    EXPECT_EXIT(Allocate(huge, nullptr), ::testing::ExitedWithCode(1), expected);
}

// ---- Process limits, heap debugging, virtual mapping ----

TEST_F(MemoryTest, DebuggingEntryPointsReportAtLevelOne) {
    QKSetMessageHandler(CaptureHandler);
    EXPECT_EQ(QKSetProcessMaxSize(1 << 20), 1);
    EXPECT_EQ(QKSetProcessMaxCore(0), 1);
    EXPECT_EQ(DEBUG_MALLOC_CHECK(), 1);
    EXPECT_EQ(DEBUG_MALLOC_CHECK_BLOCK(nullptr), 1);
    EXPECT_TRUE(gCaptured.empty());

    DEBUG_MALLOC_DUMP();
    DEBUG_MALLOC_DUMP_SORTED();
    DEBUG_MALLOC_DUMP_SORTED_SIZE();
    DEBUG_MALLOC_DUMP_INFO();
    DEBUG_MALLOC_LOCK();
    DEBUG_MALLOC_UNLOCK();
    int x;
    EXPECT_EQ(DEBUG_MALLOC_FIND_BLOCK_START(&x), nullptr);
    ASSERT_EQ(gCaptured.size(), 7u);
    for (const auto &m : gCaptured) {
        EXPECT_EQ(m.level, 1);
        EXPECT_EQ(m.showError, 0);
        EXPECT_EQ(m.format, "No malloc debugging info available");
    }
}

TEST_F(MemoryTest, VirtualMappingIsAbsent) {
    VMapInit();
    EXPECT_EQ(VMapAlloc(4096), nullptr);
    EXPECT_EQ(VMapRealloc(nullptr, 4096), nullptr);
    VMapFree(nullptr);
}

// ---- Page-level memory ----

TEST_F(MemoryTest, SystemCounts) {
    size_t page = PageSize();
    EXPECT_EQ(page, (size_t)sysconf(_SC_PAGESIZE));
    EXPECT_EQ(page & (page - 1), 0u);
    EXPECT_EQ(PageSize(), page);
    EXPECT_EQ(MappingGranularity(), page);
    EXPECT_EQ(AvailableProcessors(), (UInt)sysconf(_SC_NPROCESSORS_ONLN));
    ULong available = AvailableMemory();
    EXPECT_GT(available, 0u);
    EXPECT_LE(available, (ULong)sysconf(_SC_PHYS_PAGES) * page);
}

TEST_F(MemoryTest, MapGivesZeroFilledAlignedWritableMemory) {
    size_t size = 3 * PageSize() + 10;
    auto *p = (unsigned char *)MemoryMap(size);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ((uintptr_t)p % PageSize(), 0u);
    for (size_t i = 0; i < size; i++) ASSERT_EQ(p[i], 0) << i;
    memset(p, 0x5a, size);
    EXPECT_EQ(MemoryUnmap(p, size), 1);
}

TEST_F(MemoryTest, MapOfZeroIsNoneWithErrnoZero) {
    errno = 7;
    EXPECT_EQ(MemoryMap(0), nullptr);
    EXPECT_EQ(errno, 0);
}

TEST_F(MemoryTest, MapFailureLeavesTheSystemError) {
    errno = 0;
    EXPECT_EQ(MemoryMap(SIZE_MAX / 2), nullptr);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOMEM, QK_DOMAIN_OS));
}

TEST_F(MemoryTest, UnmapWithAZeroArgumentDoesNothing) {
    size_t page = PageSize();
    auto *p = (char *)MemoryMap(page);
    ASSERT_NE(p, nullptr);
    p[0] = 1;
    errno = 0;
    EXPECT_EQ(MemoryUnmap(p, 0), 1);
    EXPECT_EQ(MemoryUnmap(nullptr, page), 1);
    EXPECT_EQ(errno, 0);
    p[0] = 2;  // still mapped
    EXPECT_EQ(MemoryUnmap(p, page), 1);
}

TEST_F(MemoryTest, UnmapFailureLeavesTheSystemError) {
    auto *p = (char *)MemoryMap(2 * PageSize());
    ASSERT_NE(p, nullptr);
    errno = 0;
    EXPECT_EQ(MemoryUnmap(p + 1, PageSize()), 0);  // not on a page boundary
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(EINVAL, QK_DOMAIN_OS));
    EXPECT_EQ(MemoryUnmap(p, 2 * PageSize()), 1);
}

TEST_F(MemoryTest, RemapCopiesTheSmallerSize) {
    size_t page = PageSize();
    auto *p = (unsigned char *)MemoryMap(page);
    ASSERT_NE(p, nullptr);
    for (size_t i = 0; i < page; i++) p[i] = (unsigned char)(i * 7 + 1);

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

TEST_F(MemoryTest, RemapOfNoneMapsFresh) {
    auto *p = (unsigned char *)MemoryRemap(nullptr, 0, 100);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[99], 0);
    EXPECT_EQ(MemoryUnmap(p, 100), 1);
}

TEST_F(MemoryTest, FailedRemapKeepsTheOldMapping) {
    size_t page = PageSize();
    auto *p = (char *)MemoryMap(page);
    ASSERT_NE(p, nullptr);
    strcpy(p, "kept");
    EXPECT_EQ(MemoryRemap(p, page, SIZE_MAX / 2), nullptr);
    EXPECT_EQ(errno, -1);
    EXPECT_STREQ(p, "kept");
    EXPECT_EQ(MemoryUnmap(p, page), 1);
}

TEST_F(MemoryTest, LoadMakesTheWholeRangeResident) {
    size_t page = PageSize();
    auto *p = (char *)MemoryMap(6 * page);
    ASSERT_NE(p, nullptr);
    // The range starts inside page 1 and ends inside page 3.
    EXPECT_EQ(MemoryLoad(p + page + 100, 2 * page), 1);
    unsigned char resident[6];
    ASSERT_EQ(mincore(p, 6 * page, resident), 0);
    EXPECT_FALSE(resident[0] & 1);
    EXPECT_TRUE(resident[1] & 1);
    EXPECT_TRUE(resident[2] & 1);
    EXPECT_TRUE(resident[3] & 1);
    EXPECT_FALSE(resident[4] & 1);
    EXPECT_FALSE(resident[5] & 1);
    EXPECT_EQ(MemoryUnmap(p, 6 * page), 1);
}

TEST_F(MemoryTest, LockAndUnlockPages) {
    size_t page = PageSize();
    auto *p = (char *)MemoryMap(2 * page);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(MemoryLock(p + 10, 20), 1);
    EXPECT_EQ(MemoryUnlock(p + 10, 20), 1);
    EXPECT_EQ(MemoryUnmap(p, 2 * page), 1);

    // The sanitizers replace mlock and munlock with calls that always succeed.
    if (kSanitizer) return;
    // A range that is not mapped fails with the system's error.
    errno = 0;
    EXPECT_EQ(MemoryLock(kUnmapped, page), 0);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOMEM, QK_DOMAIN_OS));
    errno = 0;
    EXPECT_EQ(MemoryUnlock(kUnmapped, page), 0);
    EXPECT_EQ(errno, -1);
}

TEST_F(MemoryTest, ProtectOfZeroLengthSucceedsAtOnce) {
    EXPECT_EQ(MemoryProtect((void *)1, 0, 1), 1);
}

TEST_F(MemoryTest, ProtectReadOnlyThenReadWrite) {
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

    errno = 0;
    EXPECT_EQ(MemoryProtect(kUnmapped, page, 1), 0);
    EXPECT_EQ(errno, -1);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(ENOMEM, QK_DOMAIN_OS));
}

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

TEST_F(MemoryTest, WriteToReadOnlyPageFaults) {
    EXPECT_EXIT(WriteToProtectedPage(), ::testing::KilledBySignal(SIGSEGV), "");
}

TEST_F(MemoryTest, AdviseAndPrefetchHaveNoEffect) {
    char buffer[64] = "unchanged";
    EXPECT_EQ(MemoryAdvise(buffer, sizeof(buffer), 0), 1);
    MemoryPrefetch(buffer, sizeof(buffer));
    EXPECT_STREQ(buffer, "unchanged");
}

}  // namespace
