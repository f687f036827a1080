// The fixture of the container tests, the error state, damage to serial
// forms, and the key sets of the tests of the dictionaries.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>

#include <algorithm>
#include <bit>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

class ContainerTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("containertest"); }
};

// The last error: its code and its message.
inline std::pair<ULong, std::string> Error() {
    return {QKErrorCode(), QKErrorMessage()};
}

// Damage to a serial form of `size` bytes: every truncation, refused with a
// format error, then `rounds` copies with one to four bytes flipped or
// replaced, every other round within the first `hot` bytes. `read` takes a
// copy and says whether it was accepted; the number refused is returned.
template <class Read>
int Damage(const UByte *form, size_t size, size_t hot, int rounds, Read read) {
    for (size_t cut = 0; cut < size; cut++) {
        std::vector<UByte> part(form, form + cut);  // reading past it is seen
        EXPECT_FALSE(read(part)) << cut;
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL)) << cut;
    }
    std::mt19937 random(987654321);
    int refused = 0;
    for (int round = 0; round < rounds; round++) {
        std::vector<UByte> damaged(form, form + size);
        for (int k = 0; k <= round % 4; k++) {
            size_t at = random() % (round % 2 ? size : hot);
            damaged[at] = round % 5 == 0 ? random() : damaged[at] ^ 1 << random() % 8;
        }
        refused += !read(damaged);
    }
    return refused;
}

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
    HashDict *Build(UInt nbits = 0, UInt probe = 0) const {
        auto key = [](void *self, UInt i, const void **bytes) {
            const std::string &k = ((Keys *)self)->keys[i];
            return *bytes = k.data(), (UInt)k.size();
        };
        HashDictValueFn value = [](void *self, UInt i) { return ((Keys *)self)->values[i]; };
        return HashDictBuild(keys.size(), (void *)this, key, values.empty() ? nullptr : value,
                             nbits, probe, 0);
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
