// PICTree buffers. The input is a buffer: either it fails validation, and
// then nothing else reads it, or it is walked whole, keys of its own and
// keys it lacks are found, and inserts, overwrites and removals rewrite it
// into buffers that validate and hold what a map changed alike holds.
#include "../collection/pictree_model.h"
#include "collection/pictree_internal.h"
#include "fuzz_util.h"

using namespace pictest;

namespace {

// The key's data, whether it is there, and the nodes of its sons' region.
void CheckFind(const UByte *buffer, UInt length, const Model &model, const Key &key) {
    UInt from = 0, to = 0;
    int found;
    ULong data =
        PICTreeFind(nullptr, buffer, length, nullptr, nullptr, nullptr, nullptr, key.data(),
                    (UInt)key.size(), 0, &from, &to, 0, 0, 0, &found, nullptr, nullptr, OLDGEN);
    FUZZ_CHECK(data == DataOf(model, key) && found == (int)model.count(key));
    FUZZ_CHECK(from <= to && to <= length &&
               Walk(buffer + from, to - from, key) == Below(model, key));
}

// Inserts (remove false) or removes the key, checks the new buffer against
// the model changed alike, and goes on with it.
void Change(PICTreeThreadData *td, const UByte *&buffer, UInt &length, Model &model, const Key &key,
            ULong data, bool remove, bool force) {
    int rewrite;
    UByte *out;
    UInt outLength;
    const Model before = model;
    remove ? Remove(model, key) : Insert(model, key, data, force);
    PICTreeFind(nullptr, buffer, length, td, &rewrite, &out, &outLength, key.data(),
                (UInt)key.size(), data, nullptr, nullptr, !remove, remove, force, nullptr, nullptr,
                nullptr, NEWGEN);
    FUZZ_CHECK(rewrite == (model != before));
    if (!rewrite) return;
    FUZZ_CHECK(qk::pictree::Validate(out, outLength) && Walk(out, outLength) == model);
    buffer = out;
    length = outLength;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    qkfuzz::Init();
    if (size > (1 << 20) || !qk::pictree::Validate(data, (UInt)size)) return 0;
    const UByte *buffer = data;
    UInt length = (UInt)size;
    Model model = Walk(buffer, length);
    // Up to five of its keys, each also with one atom more and with its last
    // atom stepped, and a key of one atom.
    std::vector<Key> keys = {{(UInt)size}};
    size_t every = model.size() / 4 + 1, i = 0;
    for (auto it = model.begin(); it != model.end(); it++, i++)
        if (i % every == 0) keys.push_back(it->first);
    for (size_t n = keys.size(), k = 0; k < n; k++) {
        keys.push_back(keys[k]);
        keys.back().push_back(7);
        keys.push_back(keys[k]);
        keys.back().back()++;
    }
    for (const Key &key : keys) CheckFind(buffer, length, model, key);

    PICTreeThreadData *td = PICTreeThreadDataNew();
    for (size_t k = 0; k < keys.size(); k++)
        Change(td, buffer, length, model, keys[k],
               k % 3 ? 0x9E3779B97F4A7C15ull >> (k * 9 % 64) : 0, false, k % 2);
    for (const Key &key : keys) CheckFind(buffer, length, model, key);
    for (size_t k = 0; k < keys.size(); k += 2)
        Change(td, buffer, length, model, keys[k], 0, true, false);
    for (const Key &key : keys) CheckFind(buffer, length, model, key);
    PICTreeThreadDataFree(td);
    return 0;
}
