// Database-array blocks from a damaged arena. The input replaces the bytes
// of the one block of an array (its size is the input's class, at most
// 4096; the first handles and the index stay as they were). The check must
// walk it without reading outside it; when the check finds nothing, every
// element must read back without a fault, at the place that a plain walk
// of the block gives.
#include <string.h>

#include <algorithm>

#include "collection/dbarray_internal.h"
#include "fuzz_util.h"

namespace {

struct Fixture {
    VMArena *arena;
    DBArray *array;
};

// An arena made once, holding an array of one bucket with one block.
Fixture &TheArray() {
    static Fixture *f = [] {
        auto *f = new Fixture{qkfuzz::KeptArena(), nullptr};
        char path[VMARENA_PATH_SIZE] = "";
        int create = 1;
        f->array = DBArrayNew(f->arena, path, "fuzz", &create, 1, 1);
        FUZZ_CHECK(f->array != nullptr);
        DBArrayAdd(f->array, 0, "seed", 4, NEWGEN);
        FUZZ_CHECK(freopen("/dev/null", "w", stdout) != nullptr);  // the check's report
        atexit([] { DBArrayFree(TheArray().array); });
        return f;
    }();
    return *f;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace qk::dbarray;
    if (size > DBARRAY_MAX_BLOCK_SIZE) return 0;
    Fixture &f = TheArray();
    DBArrayBucket &bucket = BucketOf(f.array, 0);
    UInt blockSize;
    VMABlockArrayGet_(f.arena, bucket.data.ids[NEWGEN], 0, NEWGEN, 1, &blockSize);
    UInt want = BlockRound(bucket, std::max<UInt>((UInt)size, kHeaderSize));
    if (want != blockSize)
        VMABlockArrayBlockGrowNth_(f.arena, bucket.data.ids[NEWGEN], want, DBARRAY_MAX_BLOCK_SIZE,
                                   0, NEWGEN);
    Block block = BlockFresh(bucket, 0);
    memset(block.base, 0, block.size);
    memcpy(block.base, data, size);

    UInt faults = DBArrayCheck(f.array, NEWGEN), count;
    Block read;
    bool valid = BlockOpen(block.base, block.size, &read) && BlockValid(read, &count) && count > 0;
    // One index entry and one block: a valid block of up to 64 elements.
    FUZZ_CHECK((faults == 0) == (valid && count <= 64));
    if (faults != 0) return 0;
    FUZZ_CHECK(DBArraySize(f.array, 0, NEWGEN) == count);
    for (UInt h = 0, at = 0, n, length; h < count; h++, at += n + length) {
        UInt got;
        auto *p = (const UByte *)DBArrayGet(f.array, 0, h, NEWGEN, 1, &got);
        FUZZ_CHECK(ElementRead(read, at, &n, &length));
        FUZZ_CHECK(p == read.Data() + at + n && got == length);
    }
    return 0;
}
