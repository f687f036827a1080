// The arena's files at open. The input is a list of records: a byte whose low
// four bits name a file of the arena's directory, then a 16-bit length,
// least significant byte first. With bit 0x10 of the first byte clear, that
// many bytes follow and are appended to the file; with it set, none follow
// and the file is cut or zero-filled to the length times 64 bytes. The
// directory is opened read-only, then with recovery: an open fails with the
// error state set and leaves no descriptor open, and an arena that opens has
// every array of both generations read through.
#include <sys/stat.h>

#include <algorithm>

#include "arena/arena_internal.h"
#include "arena/block_read.h"
#include "fuzz_util.h"

namespace {

// The files that a record names, by the low four bits of its first byte.
// clang-format off
const char *const kFiles[] = {
    "arena.new", "arena.old", "arena.new.new", "arena.new.old", "arena.old.new", "arena.old.old",
    "committing", "corrupted", "block/data0", "block/index0.new", "block/index0.old",
    "block/index0.new.new", "block/index0.old.new", "block/data1", "block/index1.new",
    "block/index1.old"};
// clang-format on

// Each file is gathered first, then written at once.
void WriteFiles(const std::string &dir, const uint8_t *data, size_t size) {
    std::string files[16];
    bool named[16] = {};
    for (size_t at = 0; at + 3 <= size;) {
        const UByte kind = data[at];
        size_t length = data[at + 1] | (size_t)data[at + 2] << 8;
        at += 3;
        named[kind & 15] = true;
        if (kind & 0x10) {
            files[kind & 15].resize(length * 64);
            continue;
        }
        length = std::min(length, size - at);
        files[kind & 15].append((const char *)data + at, length);
        at += length;
    }
    FUZZ_CHECK(mkdir((dir + "/block").c_str(), 0755) == 0);
    for (int i = 0; i < 16; i++) {
        if (named[i]) qkfuzz::WriteFile(dir + "/" + kFiles[i], files[i].data(), files[i].size());
    }
}

// A recovery makes the buckets that are missing: many buckets cost time and
// tell nothing new.
bool FewBuckets(const std::string &dir) {
    for (const char *name : {"arena.new", "arena.new.new", "arena.new.old"}) {
        FILE *file = fopen((dir + "/" + name).c_str(), "rb");
        if (file == nullptr) continue;
        UByte count[2] = {};
        const size_t read = fread(count, 1, sizeof count, file);
        fclose(file);
        if (read == sizeof count && (count[1] != 0 || count[0] > 16)) return false;
    }
    return true;
}

// The bytes that ReadThrough reads add up here, so that the reads stay.
volatile UInt readSum;

void ReadThrough(VMArena *arena) {
    using namespace qk::arena;
    for (Int gen : {NEWGEN, OLDGEN}) {
        VMArenaLoad(arena, &gen);
        for (Int id = 0; id < (Int)VMArenaArrayCount(arena, gen); id++) {
            const UInt length = VMAArrayReadLength(arena, id, gen);
            for (UInt i = 0, end = 0; i < length; i = end) {
                const UByte *bytes =
                    VMAArrayReadRange(arena, id, ARENA_MAX_BLOCK_SIZE, i, 1, &end, gen);
                if (bytes == nullptr || end <= i) break;
                readSum = readSum + bytes[0] + bytes[end - i - 1];
            }
        }
    }
}

// The array directory scans the name table: a writable open would make the
// directory's tree in an arena whose allocator the input may have damaged
// (the tree's own damage has a target of its own).
void Open(const std::string &dir, UInt flags) {
    QKErrorClear();
    VMArena *arena = VMArenaOpen(dir.c_str(), flags | VM_FLAG_MAPPED | qk::arena::kFlagNameScan, 1,
                                 STATUS_NO_SERIAL, STATUS_NO_SERIAL, nullptr, nullptr);
    FUZZ_CHECK(arena != nullptr || QKErrorCode() != 0);
    if (arena == nullptr) return;
    ReadThrough(arena);
    VMArenaClose(arena);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &dir = qkfuzz::FreshDir();
    WriteFiles(dir, data, size);
    const int descriptors = qkfuzz::OpenDescriptors();
    Open(dir, VM_FLAG_READ_ONLY);
    if (FewBuckets(dir)) Open(dir, VM_FLAG_RECOVER);
    FUZZ_CHECK(qkfuzz::OpenDescriptors() == descriptors);
    return 0;
}
