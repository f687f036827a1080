// The fixtures of the arena tests: an arena in a fresh directory, closed at
// the end, with helpers (expected bytes spelled out field by field, channels
// into files, whole arrays, blocks filled with one byte, directory
// listings), and one that writes an arena of named arrays.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "arena/arena_check.h"
#include "arena/arena_internal.h"
#include "arena/block_read.h"
#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace arenatest {

using namespace qk::arena;
using List = std::initializer_list<ULong>;
// Values compared as one list, so that a run of them takes one expectation.
using V = std::vector<ULong>;

// Open flags of the tests: make, write, read.
// The arena layer is tested without the array directory's tree.
constexpr UInt kCreate = VM_FLAG_CREATE | VM_FLAG_MAPPED | kFlagNameScan;
constexpr UInt kWrite = VM_FLAG_MAPPED | kFlagNameScan;
constexpr UInt kRead = VM_FLAG_MAPPED | VM_FLAG_READ_ONLY | kFlagNameScan;
constexpr UInt kNone = INVALID_RAW_BLOCK_ID;

class ArenaTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("arenatest"); }
    void TearDown() override { VMArenaClose(arena); }

    // The ID of the array named `name` in a generation, or -2.
    Int Find(Int genID, const std::string &name) {
        int create = 0;
        return VMAArrayFind(arena, genID, name.data(), (UInt)name.size(), 0, &create, 0, 0);
    }
    // Values in `width` bytes each, least significant first; the array
    // forms of the records.
    static std::string LE(List values, int width) {
        std::string bytes;
        for (ULong value : values)
            for (int i = 0; i < width; i++) bytes += (char)(value >> (8 * i));
        return bytes;
    }
    static std::string LE(ULong value, int width) { return LE(List{value}, width); }
    static std::string Packed(int w, List v) { return LE(w, 1) + LE(v.size(), 4) + LE(v, w); }
    static std::string Raw(int w, List v) { return LE(v.size(), 8) + LE(v, w); }
    // A bucket's new index record: block size, committed size, the map and
    // the three free lists.
    static std::string IndexNew(ULong rsize, List map, List freeOld, List freeNew = {},
                                List freeBlocks = {}) {
        return LE(8192, 8) + LE(rsize, 8) + Raw(4, map) + Packed(1, freeOld) + Packed(1, freeNew) +
               Packed(1, freeBlocks);
    }
    // The new generation's record of an arena with no array but the name
    // table, and at most one partial block: of class `partial`, logical
    // block `block`, next slot `slot`.
    static std::string BareNewGen(UInt buckets, int partial = -1, UInt block = 0, UInt slot = 0) {
        std::string bytes = LE(buckets, 8);
        for (int c = 0; c < 16; c++) bytes += Packed(1, {});
        for (int c = 0; c < 16; c++)
            bytes += c == partial ? LE(block, 4) + LE(slot, 4) : LE(~0u, 4) + LE(0, 4);
        return bytes + Packed(1, {}) + LE(1, 8) + Raw(8, {}) + LE(0, 4) + LE(0, 1) + LE(13, 1);
    }
    // What `write(channel)` puts in a file, or "<failed>".
    template <typename F>
    std::string Encoded(F write) {
        Channel *channel = ChannelNew(-1, -1);
        bool ok = ChannelOpenFile(channel, (dir / "encoded").c_str(), "w") && write(channel);
        return ChannelClose(channel) && ok ? ReadWhole(dir / "encoded") : "<failed>";
    }
    // The bytes of an array, read stretch by stretch; "<stretch>" when one
    // passes the end of its block.
    std::string Contents(Int id, Int genID, UInt eltSize = 1) {
        std::string content;
        UInt length = VMAArrayReadLength(arena, id, genID), perBlock = 8192 / eltSize;
        for (UInt i = 0, end; i < length; i = end) {
            auto *bytes = VMAArrayReadRange(arena, id, 8192, i, eltSize, &end, genID);
            if (bytes == nullptr) return std::string("<") + QKErrorMessage() + ">";
            if (end <= i || (end - 1) / perBlock != i / perBlock) return "<stretch>";
            content.append((const char *)bytes, (size_t)(end - i) * eltSize);
        }
        return content;
    }
    // Every path under the directory, relative to it; directories end in '/'.
    std::set<std::string> Tree() {
        std::set<std::string> found;
        for (auto &entry : std::filesystem::recursive_directory_iterator(dir.Path()))
            found.insert(entry.path().lexically_relative(dir.Path()).string() +
                         (entry.is_directory() ? "/" : ""));
        return found;
    }
    static bool StartsWith(const std::string &s, const std::string &p) { return !s.rfind(p, 0); }
    static UInt LogicalOf(ULong id) { return (UInt)BlockIDDecode(id).logical; }

    VMArena *OpenAt(const std::string &path, UInt flags, UInt buckets = 1,
                    ULong serial = STATUS_NO_SERIAL) {
        return VMArenaOpen(path.c_str(), flags, buckets, serial, serial, nullptr, nullptr);
    }
    // Opens `arena` anew in the test's directory.
    void Open(UInt flags = kCreate, UInt buckets = 1, ULong serial = STATUS_NO_SERIAL) {
        VMArenaClose(arena);
        arena = OpenAt(dir.Path(), flags, buckets, serial);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
    }
    void Close() { VMArenaClose(arena), arena = nullptr; }
    void Commit() { ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr)) << QKErrorMessage(); }
    UInt RawOf(UInt block, Int genID) { return VMABlockInfoGet(arena, block, genID, nullptr); }
    void ExpectConsistent() {
        std::string why;
        EXPECT_TRUE(VMArenaCheckAccounting(arena, &why)) << why;
    }
    bool Exists(const std::string &name) { return FileExists((dir / name).c_str()); }
    ULong SizeOf(const std::string &name) { return FileSize((dir / name).c_str()); }

    // Pieces and whole data blocks of the new generation; a new whole block
    // filled with one byte.
    ULong Piece(UInt size) { return VMArenaBlockNew(arena, size, nullptr, NEWGEN); }
    void FreePiece(ULong id) { VMArenaBlockFree(arena, id, NEWGEN); }
    UInt Block() { return VMArenaDataBlockNew(arena, NEWGEN); }
    void FreeBlock(UInt block) { VMArenaDataBlockFree(arena, block, NEWGEN); }
    UInt NewBlock(char fill) { return Fill(Block(), fill); }
    UInt Fill(UInt block, char fill) {
        memset(VMArenaDataBlockAcquire(arena, block, NEWGEN, 0), fill, 8192);
        return block;
    }
    // The fill byte of each block, '-' for none, '?' for mixed bytes.
    std::string Fills(const std::vector<UInt> &blocks, Int genID, VMArena *in = nullptr) {
        std::string fills;
        for (UInt block : blocks) {
            auto *bytes = (const char *)VMArenaDataBlockAcquire(in ? in : arena, block, genID, 1);
            bool same = bytes && std::string(bytes, 8192) == std::string(8192, bytes[0]);
            fills += bytes == nullptr ? '-' : same ? bytes[0] : '?';
        }
        return fills;
    }
    UByte *Write(ULong id) { return (UByte *)VMArenaDataAcquire(arena, id, NEWGEN, 0, 0, 0); }
    const UByte *Read(ULong id, Int genID) {
        return (const UByte *)VMArenaDataAcquire(arena, id, genID, 1, 0, 0);
    }
    std::string Bytes(ULong id, Int g, size_t n) {
        return Read(id, g) ? std::string((const char *)Read(id, g), n) : "<none>";
    }

    TempDir dir;
    VMArena *arena = nullptr;
};

// An arena of named arrays, written through the arena's own structures: the
// allocator lays out each array's bytes in whole blocks and a last piece of
// the smallest size class that holds the rest, and the commit writes the
// files. Array 0, the name table, is made from the other arrays' names.
//
// After the commit, the blocks named in `relocate` (array, block) get their
// bytes inverted in a new generation of which only the metadata is
// published: the new and the old maps on disk then differ, and so do the
// generations.
struct ImageArray {
    std::string name;
    std::string data;
    UInt eltSize = 1;  // the length counts elements
};

class ArenaImageTest : public ArenaTest {
  protected:
    void WriteImage(UInt buckets, std::set<std::pair<UInt, UInt>> relocate = {}) {
        Close();
        DirectoryRemoveContents(dir.Path().c_str());
        Open(kCreate, buckets);
        std::string names;
        for (const ImageArray &a : arrays) names += a.name + std::string(1, '\0');
        content[0] = {names};
        blockIDs.assign(arrays.size() + 1, {});
        for (UInt id = 0; id <= arrays.size(); id++) {
            if (id > 0) content[0].push_back(arrays[id - 1].data);
            const std::string &data = content[0][id];
            VMAArray *array =
                ArrayRecord(&arena->rw_gen, id ? VMAArrayNew(arena, false, 8192, NEWGEN) : 0);
            int ok = 1;
            for (size_t at = 0; at < data.size(); at += 8192) {
                size_t size = std::min<size_t>(8192, data.size() - at);
                blockIDs[id].push_back(VMArenaBlockNew(arena, (UInt)size, nullptr, NEWGEN));
                memcpy(Write(blockIDs[id].back()), data.data() + at, size);
                FArrayAdd(array->blockID, &blockIDs[id].back(), &ok);
            }
            array->length = (UInt)(data.size() / (id ? arrays[id - 1].eltSize : 1));
            array->type = data.empty()             ? EMPTY_ARRAY_TYPE
                          : data.size() % 8192 > 0 ? PARTIAL_ARRAY_TYPE
                                                   : FULL_ARRAY_TYPE;
        }
        Commit();
        content[1] = content[0];
        for (auto [id, b] : relocate) {
            UByte *bytes = Write(blockIDs[id][b]);  // a copy of the block
            std::string &data = content[1][id];
            for (size_t i = b * 8192; i < std::min<size_t>(data.size(), b * 8192 + 8192); i++)
                bytes[i - b * 8192] = data[i] = (char)~data[i];
        }
        ASSERT_TRUE(VMArenaFlushStart(arena, nullptr, nullptr) && VMArenaFlushExec(arena));
        VMArenaFlushStop(arena);
        Close();
        for (const std::string &name : Tree()) {
            std::string path = dir / name;
            if (name.ends_with(".new.new"))
                rename(path.c_str(), path.substr(0, path.size() - 4).c_str());
            if (name.ends_with(".old.new")) unlink(path.c_str());
        }
    }
    // The content of array `id` in a generation.
    const std::string &Expected(UInt id, Int genID) { return content[genID == NEWGEN][id]; }

    std::vector<ImageArray> arrays;            // arrays 1, 2, ...
    std::vector<std::string> content[2];       // per array, in the old and the new generation
    std::vector<std::vector<ULong>> blockIDs;  // per array, array 0 first
};

}  // namespace arenatest
