// Helpers of the arena tests: expected bytes spelled out field by field,
// channels over byte strings, whole arrays, directory listings.
#pragma once

#include <ftw.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <set>
#include <string>

#include "arena/block_read.h"
#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace arenatest {

// Open flags of the tests: make, write, read.
constexpr UInt kCreate = VM_FLAG_CREATE | VM_FLAG_MAPPED;
constexpr UInt kWrite = VM_FLAG_MAPPED;
constexpr UInt kRead = VM_FLAG_MAPPED | VM_FLAG_READ_ONLY;

// `value` in `width` bytes, least significant first.
inline std::string LE(ULong value, int width) {
    std::string bytes;
    for (int i = 0; i < width; i++) bytes += (char)(value >> (8 * i));
    return bytes;
}

inline std::string Packed(int width, std::initializer_list<ULong> values) {
    std::string bytes = LE(width, 1) + LE(values.size(), 4);
    for (ULong v : values) bytes += LE(v, width);
    return bytes;
}

inline std::string Raw(int width, std::initializer_list<ULong> values) {
    std::string bytes = LE(values.size(), 8);
    for (ULong v : values) bytes += LE(v, width);
    return bytes;
}

// What `write(channel)` puts in a file, or "<failed>".
template <typename F>
std::string Encoded(const TempDir &dir, F write) {
    std::string path = dir / "encoded";
    Channel *channel = ChannelNew(-1, -1);
    bool ok = ChannelOpenFile(channel, path.c_str(), "w") && write(channel);
    ok = ChannelClose(channel) && ok;
    return ok ? ReadWhole(path) : "<failed>";
}

// A channel that reads `bytes`; closed by the caller.
inline Channel *Reading(const TempDir &dir, const std::string &bytes) {
    std::string path = dir / "decoded";
    WriteWhole(path, bytes);
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_TRUE(ChannelOpenFile(channel, path.c_str(), "r"));
    return channel;
}

// The bytes of an array, read stretch by stretch; "<stretch>" when one
// passes the end of its block.
inline std::string Contents(VMArena *arena, Int id, Int genID, UInt eltSize = 1) {
    std::string content;
    UInt length = qk::arena::VMAArrayReadLength(arena, id, genID), perBlock = 8192 / eltSize;
    for (UInt i = 0, end; i < length; i = end) {
        auto *bytes = qk::arena::VMAArrayReadRange(arena, id, 8192, i, eltSize, &end, genID);
        if (bytes == nullptr) return std::string("<") + QKErrorMessage() + ">";
        if (end <= i || (end - 1) / perBlock != i / perBlock) return "<stretch>";
        content.append((const char *)bytes, (size_t)(end - i) * eltSize);
    }
    return content;
}

// Every path under `root`, relative to it; directories end in '/'.
inline std::set<std::string> Tree(const std::string &root) {
    static std::set<std::string> *paths;
    static size_t skip;
    std::set<std::string> found;
    paths = &found;
    skip = root.size() + 1;
    nftw(
        root.c_str(),
        [](const char *path, const struct stat *, int type, struct FTW *) {
            if (strlen(path) > skip)
                paths->insert(path + skip + std::string(type == FTW_D ? "/" : ""));
            return 0;
        },
        16, FTW_PHYS);
    return found;
}

// Equal strings; otherwise where they part, without printing them whole.
inline ::testing::AssertionResult Same(const std::string &actual, const std::string &expected) {
    if (actual == expected) return ::testing::AssertionSuccess();
    size_t at = 0;
    while (at < actual.size() && at < expected.size() && actual[at] == expected[at]) at++;
    return ::testing::AssertionFailure() << "sizes " << actual.size() << " and " << expected.size()
                                         << ", first difference at " << at;
}

inline bool StartsWith(const std::string &text, const std::string &prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace arenatest
