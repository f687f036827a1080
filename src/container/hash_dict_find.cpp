// HashDict lookup: one pass over the key for its three vertices, the XOR of
// their values, and with probe bytes a check against the key's probe.
#include "container/hash_internal.h"

using namespace qk::hash;

extern "C" QK_API Long HashDictFind(const HashDict *hdict, const void *bytes, UInt size) {
    const UByte *key = (const UByte *)bytes;
    UInt v[3];
    if (hdict->h_n == 0 || !DictVertices(hdict, key, size, v)) return HASHDICT_ABSENT;
    const UInt width = hdict->h_width;
    UInt index = PackedGet(hdict->h_values, v[0], width) ^ PackedGet(hdict->h_values, v[1], width) ^
                 PackedGet(hdict->h_values, v[2], width);
    UInt probeBytes = hdict->h_probeBytes;
    if (probeBytes) {
        if (index >= hdict->h_n) return HASHDICT_ABSENT;
        ULong probe = DictProbe(key, size, probeBytes);
        const UByte *stored = hdict->h_probes + (size_t)index * probeBytes;
        for (UInt i = 0; i < probeBytes; i++) {
            if (stored[i] != (UByte)(probe >> (8 * i))) return HASHDICT_ABSENT;
        }
    }
    return index;
}
