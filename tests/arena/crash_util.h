// Helpers of the crash tests: children that end in the middle of a call,
// scratch directories on a fast file system, copies of arena directories.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>

#include "crash_fault.h"

namespace crashtest {

// Runs `body` in a forked child and returns its exit status, or minus the
// signal that ended it. The child never returns into the test.
template <typename F>
int InChild(F body) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) return -1000;
    if (pid == 0) _exit(body());
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1001;
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return -WTERMSIG(status);
}

// Where scratch arenas live: $QK_CRASH_DIR, else /dev/shm (the crash tests
// model process crashes, which the page cache survives, so a memory file
// system loses nothing that matters and spares the disk thousands of
// syncs), else /tmp.
inline std::string ScratchBase() {
    const char *env = getenv("QK_CRASH_DIR");
    if (env != nullptr && *env != '\0') return env;
    struct stat st;
    if (stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) && access("/dev/shm", W_OK) == 0)
        return "/dev/shm";
    return "/tmp";
}

inline void RemoveTree(const std::string &path) {
    nftw(
        path.c_str(),
        [](const char *p, const struct stat *, int, struct FTW *) { return remove(p); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern = ScratchBase() + "/qkcrashXXXXXX";
        if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    }
    ~ScratchDir() {
        if (!path_.empty()) RemoveTree(path_);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    const std::string &Path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }
    // Empties the directory.
    void Clear() const {
        RemoveTree(path_);
        mkdir(path_.c_str(), 0700);
    }

  private:
    std::string path_;
};

inline bool CopyFile(const std::string &from, const std::string &to) {
    int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return false;
    int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok = out >= 0;
    char buffer[65536];
    for (ssize_t n; ok && (n = read(in, buffer, sizeof buffer)) != 0;) {
        ok = n > 0 && write(out, buffer, (size_t)n) == n;
    }
    close(in);
    if (out >= 0) ok = close(out) == 0 && ok;
    return ok;
}

// Copies the files and directories under `from` into the existing `to`.
inline bool CopyTree(const std::string &from, const std::string &to) {
    DIR *dir = opendir(from.c_str());
    if (dir == nullptr) return false;
    bool ok = true;
    while (struct dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        std::string source = from + "/" + name, target = to + "/" + name;
        struct stat st;
        if (lstat(source.c_str(), &st) != 0) {
            ok = false;
        } else if (S_ISDIR(st.st_mode)) {
            ok = mkdir(target.c_str(), 0700) == 0 && CopyTree(source, target) && ok;
        } else {
            ok = CopyFile(source, target) && ok;
        }
    }
    closedir(dir);
    return ok;
}

// Every path under `root`, relative to it; directories end in '/'.
inline std::set<std::string> Files(const std::string &root) {
    std::set<std::string> found;
    DIR *dir = opendir(root.c_str());
    if (dir == nullptr) return found;
    while (struct dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct stat st;
        if (lstat((root + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            found.insert(name + "/");
            for (const std::string &inner : Files(root + "/" + name))
                found.insert(name + "/" + inner);
        } else {
            found.insert(name);
        }
    }
    closedir(dir);
    return found;
}

inline bool Exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// "call 12 (before): rename block/index0.new" for reports.
inline std::string CallName(long n, bool after) {
    return "call " + std::to_string(n) + (after ? " (after): " : " (before): ") +
           CrashFaultOpName(CrashFaultOpAt(n)) + " " + CrashFaultArgAt(n);
}

}  // namespace crashtest
