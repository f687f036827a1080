// Reading entries: every number is read within the bytes of the run or
// entry that holds it, so that no walk ever reads outside its buffer.
#include "collection/pictree_internal.h"
#include "container/varint.h"

namespace qk::pictree {

void Corrupt(VMArena *arena, const char *text, const char *file, int line) {
    if (arena != nullptr) VMArenaTagCorrupted(arena);
    qkassert_(text, file, line);
}

const char *Next(const UByte *buffer, Run &run, Entry &entry) {
    ULong atom, size;
    size_t atomLength = VarIntRead(buffer + run.at, run.end - run.at, &atom);
    if (atomLength == 0 || atom >= kNoAtom) return "atom read within its run";
    UInt sizeAt = run.at + (UInt)atomLength;
    size_t sizeLength = VarIntRead(buffer + sizeAt, run.end - sizeAt, &size);
    if (sizeLength == 0) return "size read within its run";
    if (size > run.end - sizeAt - sizeLength) return "entry end <= run end";
    if (atom <= run.last && run.last != kNoAtom)
        return "lastAtom == UINT_MAX_VALUE || atom > lastAtom";
    entry.start = run.at;
    entry.sizeAt = sizeAt;
    entry.sizeLength = (UInt)sizeLength;
    entry.size = (UInt)size;
    entry.end = sizeAt + (UInt)(sizeLength + size);
    entry.atom = (UInt)atom;
    run.last = atom;
    run.at = entry.end;
    return nullptr;
}

const char *ReadData(const UByte *buffer, Entry &entry) {
    UInt at = entry.sizeAt + entry.sizeLength;
    size_t length = VarIntRead(buffer + at, entry.end - at, &entry.data);
    if (length == 0) return "data read within its entry";
    entry.sons = at + (UInt)length;
    return nullptr;
}

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
