// The PICTree's thread data, and the split of a buffer into its top-level
// entries that a leaf's explosion starts from.
#include "collection/pictree_internal.h"
#include "qk/memory.h"

using namespace qk::pictree;

extern "C" {

QK_API PICTreeThreadData *PICTreeThreadDataNew(void) {
    return AllocateZero(PICTreeThreadData);
}

QK_API void PICTreeThreadDataFree(PICTreeThreadData *data) {
    if (data == nullptr) return;
    ArrayFree(data->rewNodes);
    ArrayFree(data->output[0]);
    ArrayFree(data->output[1]);
    ArrayFree(data->replacement);
    UnAllocate(data);
}

QK_API void PICTreeThreadDataReInit(PICTreeThreadData *data) {
    ArrayReset(data->rewNodes);
    ArrayReset(data->output[0]);
    ArrayReset(data->output[1]);
    ArrayReset(data->replacement);
}

QK_API void PICTreeExplodes(VMArena *arena, const UByte *buffer, UInt length,
                            PICTreeSonArray *out) {
    ArrayClear(*out);
    Run run = {0, length, kNoAtom};
    while (run.at < run.end) {
        Entry entry;
        PIC_CHECK(arena, Next(buffer, run, entry));
        PIC_CHECK(arena, ReadData(buffer, entry));
        ArrayAdd(*out,
                 (PICTreeSon{entry.atom, entry.data, buffer + entry.sons, entry.end - entry.sons}));
    }
}

}  // extern "C"
