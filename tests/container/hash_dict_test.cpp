// HashDict: building and finding against a reader of the image written from
// its description alone; probes, values, retries, failures; the image in
// memory and in files, in place and copied, swapped, and damaged.
#include <random>
#include <set>

#include "container/container_test.h"
#include "container/hash_internal.h"
#include "container/random.h"
#include "frame/file_test_dir.h"

namespace {

using qk::hash::LoadLE64;

// The image as described: a 48-byte header (n, m, longest key, bits of a
// value, alphabet, probe bytes, then the sizes of the sections), the byte
// map, the random table, the packed values and the probes, all
// little-endian.
struct Reader {
    explicit Reader(const HashDict *hdict) : image(ImageOf(hdict)) {}
    ULong U(ULong at, UInt bytes) const {
        ULong v = 0;
        for (UInt i = bytes; i-- > 0;) v = v << 8 | (UByte)image.at(at + i);
        return v;
    }
    ULong Value(ULong v) const {
        ULong result = 0;
        for (ULong b = 0, bit = v * width; b < width; b++, bit++)
            result |= (U(values + bit / 64 * 8, 8) >> bit % 64 & 1) << b;
        return result;
    }
    // Three vertices from sums of random numbers, the XOR of their values,
    // and with probes the check of the key's: p = p * 257 + byte.
    Long Find(const std::string &key) const {
        if (key.size() > longest || n == 0) return -2;
        ULong s[3] = {0, 0, 0}, p = 0, mask = probe == 8 ? ~0ull : (1ull << 8 * probe) - 1;
        for (size_t i = 0; i < key.size(); i++) {
            Long letter = (short)U(48 + 2 * (UByte)key[i], 2);
            if (letter < 0) return -2;
            for (int k = 0; k < 3; k++)
                s[k] = (s[k] + U(random + 4 * ((i * alphabet + letter) * 3 + k), 4)) % (m - k);
            p = (p * 257 + (UByte)key[i]) & mask;
        }
        ULong u = s[1] + s[0] + 1, w = s[2] + s[0] + 1 + (s[2] + s[0] + 1 >= u);
        ULong index =
            Value(s[0] + 1) ^ Value((u >= m ? u - m : u) + 1) ^ Value((w >= m ? w - m : w) + 1);
        return !probe || (index < n && U(probes + index * probe, probe) == p) ? (Long)index : -2;
    }
    // The first random number of the table that a build took after
    // `retries` tables failed: the generator starts at 0, two draws a number.
    UInt FirstRandom(UInt retries) const {
        qk::Random15 generator;
        for (ULong i = 0; i < retries * (values - random) / 4; i++) generator.Next30();
        return generator.Next30() % m;
    }

    std::string image;
    ULong n = U(0, 4), m = U(4, 4), longest = U(8, 2), width = U(10, 2), alphabet = U(12, 2);
    ULong probe = U(14, 2), random = 48 + U(16, 8), values = random + U(24, 8);
    ULong probes = values + U(32, 8), end = probes + U(40, 8);
};

// The image follows its layout: header fields, section sizes (m = 1.25 n +
// 5 vertices; values just wide enough for n - 1), letters numbered by byte
// value, the random table drawn from the generator seeded with 0 after the
// tables that failed. Every key finds its index, and the reader agrees on
// strangers: absent when longer than the longest key or with a byte in no
// key, else a value unless probes refuse them. Two builds give the same
// bytes.
class HashDictProbes : public ContainerTest, public ::testing::WithParamInterface<UInt> {};

TEST_P(HashDictProbes, FindKeysAndRefuseStrangers) {
    const UInt probe = GetParam();
    std::string stem(40, 's');
    Keys even, last, small, none;
    small.keys = {"", "a", "aa", "b"};
    for (int b = 0; b < 256; b += 2) last.keys.push_back(stem + (char)b);
    last.keys.push_back(stem);
    std::vector<std::string> strangers = {
        "", "c", "a\x01", stem + '\x01', stem + "ss", std::string(39, 's') + "\x02s"};
    for (UInt i = 0; i < 10500; i = i == 2499 ? 10000 : i + 1)
        (i % 2 || i >= 2000 ? strangers : even.keys).push_back("p" + std::to_string(i));
    for (Keys *keys : {&even, &last, &small, &none}) {
        HashDict *hdict = keys->Build(0, probe), *again = keys->Build(0, probe);
        ASSERT_NE(hdict, nullptr) << QKErrorMessage();
        EXPECT_EQ(ImageOf(hdict), ImageOf(again));
        Reader r(hdict);
        std::set<char> letters;
        ULong n = keys->keys.size(), m = n + n / 4 + 5, width = 1, longest = 0, letter = 0;
        for (auto &k : keys->keys)
            letters.insert(k.begin(), k.end()), longest = std::max(longest, k.size());
        while (n > 1 && (n - 1) >> width) width++;
        EXPECT_EQ(
            (std::vector<ULong>{r.n, r.m, r.longest, r.width, r.alphabet, r.probe, r.U(16, 8),
                                r.U(24, 8), r.U(32, 8), r.U(40, 8), r.end, HashDictSize(hdict),
                                HashDictMaxLength(hdict)}),
            (std::vector<ULong>{n, m, longest, width, letters.size(), probe, 512,
                                letters.size() * 12 * longest, ((m + 1) * width + 63) / 64 * 8,
                                n * probe, r.image.size(), n, longest}));
        for (int b = 0; b < 256; b++)
            ASSERT_EQ((short)r.U(48 + 2 * b, 2), letters.count(b) ? (Long)letter++ : -1) << b;
        EXPECT_TRUE(n == 0 || r.U(r.random, 4) == r.FirstRandom(hdict->h_retries));
        for (UInt i = 0; i < keys->keys.size(); i++) ASSERT_EQ(Find(hdict, keys->keys[i]), (Long)i);
        int absent = 0;
        for (const std::string &s : strangers) {
            if (s.empty() && keys == &small) continue;  // a key there
            Long got = Find(hdict, s);
            ASSERT_EQ(got, r.Find(s)) << s;
            absent += got == HASHDICT_ABSENT;
        }
        if (keys == &even) {  // one probe byte lets some strangers through
            EXPECT_TRUE(probe == 1 ? absent > 1106 && absent < 2006
                                   : absent == (probe ? 2006 : 505))
                << absent;
        }
        HashDictFree(hdict), HashDictFree(again);
    }
}

INSTANTIATE_TEST_SUITE_P(Bytes, HashDictProbes, ::testing::Values(0u, 1u, 3u, 8u));

// Values of 7 and 32 bits instead of indexes. Sets that cannot be built
// fail with their reason; a key of 65535 bytes is still a key.
TEST_F(ContainerTest, HashDictValuesAndImpossibleSets) {
    Keys keys = Keys::Words(300, "v");
    for (UInt bits : {7u, 32u}) {
        keys.values.clear();
        for (UInt i = 0; i < 300; i++)
            keys.values.push_back(bits == 7 ? i * 37 % 128 : ~i * 77777u);
        HashDict *hdict = keys.Build(bits);
        ASSERT_NE(hdict, nullptr) << QKErrorMessage();
        EXPECT_EQ(Reader(hdict).width, bits);
        for (UInt i = 0; i < 300; i++) EXPECT_EQ(Find(hdict, keys.keys[i]), (Long)keys.values[i]);
        HashDictFree(hdict);
    }
    EXPECT_DEATH(keys.Build(8, 2),
                 "'nbits <= 32 && \\(val == NULL \\|\\| \\(probe == 0 && nbits != 0\\)\\)' failed");
    keys.values.clear();
    EXPECT_DEATH(keys.Build(0, 9), "'probe <= 8' failed");
    Keys duplicates = Keys::Words(1000), empties, tooLong, tooWide, tooMany = Keys::Words(257);
    duplicates.keys[999] = duplicates.keys[17];
    empties.keys = {"x", "", "y", ""};
    tooLong.keys = tooWide.keys = {"short", std::string(65536, 'L')};
    tooWide.keys[1].resize(65535);
    tooWide.values = {127, 128};
    const std::tuple<Keys *, UInt, const char *> cases[] = {
        {&duplicates, 0, "hdict: duplicate keys 17 and 999"},
        {&empties, 0, "hdict: duplicate keys 1 and 3"},
        {&tooLong, 0, "hdict: key 1 is longer than 65535 bytes"},
        {&tooWide, 7, "hdict: value 128 of key 1 does not fit in 7 bits"},
        {&tooMany, 8, "hdict: 8 bits cannot number 257 keys"}};
    for (auto [keys, bits, message] : cases) {
        EXPECT_EQ(keys->Build(bits), nullptr);
        EXPECT_EQ(std::pair(QKErrorCode(), std::string(QKErrorMessage())),
                  std::pair(QK_ERROR_CODE(1, 2), std::string(message)));
    }
    tooWide.values.clear();
    HashDict *hdict = tooWide.Build();
    ASSERT_NE(hdict, nullptr) << QKErrorMessage();
    EXPECT_EQ(Find(hdict, tooWide.keys[1]), 1);
    HashDictFree(hdict);
}

// The generator is the agreed one. Sets of a few keys peel at the first try
// most of the time; searching the sets made from successive stems finds one
// that needs more tries. Its build is the same every time, its table drawn
// after those that failed; with fewer tries allowed it fails cleanly.
TEST_F(ContainerTest, HashDictRetriesAreDeterministic) {
    qk::Random15 zero, one(1);  // the agreed generator
    std::vector<UInt> draws;
    for (int i = 0; i < 10; i++) draws.push_back(i < 5 ? zero.Next() : one.Next());
    EXPECT_EQ(draws,
              (std::vector<UInt>{38, 7719, 21238, 2437, 8855, 41, 18467, 6334, 26500, 19169}));
    EXPECT_EQ(qk::Random15().Next30(), 38u << 15 | 7719u);
    Keys keys;
    UInt retries = 0;
    for (UInt stem = 0; stem < 5000 && retries == 0; stem++) {
        keys.keys.clear();
        for (UInt i = 0; i < 12; i++)
            keys.keys.push_back(std::to_string(stem) + "-" + std::to_string(i));
        HashDict *hdict = keys.Build();
        retries = hdict->h_retries;
        HashDictFree(hdict);
    }
    ASSERT_GT(retries, 0u) << "no set needed a retry";
    HashDict *a = keys.Build(), *b = keys.Build();
    EXPECT_EQ(std::pair(a->h_retries, ImageOf(a)), std::pair(retries, ImageOf(b)));
    for (UInt i = 0; i < keys.keys.size(); i++) EXPECT_EQ(Find(a, keys.keys[i]), (Long)i);
    Reader reader(a);
    EXPECT_EQ(reader.U(reader.random, 4), reader.FirstRandom(retries));
    HashDictFree(a), HashDictFree(b);
    UInt old = qk::hash::HashDictSetRetryLimit(retries - 1);
    EXPECT_EQ(keys.Build(), nullptr);
    EXPECT_EQ(std::pair(QKErrorCode(), std::string(QKErrorMessage())),
              std::pair(QK_ERROR_CODE(0, 2), std::string("hdict: cannot generate")));
    qk::hash::HashDictSetRetryLimit(retries);
    EXPECT_NE(a = keys.Build(), nullptr);
    HashDictFree(a);
    qk::hash::HashDictSetRetryLimit(old);
}

// Dictionaries of 700 keys: every key finds its index; with probes, a
// stranger is refused.
class HashDictForms : public ContainerTest {
  protected:
    void ExpectWorks(const HashDict *hdict) {
        ASSERT_NE(hdict, nullptr) << QKErrorMessage();
        EXPECT_EQ(HashDictSize(hdict), keys.keys.size());
        for (UInt i = 0; i < keys.keys.size(); i++) EXPECT_EQ(Find(hdict, keys.keys[i]), (Long)i);
        EXPECT_TRUE(hdict->h_probeBytes == 0 || Find(hdict, "image/1000004") == HASHDICT_ABSENT);
    }
    Keys keys = Keys::Words(700, "image/");
};

// Two forms behind 3 bytes of something else: each starts on a multiple of
// 8, its length in front, and is read in place. The swapped form reverses
// every element: length, header fields, map entries, random numbers, value
// words and groups of probe bytes; this byte order refuses it.
TEST_F(HashDictForms, MemoryFormsInPlaceAlignedAndSwapped) {
    HashDict *a = keys.Build(0, 2), *b = keys.Build(0, 3);
    ByteArray memory = {}, swapped = {};
    ArrayAppend(memory, "abc", 3);
    HashDictMMWrite(a, &memory);
    UInt second = memory.length, aligned = (second + 7) & ~7u;
    HashDictMMWrite(b, &memory), HashDictMMWriteSwapped(b, &swapped);
    EXPECT_EQ(std::string((char *)memory.data + 3, 5), std::string(5, '\0'));
    EXPECT_EQ(
        std::tuple(LoadLE64(memory.data + 8), (ULong)second, (ULong)memory.length),
        std::tuple(ImageOf(a).size(), 8 + HashDictFileSize(a), aligned + HashDictFileSize(b)));
    size_t offset = 3;
    HashDict *readA = HashDictMMRead(memory.data, &offset, memory.length);
    ExpectWorks(readA);
    EXPECT_EQ(std::pair(offset, HashDictImage(readA, nullptr)),
              std::pair((size_t)second, (const void *)(memory.data + 16)));
    HashDict *readB = HashDictMMRead(memory.data, &offset, memory.length);
    ExpectWorks(readB);
    EXPECT_EQ(ImageOf(readB), ImageOf(b));
    EXPECT_EQ(HashDictMMRead(memory.data, &offset, memory.length), nullptr);  // past the end
    EXPECT_EQ(offset, memory.length);
    std::vector<UInt> widths = {8, 4, 4, 2, 2, 2, 2, 8, 8, 8, 8};
    widths.insert(widths.end(), 256, 2);
    widths.insert(widths.end(), b->h_alphabet * 3 * b->h_longest, 4);
    widths.insert(widths.end(), qk::hash::PackedSize(b->h_m + 1, b->h_width) / 8, 8);
    widths.insert(widths.end(), b->h_n, 3);
    const UByte *straight = memory.data + aligned, *p = swapped.data;
    for (UInt width : widths) {
        for (UInt k = 0; k < width; k++)
            ASSERT_EQ(p[k], straight[width - 1 - k]) << p - swapped.data;
        p += width, straight += width;
    }
    EXPECT_EQ(p, swapped.data + swapped.length);
    EXPECT_EQ(HashDictMMRead(swapped.data, &(offset = 0), swapped.length), nullptr);
    HashDictMMFree(readA), HashDictMemClose(readB), HashDictFree(a), HashDictMemClose(b);
    ArrayFree(memory), ArrayFree(swapped);
}

// Named files, mapped and used in place; forms one after the other through
// a channel, read back copied. Cut, missing or empty files are refused.
TEST_F(HashDictForms, FilesThroughChannelsAndMappings) {
    TempDir dir;
    const char *d = dir.Path().c_str();
    auto channel = [&](const char *name, const char *mode) {
        Channel *c = ChannelNew(-1, -1);
        EXPECT_EQ(ChannelOpenFile(c, (dir / name).c_str(), mode), 1);
        return c;
    };
    HashDict *hdict = keys.Build(0, 1);
    ASSERT_EQ(HashDictWrite(hdict, d, "words", "hd"), 1) << QKErrorMessage();
    EXPECT_EQ(FileSize((dir / "words.hd").c_str()), HashDictFileSize(hdict));
    HashDict *opened = HashDictOpen(d, "words", "hd");
    ExpectWorks(opened);
    EXPECT_EQ(ImageOf(opened), ImageOf(hdict));
    HashDictClose(opened);
    EXPECT_DEATH(HashDictClose(hdict), "'hdict->h_file != NULL' failed");  // mapped ones only
    HashDictMemClose(HashDictOpen(d, "words", "hd"));
    Channel *c = channel("two.bin", "w");
    ASSERT_EQ(HashDictFileWrite(hdict, c) + HashDictFileWrite(hdict, c) + ChannelClose(c), 3);
    c = channel("two.bin", "r");
    HashDict *first = HashDictFileRead(c), *second = HashDictFileRead(c);
    ExpectWorks(first);
    ExpectWorks(second);
    EXPECT_EQ(ImageOf(second), ImageOf(hdict));
    EXPECT_EQ(HashDictFileRead(c), nullptr);  // at the end
    ChannelClose(c), HashDictFree(first), HashDictMemClose(second);
    std::string whole = ReadWhole(dir / "words.hd");
    WriteWhole(dir / "cut.hd", whole.substr(0, whole.size() - 5));
    WriteWhole(dir / "empty.hd", "");
    EXPECT_EQ(HashDictOpen(d, "cut", "hd"), nullptr);
    EXPECT_NE(std::string(QKErrorMessage()).find("error reading cut.hd"), std::string::npos);
    c = channel("cut.hd", "r");
    EXPECT_EQ(HashDictFileRead(c), nullptr);
    EXPECT_STREQ(QKErrorMessage(), "premature eof");
    ChannelClose(c);
    EXPECT_FALSE(HashDictOpen(d, "missing", "hd") || HashDictOpen(d, "empty", "hd"));
    EXPECT_EQ(HashDictWrite(hdict, (dir / "no/such").c_str(), "x", "hd"), 0);
    EXPECT_NE(std::string(QKErrorMessage()).find("error opening"), std::string::npos);
    HashDictFree(hdict);
}

// Every truncation is refused, the offset unchanged; flipped or replaced
// bytes, mostly in the header and the map where a bad number does most
// harm, are refused or give a dictionary whose lookups stay within its
// memory (ASan watches). Chosen damage (offset in the form, width, value):
// a short length, impossible header fields, a random number not below m.
TEST_F(HashDictForms, DamageIsRefusedWithoutHarm) {
    for (UInt probe : {0u, 2u}) {
        HashDict *hdict = keys.Build(0, probe);
        ByteArray form = {};
        HashDictMMWrite(hdict, &form);
        for (UInt cut = 0; cut < form.length; cut++) {
            std::vector<UByte> part(form.data, form.data + cut);  // reading past it is seen
            size_t offset = 0;
            ASSERT_EQ(HashDictMMRead(part.data(), &offset, part.size()), nullptr) << cut;
            EXPECT_EQ(std::pair(QKErrorCode(), offset), std::pair(QK_ERROR_CODE(3, 2), (size_t)0));
        }
        std::mt19937 random(987654321);
        int refused = 0, accepted = 0;
        for (int round = 0; round < 4000; round++) {
            std::vector<UByte> damaged(form.data, form.data + form.length);
            for (int k = 0; k <= round % 4; k++) {
                UInt at = random() % (round % 2 ? damaged.size() : 8 + 48 + 512);
                damaged[at] = round % 5 == 0 ? random() : damaged[at] ^ 1 << random() % 8;
            }
            size_t offset = 0;
            HashDict *bad = HashDictMMRead(damaged.data(), &offset, damaged.size());
            if (!bad && ++refused) continue;
            for (UInt i = accepted++ % 7; i < keys.keys.size(); i += 7) Find(bad, keys.keys[i]);
            Find(bad, std::string(HashDictMaxLength(bad), '\x7F'));
            HashDictMMFree(bad);
        }
        EXPECT_TRUE(refused > 500 && accepted > 100) << refused << " " << accepted;
        // Offset in the form, width, value; the map entry of 'i' is at 56 + 2 * 'i'.
        const ULong m = hdict->h_m,
                    fields[] = {0,   8, 40,     8,   4, 0xFFFFFFFF, 12, 4, 2,   12, 4, 0x80000000,
                                18,  2, 0,      18,  2, 33,         20, 2, 257, 22, 2, 9,
                                24,  8, 1024,   32,  8, ~0ull,      40, 8, 8,   48, 8, 1ull << 62,
                                266, 2, 0x7FFF, 588, 4, m};
        for (size_t i = 0; i < std::size(fields); i += 3) {
            std::vector<UByte> bad(form.data, form.data + form.length);
            qk::hash::StoreLE(bad.data() + fields[i], fields[i + 2], fields[i + 1]);
            size_t offset = 0;
            EXPECT_EQ(HashDictMMRead(bad.data(), &offset, bad.size()), nullptr) << fields[i];
            EXPECT_NE(std::string(QKErrorMessage()).find("bad format"), std::string::npos);
        }
        ArrayFree(form), HashDictFree(hdict);
    }
}

}  // namespace
