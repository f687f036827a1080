// Checking a whole buffer.
#include "collection/pictree_internal.h"
#include "container/varint.h"

namespace qk::pictree {

QK_API bool Validate(const UByte *buffer, UInt length) {
    // The runs still open, innermost last: each entry read opens its sons'.
    QK_ARRAY(Run) open = {};
    ArrayAdd(open, (Run{0, length, kNoAtom}));
    bool valid = true;
    while (valid && open.length > 0) {
        Run &run = ArrayLast(open);
        Entry entry;
        if (run.at == run.end) {
            open.length--;
        } else if ((valid = Next(buffer, run, entry) == nullptr &&
                            ReadData(buffer, entry) == nullptr)) {
            ArrayAdd(open, (Run{entry.sons, entry.end, kNoAtom}));
        }
    }
    ArrayFree(open);
    return valid;
}

}  // namespace qk::pictree
