// The PICTree's private pieces: the reader of one entry that every walk
// shares (inline, as a find reads many entries), the thread data, and the
// rewrite of a buffer around one change. Every number is read within the
// run or entry that holds it: no walk ever reads outside its buffer.
#pragma once

#include "collection/corrupt.h"
#include "container/varint.h"
#include "qk/frame.h"
#include "qk/pictree.h"

namespace qk::pictree {

// Where an entry's fields lie in its buffer, and what they hold. The data
// and `sons` are known once ReadData has run.
struct Entry {
    UInt start;  // the atom's first byte
    UInt sizeAt;
    UInt sizeLength;
    UInt size;  // the bytes of data and sons
    UInt sons;  // the sons' run: [sons, end)
    UInt end;
    UInt atom;
    ULong data;
    UInt newSize;  // a rewrite's size for this entry
};

// No atom yet in a run: above every 32-bit atom.
constexpr ULong kNoAtom = 1ull << 32;

// A walk through one run of siblings, [at, end), whose atoms must ascend.
struct Run {
    UInt at;
    UInt end;
    ULong last;
};

// Reads the atom and size of the entry at run.at and steps the run over it.
// Returns null, or the text of what does not fit: a number cut short, an
// entry past its run's end, an atom not above the one before.
inline const char *Next(const UByte *buffer, Run &run, Entry &entry) {
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

// Reads the data of an entry that Next gave; it must lie inside the entry.
inline const char *ReadData(const UByte *buffer, Entry &entry) {
    UInt at = entry.sizeAt + entry.sizeLength;
    size_t length = VarIntRead(buffer + at, entry.end - at, &entry.data);
    if (length == 0) return "data read within its entry";
    entry.sons = at + (UInt)length;
    return nullptr;
}

// Whether every entry of the buffer, at every depth, reads cleanly.
QK_API bool Validate(const UByte *buffer, UInt length);

// Tags the arena (if any) corrupted, then the assertion.
#define PIC_CHECK(arena, reading)                                              \
    do {                                                                       \
        const char *qk_failure_ = (reading);                                   \
        if (qk_failure_ != nullptr)                                            \
            qk::collection::Corrupt((arena), qk_failure_, __FILE__, __LINE__); \
    } while (0)

// Writes `length` bytes of `buffer` into `out` with bytes [from, to)
// replaced by `replacement`, and the size of each of the `count` entries of
// `enclosing` (outermost first, each inside the one before and all around
// the region) re-encoded for the bytes gained or lost, its own width
// included. `out` takes the new length.
void Rewrite(const UByte *buffer, UInt length, Entry *enclosing, UInt count, UInt from, UInt to,
             const ByteArray &replacement, ByteArray &out);

// Sets `out` to the entries for key[first..keyLength), each the only son
// of the one before, the last one holding `data` and the others none.
void Chain(const UInt *key, UInt first, UInt keyLength, ULong data, ByteArray &out);

}  // namespace qk::pictree

struct PICTreeThreadData {
    QK_ARRAY(qk::pictree::Entry) rewNodes;  // the entries on a key's way, from the top
    ByteArray output[2];  // new buffers: two, so that one may be the next call's input
    ByteArray replacement;
};
