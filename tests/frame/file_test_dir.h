// A fresh directory under /tmp for one test, removed with all it holds, and
// small helpers to write and read whole files.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/qkfileXXXXXX";
        if (mkdtemp(name) != nullptr) path_ = name;
        EXPECT_FALSE(path_.empty());
    }
    // Links are removed, never followed.
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string &Path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline void WriteWhole(const std::string &path, const std::string &content) {
    std::ofstream file(path, std::ios::binary);
    ASSERT_TRUE(file << content) << path;
}

// The content of the file at `path`, or "<missing>".
inline std::string ReadWhole(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "<missing>";
}
