// Page-level memory: anonymous private mappings, residency, locking and
// protection of page ranges, and the system's memory and processor counts.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "qk/frame.h"
#include "qk/memory.h"

namespace {

std::atomic<size_t> gPageSize{0};

// The page-aligned range that covers [address, address + length).
struct PageRange {
    char *start;
    size_t length;
};

PageRange RoundOut(const void *address, size_t length) {
    size_t page = PageSize();
    uintptr_t begin = (uintptr_t)address;
    uintptr_t cut = begin % page;
    length += cut;
    length = (length + page - 1) / page * page;
    return PageRange{(char *)(begin - cut), length};
}

// MemAvailable of /proc/meminfo, in bytes; 0 when it cannot be read.
ULong MemAvailableFromProc() {
    FILE *f = fopen("/proc/meminfo", "r");
    if (f == NULL) return 0;
    char line[256];
    ULong result = 0;
    while (fgets(line, sizeof(line), f) != NULL) {
        unsigned long long kb;
        if (sscanf(line, "MemAvailable: %llu kB", &kb) == 1) {
            result = (ULong)kb * 1024;
            break;
        }
    }
    fclose(f);
    return result;
}

}  // namespace

extern "C" {

size_t PageSize(void) {
    size_t size = gPageSize.load(std::memory_order_relaxed);
    if (size == 0) {
        long value = sysconf(_SC_PAGESIZE);
        size = value > 0 ? (size_t)value : 4096;
        gPageSize.store(size, std::memory_order_relaxed);
    }
    return size;
}

// Mappings start on page boundaries here: the granularity is the page.
size_t MappingGranularity(void) {
    return PageSize();
}

ULong AvailableMemory(void) {
    ULong available = MemAvailableFromProc();
    if (available != 0) return available;
    struct sysinfo info;
    if (sysinfo(&info) != 0) return 0;
    return (ULong)info.freeram * info.mem_unit;
}

UInt AvailableProcessors(void) {
    long count = sysconf(_SC_NPROCESSORS_ONLN);
    return count > 0 ? (UInt)count : 1;
}

void *MemoryMap_(size_t size, const char *, int) {
    if (size == 0) {
        errno = 0;
        return NULL;
    }
    void *p = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
        QKSetLastErrorFromErrno();
        return NULL;
    }
    return p;
}

int MemoryUnmap_(void *pointer, size_t size) {
    if (pointer == NULL || size == 0) return 1;
    if (munmap(pointer, size) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

void *MemoryRemap_(void *pointer, size_t oldSize, size_t newSize, const char *file, int line) {
    void *result = MemoryMap_(newSize, file, line);
    if (result == NULL && newSize != 0) return NULL;  // the old mapping survives
    size_t common = std::min(oldSize, newSize);
    if (common > 0 && result != NULL && pointer != NULL) memcpy(result, pointer, common);
    MemoryUnmap_(pointer, oldSize);
    return result;
}

int MemoryLoad(const void *address, size_t length) {
    PageRange range = RoundOut(address, length);
    size_t page = PageSize();
    for (size_t offset = 0; offset < range.length; offset += page) {
        (void)*(const volatile char *)(range.start + offset);
    }
    return 1;
}

int MemoryLock(void *address, size_t length) {
    PageRange range = RoundOut(address, length);
    if (mlock(range.start, range.length) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

int MemoryUnlock(void *address, size_t length) {
    PageRange range = RoundOut(address, length);
    if (munlock(range.start, range.length) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

int MemoryProtect(void *address, size_t length, int readOnly) {
    if (length == 0) return 1;
    PageRange range = RoundOut(address, length);
    int protection = readOnly ? PROT_READ : PROT_READ | PROT_WRITE;
    if (mprotect(range.start, range.length, protection) != 0) {
        QKSetLastErrorFromErrno();
        return 0;
    }
    return 1;
}

int MemoryAdvise(void *, size_t, int) {
    return 1;
}

void MemoryPrefetch(const void *, size_t) {}

}  // extern "C"
