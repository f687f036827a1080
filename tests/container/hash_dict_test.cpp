// HashDict: building, finding, probes and values, retries, failures, and
// the image read back by an independent decoder of its layout.
#include <gtest/gtest.h>
#include <string.h>

#include <set>
#include <string>
#include <vector>

#include "container/hash_internal.h"
#include "container/random.h"
#include "qk/qkcommon.h"

namespace {

class HashDictTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("hashdicttest"); }
};

struct Keys {
    std::vector<std::string> keys;
    std::vector<UInt> values;
};

UInt GetKey(void *dict, UInt index, const void **bytes) {
    const std::string &key = ((Keys *)dict)->keys[index];
    *bytes = key.data();
    return (UInt)key.size();
}

UInt GetValue(void *dict, UInt index) {
    return ((Keys *)dict)->values[index];
}

HashDict *Build(Keys &keys, UInt nbits = 0, UInt probe = 0, bool values = false) {
    return HashDictBuild((UInt)keys.keys.size(), &keys, GetKey, values ? GetValue : nullptr, nbits,
                         probe, 0);
}

Long Find(const HashDict *hdict, const std::string &key) {
    return HashDictFind(hdict, key.data(), (UInt)key.size());
}

// The first random number of a table that a build took after `retries`
// tables failed: the generator starts at 0 and each table takes two draws
// per number.
UInt ExpectedFirstRandom(UInt retries, ULong tableSize, ULong m) {
    qk::Random15 generator;
    for (UInt r = 0; r < retries; r++) {
        for (ULong i = 0; i < tableSize; i++) generator.Next30();
    }
    return (UInt)(generator.Next30() % m);
}

UInt Le32(const std::string &image, size_t at) {
    return (UByte)image[at] | (UByte)image[at + 1] << 8 | (UByte)image[at + 2] << 16 |
           (UInt)(UByte)image[at + 3] << 24;
}

std::string ImageOf(const HashDict *hdict) {
    size_t size;
    const char *image = (const char *)HashDictImage(hdict, &size);
    return std::string(image, size);
}

// A reader of the image written from its description alone: the header,
// the byte map, the random table, the packed values and the probes.
class ReferenceDict {
  public:
    explicit ReferenceDict(const std::string &image) : image_(image) {
        n = U(0, 4);
        m = U(4, 4);
        longest = U(8, 2);
        width = U(10, 2);
        alphabet = U(12, 2);
        probe = U(14, 2);
        mapSize = U(16, 8);
        randomSize = U(24, 8);
        valuesSize = U(32, 8);
        probesSize = U(40, 8);
        map = 48;
        random = map + mapSize;
        values = random + randomSize;
        probes = values + valuesSize;
    }

    Long Find(const std::string &key) const {
        if (key.size() > longest) return -2;
        ULong s[3] = {0, 0, 0};
        for (size_t i = 0; i < key.size(); i++) {
            Long letter = (short)U(map + 2 * (UByte)key[i], 2);
            if (letter < 0) return -2;
            for (int k = 0; k < 3; k++) {
                ULong t = U(random + 4 * ((i * alphabet + letter) * 3 + k), 4);
                s[k] = (s[k] + t) % (m - k);
            }
        }
        ULong c0 = s[0] + 1;
        ULong u = s[1] + s[0] + 1;
        ULong c1 = (u >= m ? u - m : u) + 1;
        ULong w = s[2] + s[0] + 1;
        if (w >= u) w++;
        ULong c2 = (w >= m ? w - m : w) + 1;
        ULong index = Value(c0) ^ Value(c1) ^ Value(c2);
        if (probe) {
            if (index >= n) return -2;
            ULong p = 0;
            ULong mask = probe == 8 ? ~(ULong)0 : ((ULong)1 << (8 * probe)) - 1;
            for (unsigned char c : key) p = (p * 257 + c) & mask;
            if (U(probes + index * probe, probe) != p) return -2;
        }
        return (Long)index;
    }

    ULong Value(ULong v) const {
        ULong result = 0;
        for (UInt b = 0; b < width; b++) {
            ULong bit = v * width + b;
            ULong word = U(values + bit / 64 * 8, 8);
            result |= (word >> (bit % 64) & 1) << b;
        }
        return result;
    }

    ULong n, m, longest, width, alphabet, probe;
    ULong mapSize, randomSize, valuesSize, probesSize;
    ULong map, random, values, probes;

  private:
    ULong U(ULong at, UInt bytes) const {
        ULong v = 0;
        for (UInt i = bytes; i-- > 0;) v = v << 8 | (UByte)image_.at(at + i);
        return v;
    }
    std::string image_;
};

Keys Words(UInt count, const std::string &prefix = "w") {
    Keys keys;
    // Distinct numbers: a multiplication modulo a prime.
    for (UInt i = 0; i < count; i++)
        keys.keys.push_back(prefix + std::to_string((ULong)i * 2654435761u % 1000003));
    return keys;
}

TEST_F(HashDictTest, GeneratorIsTheAgreedSequence) {
    qk::Random15 zero, one(1);
    std::vector<UInt> draws;
    for (int i = 0; i < 5; i++) draws.push_back(zero.Next());
    for (int i = 0; i < 5; i++) draws.push_back(one.Next());
    EXPECT_EQ(draws,
              (std::vector<UInt>{38, 7719, 21238, 2437, 8855, 41, 18467, 6334, 26500, 19169}));
    EXPECT_EQ(qk::Random15().Next30(), 38u << 15 | 7719u);
}

TEST_F(HashDictTest, EveryKeyFindsItsIndexAndTheImageFollowsItsLayout) {
    Keys keys = Words(1000);
    HashDict *hdict = Build(keys);
    ASSERT_NE(hdict, nullptr) << QKErrorMessage();
    size_t longest = 0;
    std::set<char> letters;
    for (const std::string &k : keys.keys) {
        longest = std::max(longest, k.size());
        letters.insert(k.begin(), k.end());
    }
    EXPECT_EQ(HashDictSize(hdict), 1000u);
    EXPECT_EQ(HashDictMaxLength(hdict), longest);
    std::string image = ImageOf(hdict);
    ReferenceDict ref(image);
    EXPECT_EQ(ref.m, 1000u + 250 + 5);
    EXPECT_EQ(ref.width, 10u);  // enough for 999
    EXPECT_EQ(ref.alphabet, letters.size());
    EXPECT_EQ(ref.mapSize, 512u);
    EXPECT_EQ(ref.randomSize, letters.size() * 3 * longest * 4);
    EXPECT_EQ(ref.valuesSize, (1256 * 10 + 63) / 64 * 8);
    EXPECT_EQ(image.size(), 48 + ref.mapSize + ref.randomSize + ref.valuesSize);
    // Letters numbered by byte value, -1 for the others.
    int expectedLetter = 0;
    for (int b = 0; b < 256; b++) {
        short letter = (short)((UByte)image[48 + 2 * b] | (UByte)image[49 + 2 * b] << 8);
        EXPECT_EQ(letter, letters.count((char)b) ? expectedLetter++ : -1) << b;
    }
    // Random numbers from the generator seeded with 0: two draws each.
    if (hdict->h_retries == 0) {
        EXPECT_EQ(Le32(image, ref.random), (38u << 15 | 7719u) % 1255u);
    }
    EXPECT_EQ(Le32(image, ref.random),
              ExpectedFirstRandom(hdict->h_retries, ref.randomSize / 4, ref.m));
    for (UInt i = 0; i < 1000; i++) {
        EXPECT_EQ(Find(hdict, keys.keys[i]), (Long)i);
        EXPECT_EQ(ref.Find(keys.keys[i]), (Long)i);
    }
    // Unknown keys: the reference agrees on whatever they give.
    for (UInt i = 0; i < 2000; i++) {
        std::string unknown = "w" + std::to_string(i * 7 + 1);
        EXPECT_EQ(Find(hdict, unknown), ref.Find(unknown)) << unknown;
    }
    HashDictFree(hdict);
}

TEST_F(HashDictTest, KeysDifferingOnlyInTheLastByte) {
    Keys keys;
    std::string stem(40, 's');
    for (int b = 0; b < 256; b += 2) keys.keys.push_back(stem + (char)b);
    keys.keys.push_back(stem);
    for (UInt probe : {0u, 3u}) {
        HashDict *hdict = Build(keys, 0, probe);
        ASSERT_NE(hdict, nullptr) << QKErrorMessage();
        for (UInt i = 0; i < keys.keys.size(); i++) EXPECT_EQ(Find(hdict, keys.keys[i]), (Long)i);
        EXPECT_EQ(Find(hdict, stem + '\x01'), HASHDICT_ABSENT);  // a byte in no key
        EXPECT_EQ(Find(hdict, stem + "ss"), HASHDICT_ABSENT);    // longer than the longest
        if (probe) {
            EXPECT_EQ(Find(hdict, std::string(39, 's') + "\x02s"), HASHDICT_ABSENT);
        }
        HashDictFree(hdict);
    }
}

TEST_F(HashDictTest, EmptySetAndEmptyKey) {
    Keys none;
    HashDict *empty = Build(none);
    ASSERT_NE(empty, nullptr) << QKErrorMessage();
    EXPECT_EQ(HashDictSize(empty), 0u);
    EXPECT_EQ(Find(empty, ""), HASHDICT_ABSENT);
    EXPECT_EQ(Find(empty, "a"), HASHDICT_ABSENT);
    EXPECT_EQ(ReferenceDict(ImageOf(empty)).m, 5u);
    HashDictFree(empty);
    Keys keys;  // the empty key is a key like the others
    keys.keys = {"", "a", "aa", "b"};
    HashDict *hdict = Build(keys, 0, 1);
    ASSERT_NE(hdict, nullptr) << QKErrorMessage();
    for (UInt i = 0; i < 4; i++) EXPECT_EQ(Find(hdict, keys.keys[i]), (Long)i);
    EXPECT_EQ(Find(hdict, "c"), HASHDICT_ABSENT);
    HashDictFree(hdict);
}

TEST_F(HashDictTest, ProbesRejectUnknownKeysExceptOnACollision) {
    // Keys and strangers over the same letters and lengths, and longer ones.
    Keys keys;
    std::vector<std::string> strangers;
    for (UInt i = 0; i < 20000; i++)
        (i % 2 || i >= 2000 ? strangers : keys.keys).push_back("p" + std::to_string(i));

    // Without probes a stranger gives some number within the value width;
    // only those longer than the longest key are known to be absent.
    HashDict *plain = Build(keys);
    ASSERT_NE(plain, nullptr);
    int absent = 0;
    for (const std::string &s : strangers) {
        Long r = Find(plain, s);
        absent += r == HASHDICT_ABSENT;
        EXPECT_LT(r, 1 << 10);
    }
    EXPECT_EQ(absent, 10000);
    HashDictFree(plain);

    HashDict *strict = Build(keys, 0, 4);
    ASSERT_NE(strict, nullptr);
    for (UInt i = 0; i < keys.keys.size(); i++) EXPECT_EQ(Find(strict, keys.keys[i]), (Long)i);
    for (const std::string &s : strangers) EXPECT_EQ(Find(strict, s), HASHDICT_ABSENT) << s;
    HashDictFree(strict);

    // One probe byte: strangers whose probe equals that of the key whose
    // index they hash to get through, and only those. (A one-byte probe is
    // the sum of the bytes modulo 256, since 257 is 1 modulo 256.)
    HashDict *loose = Build(keys, 0, 1);
    ASSERT_NE(loose, nullptr);
    ReferenceDict ref(ImageOf(loose));
    int through = 0;
    for (const std::string &s : strangers) {
        Long r = Find(loose, s);
        EXPECT_EQ(r, ref.Find(s));
        if (r == HASHDICT_ABSENT) continue;
        through++;
        ASSERT_LT(r, 1000);
        UByte mine = 0, theirs = 0;
        for (unsigned char c : s) mine = (UByte)(mine + c);
        for (unsigned char c : keys.keys[r]) theirs = (UByte)(theirs + c);
        EXPECT_EQ(mine, theirs) << s << " passed as " << keys.keys[r];
    }
    EXPECT_GT(through, 0);
    EXPECT_LT(through, 900);
    HashDictFree(loose);
}

TEST_F(HashDictTest, ValuesInsteadOfIndexes) {
    Keys keys = Words(500, "v");
    for (UInt bits : {7u, 32u}) {
        keys.values.clear();
        for (UInt i = 0; i < 500; i++)
            keys.values.push_back(bits == 7 ? (i * 37) % 128 : ~i * 77777u);
        HashDict *hdict = Build(keys, bits, 0, true);
        ASSERT_NE(hdict, nullptr) << QKErrorMessage();
        EXPECT_EQ(ReferenceDict(ImageOf(hdict)).width, bits);
        for (UInt i = 0; i < 500; i++) EXPECT_EQ(Find(hdict, keys.keys[i]), (Long)keys.values[i]);
        HashDictFree(hdict);
    }
    EXPECT_DEATH(Build(keys, 8, 2, true),
                 "'nbits <= 32 && \\(val == NULL \\|\\| \\(probe == 0 && nbits != 0\\)\\)' failed");
    EXPECT_DEATH(Build(keys, 0, 9), "'probe <= 8' failed");
}

TEST_F(HashDictTest, ImpossibleSetsFailCleanly) {
    Keys keys = Words(5000);
    keys.keys[4321] = keys.keys[17];
    EXPECT_EQ(Build(keys), nullptr);
    EXPECT_STREQ(QKErrorMessage(), "hdict: duplicate keys 17 and 4321");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_INVALID, QK_DOMAIN_GENERAL));
    keys.keys = {"x", "", "y", ""};
    EXPECT_EQ(Build(keys), nullptr);
    EXPECT_STREQ(QKErrorMessage(), "hdict: duplicate keys 1 and 3");
    // A key too long for the header; a value too wide; too few bits.
    keys.keys = {"short", std::string(65536, 'L')};
    EXPECT_EQ(Build(keys), nullptr);
    keys.keys[1].resize(65535);
    HashDict *hdict = Build(keys);
    ASSERT_NE(hdict, nullptr) << QKErrorMessage();
    EXPECT_EQ(Find(hdict, keys.keys[1]), 1);
    HashDictFree(hdict);
    keys.values = {127, 128};
    EXPECT_EQ(Build(keys, 7, 0, true), nullptr);
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_INVALID, QK_DOMAIN_GENERAL));
    keys = Words(257);
    EXPECT_EQ(Build(keys, 8), nullptr);
}

// Sets of a few keys peel at the first try most of the time; searching the
// sets made from successive stems finds one that needs more tries.
TEST_F(HashDictTest, ASetThatForcesRetriesBuildsTheSameEveryTime) {
    Keys keys;
    UInt retries = 0;
    for (UInt stem = 0; stem < 5000 && retries == 0; stem++) {
        keys.keys.clear();
        for (UInt i = 0; i < 12; i++)
            keys.keys.push_back(std::to_string(stem) + "-" + std::to_string(i));
        HashDict *hdict = Build(keys);
        ASSERT_NE(hdict, nullptr);
        retries = hdict->h_retries;
        HashDictFree(hdict);
    }
    ASSERT_GT(retries, 0u) << "no set needed a retry";
    HashDict *a = Build(keys);
    HashDict *b = Build(keys);
    EXPECT_EQ(a->h_retries, retries);
    EXPECT_EQ(ImageOf(a), ImageOf(b));
    for (UInt i = 0; i < keys.keys.size(); i++) EXPECT_EQ(Find(a, keys.keys[i]), (Long)i);
    // The table that worked was drawn after those that failed.
    ReferenceDict ref(ImageOf(a));
    EXPECT_EQ(Le32(ImageOf(a), ref.random),
              ExpectedFirstRandom(retries, ref.randomSize / 4, ref.m));
    HashDictFree(a);
    HashDictFree(b);
    // With fewer retries allowed the same set fails cleanly.
    UInt old = qk::hash::HashDictSetRetryLimit(retries - 1);
    EXPECT_EQ(Build(keys), nullptr);
    EXPECT_STREQ(QKErrorMessage(), "hdict: cannot generate");
    EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_FAILURE, QK_DOMAIN_GENERAL));
    qk::hash::HashDictSetRetryLimit(retries);
    HashDict *c = Build(keys);
    EXPECT_NE(c, nullptr);
    HashDictFree(c);
    qk::hash::HashDictSetRetryLimit(old);
}

TEST_F(HashDictTest, BuildsOfTheSameKeysAreByteIdentical) {
    Keys keys = Words(3000, "same");
    for (UInt probe : {0u, 2u, 8u}) {
        HashDict *a = Build(keys, 0, probe);
        HashDict *b = Build(keys, 0, probe);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(ImageOf(a), ImageOf(b));
        HashDictFree(a);
        HashDictFree(b);
    }
}

}  // namespace
