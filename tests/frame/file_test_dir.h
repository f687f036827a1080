// A fresh directory under /tmp for one test, removed with all it holds, and
// small helpers to write and read whole files.
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/qkfileXXXXXX";
        if (mkdtemp(name) != nullptr) path_ = name;
        EXPECT_FALSE(path_.empty());
    }
    ~TempDir() {
        if (path_.empty()) return;
        nftw(
            path_.c_str(),
            [](const char *path, const struct stat *, int, struct FTW *) { return remove(path); },
            16, FTW_DEPTH | FTW_PHYS);
    }
    const std::string &Path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline void WriteWhole(const std::string &path, const std::string &content) {
    FILE *f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr) << path;
    ASSERT_EQ(fwrite(content.data(), 1, content.size(), f), content.size());
    fclose(f);
}

inline std::string ReadWhole(const std::string &path) {
    std::string content;
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) return "<missing>";
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) content.append(buffer, n);
    fclose(f);
    return content;
}
