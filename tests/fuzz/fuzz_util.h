// Shared by the fuzz targets: the library started once with its messages
// dropped, a check that stops the run, and one scratch directory per
// process, emptied for each input.
#pragma once

#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "qk/qkcommon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

#define FUZZ_CHECK(condition) ((condition) ? (void)0 : qkfuzz::Fail(#condition, __FILE__, __LINE__))

namespace qkfuzz {

[[noreturn]] inline void Fail(const char *what, const char *file, int line) {
    fprintf(stderr, "%s:%d: check failed: %s (%s)\n", file, line, what, QKErrorMessage());
    abort();
}

inline void Init() {
    static const bool started = [] {
        QKLibInit("qkfuzz");
        QKSetMessageHandler([](const char *, int, int, int, const char *, va_list) {});
        return true;
    }();
    (void)started;
}

// Made on first use under $TMPDIR, or else /dev/shm, where a sync costs
// nothing; removed at exit. The path itself is never freed, so that it
// outlives the exit handlers.
inline const std::string &ScratchDir() {
    static const std::string *dir = [] {
        const char *base = getenv("TMPDIR");
        if (base == nullptr || *base == '\0')
            base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        auto *path = new std::string(std::string(base) + "/qkfuzz.XXXXXX");
        FUZZ_CHECK(mkdtemp(&(*path)[0]) != nullptr);
        atexit([] {
            DirectoryRemoveContents(ScratchDir().c_str());
            rmdir(ScratchDir().c_str());
        });
        return path;
    }();
    return *dir;
}

// The scratch directory, emptied.
inline const std::string &FreshDir() {
    Init();
    FUZZ_CHECK(DirectoryRemoveContents(ScratchDir().c_str()));
    return ScratchDir();
}

// An arena made once in the scratch directory, for a target that keeps it
// for its whole run; closed at exit, after what the target made in it.
inline VMArena *KeptArena() {
    static VMArena *arena = [] {
        VMArena *a = VMArenaOpen(FreshDir().c_str(), VM_FLAG_CREATE | VM_FLAG_MAPPED, 1,
                                 STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
        FUZZ_CHECK(a != nullptr);
        atexit([] { VMArenaClose(KeptArena()); });
        return a;
    }();
    return arena;
}

// The process's open descriptors, to see that a target leaks none.
inline int OpenDescriptors() {
    int count = 0;
    DIR *fds = opendir("/proc/self/fd");
    while (fds != nullptr && readdir(fds) != nullptr) count++;
    if (fds != nullptr) closedir(fds);
    return count;
}

inline void WriteFile(const std::string &path, const void *data, size_t size) {
    FILE *file = fopen(path.c_str(), "wb");
    FUZZ_CHECK(file != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, file) == size && fclose(file) == 0);
}

}  // namespace qkfuzz
