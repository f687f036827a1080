// Enumerating a tree below a prefix: depth first with a stack of frames,
// each the state of a node's remaining sons and the node's data, so that a
// node comes after all of its sons.
#include "collection/pitree_internal.h"
#include "qk/frame.h"

using namespace qk::pitree;

namespace {

struct Frame {
    PITreeState sons;
    ULong data;
    void *leaf;  // the leaf that the sons' state entered, none if none
};

}  // namespace

struct PITreeEnumeration {
    PITree *tree;
    Int genID;
    bool finished;
    bool includePrefix;
    bool includeEmpty;
    bool popPending;  // the node given last is still on the stack
    UInt maxLength;
    std::vector<Frame> stack;
    std::vector<UInt> key;
    PtrArray acquired;
    PITreeThreadData *td;  // for finding the prefix
};

namespace {

void Pop(PITreeEnumeration *e) {
    Frame &top = e->stack.back();
    if (top.leaf != nullptr) DBArrayRelease(e->tree->leaf, e->genID, 1, top.leaf);
    e->stack.pop_back();
    e->key.pop_back();
}

void Push(PITreeEnumeration *e, PITreeState sons, ULong data) {
    void *leaf = ArrayLength(e->acquired) ? ArrayNth(e->acquired, 0) : nullptr;
    ArrayClear(e->acquired);
    e->stack.push_back({sons, data, leaf});
}

}  // namespace

extern "C" {

QK_API PITreeEnumeration *PITreeEnumerationNew(void) {
    auto *e = new PITreeEnumeration{};
    ArrayInit(e->acquired);
    e->td = PITreeThreadDataNew();
    e->finished = true;
    return e;
}

QK_API void PITreeEnumerationFree(PITreeEnumeration *e) {
    if (e == nullptr) return;
    while (!e->stack.empty()) Pop(e);
    ArrayFree(e->acquired);
    PITreeThreadDataFree(e->td);
    delete e;
}

QK_API void PITreeEnumerationInit(PITree *tree, PITreeEnumeration *e, const UInt *prefix,
                                  UInt prefixLength, Int depth, Int genID, int includePrefix,
                                  int includeEmpty) {
    while (!e->stack.empty()) Pop(e);
    e->tree = tree;
    e->genID = genID;
    e->includePrefix = includePrefix && prefixLength > 0;  // the root is no node
    e->includeEmpty = includeEmpty;
    e->popPending = false;
    e->finished = true;
    e->key.assign(prefix, prefix + prefixLength);
    e->key.push_back(0);  // the prefix's frame has no atom of its own
    e->maxLength = depth < 0 ? 0xFFFFFFFFu : prefixLength + (UInt)depth;
    if (!VMAArrayExists(tree->head->headIndex, genID)) return;
    if (prefixLength == 0) {
        Push(e, PITreeStateOfNode(tree, 0, genID, &e->acquired), 0);
        e->finished = false;
        return;
    }
    PIMTreeResult head = PIMTreeFind(tree->head, e->td->pim, prefix, prefixLength, 0, 0, 0, 0, 0,
                                     nullptr, nullptr, genID);
    if (!head.found) return;
    if (head.internal) {
        Push(e, PITreeStateOfNode(tree, head.to, genID, &e->acquired), head.data);
        e->finished = false;
        return;
    }
    UInt leaf = head.to & ~PIMTREE_LEAF_BIT, length, offset = 0, end;
    const UByte *buffer = LeafGet(tree, leaf, genID, &length);
    ArrayAdd(e->acquired, (void *)buffer);
    ULong data = head.data;
    end = length;
    if (head.matched < prefixLength) {
        int found = 0;
        data = PICTreeFind(tree->arena, buffer, length, e->td->pic, nullptr, nullptr, nullptr,
                           prefix + head.matched, prefixLength - head.matched, 0, &offset, &end, 0,
                           0, 0, &found, nullptr, nullptr, genID);
        if (!found) {
            DBArrayRelease(tree->leaf, genID, 1, (void *)buffer);
            ArrayClear(e->acquired);
            return;
        }
    }
    Push(e, PITreeStateOfLeaf(leaf, buffer, length, offset, end), data);
    e->finished = false;
}

QK_API int PITreeEnumerationGetNext(PITreeEnumeration *e, const UInt **key, UInt *keyLength,
                                    ULong *data) {
    PITree *tree = e->tree;
    while (!e->finished) {
        if (e->popPending) {
            Pop(e);
            e->popPending = false;
        }
        Frame &top = e->stack.back();
        if ((UInt)top.sons.id < top.sons.end && e->key.size() - 1 < e->maxLength) {
            UInt atom;
            ULong nodeData;
            PITreeState son, sibling;
            PITreeStateNext(tree, &top.sons, &atom, &nodeData, &son, &sibling, e->genID,
                            &e->acquired);
            top.sons = sibling;
            e->key.back() = atom;
            e->key.push_back(0);
            Push(e, son, nodeData);
            continue;
        }
        bool prefix = e->stack.size() == 1;
        if (prefix) e->finished = true;
        if ((prefix && !e->includePrefix) || (top.data == EMPTY_NODE_DATA && !e->includeEmpty)) {
            if (!prefix) {
                Pop(e);
            }
            continue;
        }
        e->popPending = !prefix;
        if (key != nullptr) *key = e->key.data();
        if (keyLength != nullptr) *keyLength = (UInt)e->key.size() - 1;
        if (data != nullptr) *data = top.data;
        return 1;
    }
    return 0;
}

QK_API int PITreeEnumerate(PITree *tree, PITreeThreadData *, const UInt *prefix, UInt prefixLength,
                           Int depth, PITreeEnumerateFun callback, void *argument, Int genID,
                           int includePrefix, int includeEmpty) {
    PITreeEnumeration *e = PITreeEnumerationNew();
    PITreeEnumerationInit(tree, e, prefix, prefixLength, depth, genID, includePrefix, includeEmpty);
    const UInt *key;
    UInt length;
    ULong data;
    int result = 0;
    while (result == 0 && PITreeEnumerationGetNext(e, &key, &length, &data))
        result = callback(key, length, (UInt)data, (UInt)(data >> 32), argument);
    PITreeEnumerationFree(e);
    return result;
}

}  // extern "C"
