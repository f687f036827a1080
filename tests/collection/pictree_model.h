// A trie as a map from every node's key to its data, shared by the tests of
// the three trees and the buffer fuzz target: a buffer read whole through
// the explosion of each level, and what a find's create, force and remove
// do to the map.
#pragma once

#include <algorithm>
#include <map>
#include <vector>

#include "qk/pictree.h"

namespace pictest {

using Key = std::vector<UInt>;
using Model = std::map<Key, ULong>;

// Every node of the buffer, below `prefix`.
inline Model Walk(const UByte *buffer, UInt length, Key prefix = {}) {
    Model model;
    PICTreeSonArray sons = {};
    PICTreeExplodes(nullptr, buffer, length, &sons);
    for (UInt i = 0; i < sons.length; i++) {
        prefix.push_back(sons.data[i].atom);
        model[prefix] = sons.data[i].data;
        model.merge(Walk(sons.data[i].sons, sons.data[i].sonsLength, prefix));
        prefix.pop_back();
    }
    ArrayFree(sons);
    return model;
}

// The nodes strictly below `key`.
inline Model Below(const Model &model, const Key &key) {
    Model below;
    for (auto it = model.upper_bound(key); it != model.end() && it->first.size() > key.size() &&
                                           std::equal(key.begin(), key.end(), it->first.begin());
         it++)
        below.insert(*it);
    return below;
}

inline bool HasSons(const Model &model, const Key &key) {
    auto it = model.upper_bound(key);
    return it != model.end() && it->first.size() > key.size() &&
           std::equal(key.begin(), key.end(), it->first.begin());
}

// Every prefix of the key exists; the key takes `data` if it had none, or
// with force.
inline void Insert(Model &model, const Key &key, ULong data, bool force) {
    for (size_t n = 1; n < key.size(); n++) model.emplace(Key(key.begin(), key.begin() + n), 0);
    auto [it, added] = model.emplace(key, data);
    if (force || it->second == EMPTY_NODE_DATA) it->second = data;
}

// The key's data goes; then the key goes if it has no sons, and so on
// upwards while a prefix has neither sons nor data.
inline void Remove(Model &model, Key key) {
    if (model.count(key)) model[key] = EMPTY_NODE_DATA;
    for (; model.count(key) && model[key] == EMPTY_NODE_DATA && !HasSons(model, key);
         key.pop_back())
        model.erase(key);
}

inline ULong DataOf(const Model &model, const Key &key) {
    auto it = model.find(key);
    return it == model.end() ? EMPTY_NODE_DATA : it->second;
}

}  // namespace pictest
