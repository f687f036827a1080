// The fixture of the container tests, and the key sets of the tests of the
// dictionaries.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qk/qkcommon.h"

class ContainerTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("containertest"); }
};

// A key set: key i finds i, or values[i] when there are values.
struct Keys {
    std::vector<std::string> keys;
    std::vector<UInt> values;

    // `count` distinct keys: a multiplication modulo a prime.
    static Keys Words(UInt count, const std::string &prefix = "w") {
        Keys words;
        for (UInt i = 0; i < count; i++)
            words.keys.push_back(prefix + std::to_string((ULong)i * 2654435761u % 1000003));
        return words;
    }
    HashDict *Build(UInt nbits = 0, UInt probe = 0) {
        auto key = [](void *self, UInt i, const void **bytes) {
            const std::string &k = ((Keys *)self)->keys[i];
            return *bytes = k.data(), (UInt)k.size();
        };
        HashDictValueFn value = [](void *self, UInt i) { return ((Keys *)self)->values[i]; };
        return HashDictBuild(keys.size(), this, key, values.empty() ? nullptr : value, nbits, probe,
                             0);
    }
};

inline Long Find(const HashDict *hdict, const std::string &key) {
    return HashDictFind(hdict, key.data(), (UInt)key.size());
}

inline std::string ImageOf(const HashDict *hdict) {
    size_t size;
    const char *image = (const char *)HashDictImage(hdict, &size);
    return std::string(image, size);
}
