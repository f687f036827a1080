// Helpers of the crash tests: children that end in the middle of a call,
// scratch directories on a fast file system, copies of arena directories.
#pragma once

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "crash_fault.h"

namespace crashtest {

namespace fs = std::filesystem;

// Runs `body` in a forked child and returns its exit status, or minus the
// signal that ended it. The child never returns into the test.
template <typename F>
int InChild(F body) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return -1000;
    if (pid == 0) _exit(body());
    int status = 0, got;
    while ((got = waitpid(pid, &status, 0)) < 0 && errno == EINTR) continue;
    if (got < 0) return -1001;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// A scratch directory under $QK_CRASH_DIR, else /dev/shm (the crash tests
// model process crashes, which the page cache survives, so a memory file
// system loses nothing that matters and spares the disk thousands of
// syncs), else /tmp.
class ScratchDir {
  public:
    ScratchDir() {
        const char *env = getenv("QK_CRASH_DIR");
        std::string base = env && *env ? env : access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string pattern = base + "/qkcrashXXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code error;
        if (!path_.empty()) fs::remove_all(path_, error);
    }
    const std::string &Path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    // Makes the directory a copy of `from`, a directory tree.
    bool CopyOf(const std::string &from) const {
        std::error_code error;
        fs::remove_all(path_, error);
        fs::copy(from, path_, fs::copy_options::recursive, error);
        return !error;
    }

  private:
    std::string path_;
};

// Every path under `root`, relative to it; directories end in '/'.
inline std::set<std::string> Files(const std::string &root) {
    std::set<std::string> found;
    std::error_code error;
    for (const auto &entry : fs::recursive_directory_iterator(root, error)) {
        std::string name = entry.path().lexically_relative(root).string();
        found.insert(entry.is_directory() && !entry.is_symlink() ? name + "/" : name);
    }
    return found;
}

// "call 12 (before)" for reports.
inline std::string CallName(long n, bool after) {
    return "call " + std::to_string(n) + (after ? " (after)" : " (before)");
}

}  // namespace crashtest
