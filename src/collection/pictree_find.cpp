// Following a key through a buffer, and the three changes a find can make:
// a chain of new entries where the key leaves the tree, new data in the
// key's entry, or the removal of the key's entry with the ancestors that
// are left without sons and without data. Each change is one region of the
// buffer replaced, with the sizes of the entries around it.
#include "collection/pictree_internal.h"
#include "container/varint.h"

using namespace qk;
using namespace qk::pictree;

namespace {

// How far a key goes into a buffer.
struct Reach {
    UInt matched;  // atoms found
    UInt at;       // where the entry of the first missing atom would go
    Entry node;    // the last entry found
};

Reach Follow(VMArena *arena, const UByte *buffer, UInt length, const UInt *key, UInt keyLength,
             ULongArray *path, PICTreeThreadData *way) {
    Reach reach = {};
    Run run = {0, length, kNoAtom};
    Entry entry;
    while (reach.matched < keyLength) {
        do {
            if (run.at == run.end) return reach.at = run.end, reach;
            PIC_CHECK(arena, Next(buffer, run, entry));
        } while (entry.atom < key[reach.matched]);
        if (entry.atom > key[reach.matched]) return reach.at = entry.start, reach;
        PIC_CHECK(arena, ReadData(buffer, entry));
        if (path != nullptr) ArrayAdd(*path, entry.data);
        if (way != nullptr) ArrayAdd(way->rewNodes, entry);
        reach.node = entry;
        reach.matched++;
        run = {entry.sons, entry.end, kNoAtom};
    }
    return reach;
}

// The entry of the key's last atom without sons goes, and with it each
// ancestor that it leaves without sons and without data. Returns the index
// in `way` of the outermost entry that goes.
UInt FirstRemoved(const Entry *way, UInt last) {
    UInt k = last;
    while (k > 0 && way[k - 1].data == EMPTY_NODE_DATA && way[k - 1].sons == way[k].start &&
           way[k - 1].end == way[k].end)
        k--;
    return k;
}

}  // namespace

extern "C" QK_API ULong PICTreeFind(VMArena *arena, const UByte *buffer, UInt length,
                                    PICTreeThreadData *threadData, int *rewrite, UByte **newData,
                                    UInt *newDataLength, const UInt *key, UInt keyLength,
                                    ULong data, UInt *offsetPtr, UInt *endPtr, int create,
                                    int remove, int force, int *found, int *changed,
                                    ULongArray *path, Int genID) {
    qkassert(keyLength != 0);
    qkassert(!(create && remove));
    qkassert(genID == NEWGEN || (!create && !remove));
    qkassert(!force || create);
    if (rewrite != nullptr) *rewrite = 0;
    if (changed != nullptr) *changed = 0;
    const bool changing = create || remove;
    if (changing) {
        qkassert(threadData != NULL);
        qkassert(rewrite != NULL && newData != NULL && newDataLength != NULL);
        ArrayClear(threadData->rewNodes);
    }
    Reach reach =
        Follow(arena, buffer, length, key, keyLength, path, changing ? threadData : nullptr);
    const bool there = reach.matched == keyLength;
    const ULong old = there ? reach.node.data : EMPTY_NODE_DATA;
    if (found != nullptr) *found = there;
    if (!changing) {
        if (there && offsetPtr != nullptr && endPtr != nullptr) {
            *offsetPtr = reach.node.sons;
            *endPtr = reach.node.end;
        }
        return old;
    }

    // The change as a region [from, to), its replacement and the entries
    // around it.
    Entry *way = threadData->rewNodes.data;
    ByteArray &replacement = threadData->replacement;
    const ULong after = remove ? EMPTY_NODE_DATA : data;
    const bool hasSons = there && reach.node.sons < reach.node.end;
    UInt from = reach.node.sizeAt + reach.node.sizeLength, to = reach.node.sons;
    UInt enclosing = reach.matched;
    ArrayClear(replacement);
    if (create && !there) {
        from = to = reach.at;
        Chain(key, reach.matched, keyLength, data, replacement);
    } else if (create) {
        if (force ? old == data : old != EMPTY_NODE_DATA || data == EMPTY_NODE_DATA) return old;
        ArraySetLength(replacement, VarIntSize(data));
        VarIntWrite(replacement.data, replacement.length, data);
    } else if (!there || (hasSons && old == EMPTY_NODE_DATA)) {
        return old;
    } else if (hasSons) {
        ArrayAdd(replacement, (UByte)EMPTY_NODE_DATA);
    } else {
        enclosing = FirstRemoved(way, keyLength - 1);
        from = way[enclosing].start;
        to = way[enclosing].end;
    }
    if (changed != nullptr) *changed = (old == EMPTY_NODE_DATA) != (after == EMPTY_NODE_DATA);

    // The result goes to the output that is not the input.
    ByteArray &out = threadData->output[buffer == threadData->output[0].data && buffer != nullptr];
    Rewrite(buffer, length, way, enclosing, from, to, replacement, out);
    *rewrite = 1;
    *newData = out.data;
    *newDataLength = out.length;
    return remove ? old : after;
}
