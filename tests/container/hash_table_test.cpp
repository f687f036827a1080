// HashTable: the entry layout, lookup and insertion, growth across prime
// sizes, enumeration, selection and sorting, copies and the file form.
#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace {

class HashTableTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("hashtabletest"); }
};

// Entries of the tests: a 4-byte number before the key.
UInt PayloadOf(const void *entry) {
    UInt n;
    memcpy(&n, entry, 4);
    return n;
}

std::string KeyOf(const HashTable *table, const void *entry) {
    UInt size;
    const UByte *key = HashTableEntryKey(table, entry, &size);
    return std::string((const char *)key, size);
}

void *Insert(HashTable *table, const std::string &key, UInt number, int *found = nullptr) {
    return HashTableFind(table, key.data(), (UInt)key.size(), &number, found, nullptr);
}

void *Lookup(HashTable *table, const std::string &key) {
    return HashTableFind(table, key.data(), (UInt)key.size(), nullptr, nullptr, nullptr);
}

TEST_F(HashTableTest, HashBytesRunsFromTheLastByte) {
    EXPECT_EQ(HashBytes("", 0), 0u);
    EXPECT_EQ(HashBytes("ab", 2), 98u * 257 + 97);
    // Every length and alignment against the sum of byte[i] * 257^i.
    std::string key(64, '\0');
    for (size_t i = 0; i < key.size(); i++) key[i] = (char)(i * 37 + 3);
    for (UInt start = 0; start < 8; start++) {
        for (UInt size = 0; size <= 40; size++) {
            UInt expected = 0, power = 1;
            for (UInt i = 0; i < size; i++, power *= 257) expected += (UByte)key[start + i] * power;
            EXPECT_EQ(HashBytes(key.data() + start, size), expected) << start << " " << size;
        }
    }
}

TEST_F(HashTableTest, EntriesArePackedWithTheirLengthInTheTableWidth) {
    // Width 0: a 200-byte key has a two-byte length, 0x91 0x02.
    HashTable *table = HashTableNew(0, NULL, NULL, NULL, 4, 0, 0);
    EXPECT_EQ(HashTableCapacity(table), 5u);
    std::string longKey(200, 'k');
    UByte *entry = (UByte *)Insert(table, longKey, 0xA1B2C3D4);
    EXPECT_EQ(HashTableGetOffset(table, entry), 0u);
    EXPECT_EQ(entry[4], 0x91);
    EXPECT_EQ(entry[5], 0x02);
    EXPECT_EQ(PayloadOf(entry), 0xA1B2C3D4u);
    EXPECT_EQ(KeyOf(table, entry), longKey);
    UByte *small = (UByte *)Insert(table, "xyz", 9);
    EXPECT_EQ(HashTableGetOffset(table, small), 206u);
    EXPECT_EQ(table->t_data_used, 206u + 4 + 1 + 3);
    HashTableFree(table);
    // Width 3: three bytes, least significant first.
    table = HashTableNew(5, NULL, NULL, NULL, 0, 3, 0);
    entry = (UByte *)HashTableFind(table, longKey.data(), 130, "", nullptr, nullptr);
    EXPECT_EQ(std::vector<UByte>(entry, entry + 3), (std::vector<UByte>{130, 0, 0}));
    EXPECT_EQ(table->t_data_used, 3u + 130);
    HashTableFree(table);
}

TEST_F(HashTableTest, FindInsertsOnlyWhenAsked) {
    HashTable *table = HashTableNew(100, NULL, NULL, NULL, 4, 0, 0);
    int found = -1;
    EXPECT_EQ(HashTableFind(table, "one", 3, nullptr, &found, nullptr), nullptr);
    EXPECT_EQ(found, 0);
    void *one = Insert(table, "one", 1, &found);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(Insert(table, "one", 99, &found), one);  // found, kept as it was
    EXPECT_EQ(found, 1);
    EXPECT_EQ(PayloadOf(one), 1u);
    // The empty key, prefixes, and keys that differ in their last byte.
    const std::vector<std::string> others = {"", "on", "onf", std::string("one\0", 4)};
    for (UInt i = 0; i < others.size(); i++) Insert(table, others[i], i + 2);
    EXPECT_EQ(HashTableSize(table), 5u);
    for (UInt i = 0; i < others.size(); i++) EXPECT_EQ(PayloadOf(Lookup(table, others[i])), i + 2);
    EXPECT_EQ(PayloadOf(Lookup(table, "one")), 1u);
    EXPECT_EQ(Lookup(table, "onE"), nullptr);
    HashTableFree(table);
}

// Keys compared and hashed without regard to ASCII case; the hash counts
// the calls that carry the table's own data as their argument.
std::string Lower(const void *key, UInt size) {
    std::string s((const char *)key, size);
    for (char &c : s) c = (char)tolower((unsigned char)c);
    return s;
}

TEST_F(HashTableTest, CallerFunctionsHashAndCompare) {
    int hashes = 0;
    auto hash = [](const void *key, UInt size, void *userData, void *hashArg) {
        if (hashArg == userData) (*(int *)userData)++;
        return HashBytes(Lower(key, size).data(), size);
    };
    auto compare = [](const void *stored, UInt storedSize, const void *key, UInt size, void *,
                      void *) { return Lower(stored, storedSize) == Lower(key, size) ? 0 : 1; };
    HashTable *table = HashTableNew(10, hash, &hashes, compare, 0, 0, 0);
    HashTableFind(table, "Hello", 5, "", nullptr, &hashes);
    void *entry = HashTableFind(table, "hELLO", 5, nullptr, nullptr, &hashes);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(KeyOf(table, entry), "Hello");
    HashTableGrow(table, 2.0, &hashes);  // growth hashes again, with its argument
    EXPECT_EQ(hashes, 3);
    EXPECT_NE(HashTableFind(table, "HELLO", 5, nullptr, nullptr, nullptr), nullptr);
    HashTableFree(table);
}

TEST_F(HashTableTest, GrowthAcrossPrimeSizesKeepsEntriesInPlace) {
    for (int mapped = 0; mapped <= 1; mapped++) {
        HashTable *table = HashTableNew(5, NULL, NULL, NULL, 4, 0, mapped);
        std::map<std::string, UInt> offsets;
        std::vector<UInt> slotCounts = {table->t_nslots};
        for (UInt i = 0; i < 3000; i++) {
            if (HashTableFull(table)) {
                HashTableGrow(table, 1.5, nullptr);
                EXPECT_GT(table->t_nslots, slotCounts.back());
                slotCounts.push_back(table->t_nslots);
            }
            std::string key = "key" + std::to_string(i * 7919);
            offsets[key] = HashTableGetOffset(table, Insert(table, key, i));
        }
        EXPECT_GT(slotCounts.size(), 10u);
        EXPECT_GE((ULong)table->t_nslots * 2, (ULong)HashTableCapacity(table) * 3);
        for (auto &[key, offset] : offsets) {
            void *entry = Lookup(table, key);
            ASSERT_NE(entry, nullptr) << key;
            EXPECT_EQ(HashTableGetOffset(table, entry), offset) << key;
        }
        UInt used = 0;
        for (UInt s = 0; s < table->t_nslots; s++) used += table->t_slots[s] != HASH_SLOT_EMPTY;
        EXPECT_EQ(used, 3000u);
        HashTableFree(table);
    }
}

int SortByPayloadDescending(const void *a, const void *b, void *) {
    UInt x = PayloadOf(a), y = PayloadOf(b);
    return x > y ? -1 : x < y;
}

TEST_F(HashTableTest, EnumerationSelectionSortingAndIndexing) {
    HashTable *table = HashTableNew(20, NULL, NULL, NULL, 4, 0, 0);
    std::vector<std::string> keys;
    for (UInt i = 0; i < 12; i++) {
        keys.push_back(std::string(i % 3, 'z') + std::to_string(12 - i));
        Insert(table, keys.back(), (i * 5) % 12);
    }
    // Enumeration from the 4th entry on, stopped by the 3rd callback.
    struct Walk {
        const HashTable *table;
        std::vector<std::string> seen;
    } walk = {table, {}};
    auto callback = [](void *entry, void *userData) -> int {
        Walk *w = (Walk *)userData;
        w->seen.push_back(KeyOf(w->table, entry));
        return w->seen.size() == 3 ? 7 : 0;
    };
    UInt offset = HashTableGetOffset(table, Lookup(table, keys[4]));
    EXPECT_EQ(HashTableEnumerate(table, offset, callback, &walk), 7);
    EXPECT_EQ(walk.seen, std::vector<std::string>(keys.begin() + 4, keys.begin() + 7));

    // Into the caller's array, in order of insertion; the table still takes
    // entries.
    UIntArray picked = {};
    auto even = [](const void *entry, void *) { return (int)(PayloadOf(entry) % 2 == 0); };
    EXPECT_EQ(HashTableSelect(table, 0, even, nullptr, &picked), 6u);
    for (UInt k = 1; k < picked.length; k++) EXPECT_LT(picked.data[k - 1], picked.data[k]);
    HashTableSort(table, SortByPayloadDescending, &picked);
    std::vector<UInt> payloads;
    for (UInt k = 0; k < picked.length; k++)
        payloads.push_back(PayloadOf(table->t_data + picked.data[k]));
    EXPECT_EQ(payloads, (std::vector<UInt>{10, 8, 6, 4, 2, 0}));
    Insert(table, "late", 1);
    ArrayFree(picked);

    // Into the table: reached by index, lookups go on, insertions are refused.
    EXPECT_EQ(HashTableSelect(table, 0, nullptr, nullptr, nullptr), 13u);
    HashTableSort(table, SortByPayloadDescending, nullptr);
    EXPECT_EQ(PayloadOf(HashTableGetIndex(table, 0)), 11u);
    EXPECT_EQ(PayloadOf(HashTableGetIndex(table, 12)), 0u);
    EXPECT_NE(Lookup(table, "late"), nullptr);
    EXPECT_DEATH(Insert(table, "refused", 1), "'!table->t_selected' failed");
    HashTableClear(table);
    EXPECT_FALSE(table->t_selected);
    EXPECT_EQ(Lookup(table, "late"), nullptr);
    Insert(table, "again", 3);
    EXPECT_EQ(PayloadOf(Lookup(table, "again")), 3u);
    HashTableFree(table);
}

TEST_F(HashTableTest, MisuseIsAnAssertion) {
    HashTable *table = HashTableNew(5, NULL, NULL, NULL, 0, 1, 0);
    EXPECT_DEATH(HashTableGrow(table, 1.0, nullptr), "'factor > 1.0' failed");
    EXPECT_DEATH(HashTableSort(table, SortByPayloadDescending, nullptr),
                 "'cmp != NULL && \\(entries != NULL \\|\\| table->t_selected\\)' failed");
    for (int i = 0; i < 5; i++) HashTableFind(table, &i, sizeof i, "", nullptr, nullptr);
    EXPECT_TRUE(HashTableFull(table));
    int extra = 5;  // a full table does not grow by itself
    EXPECT_DEATH(HashTableFind(table, &extra, sizeof extra, "", nullptr, nullptr), "t_capacity");
    HashTableGrow(table, 2.0, nullptr);
    std::string tooLong(256, 'x');  // for a one-byte length
    EXPECT_DEATH(HashTableFind(table, tooLong.data(), 256, "", nullptr, nullptr), "failed");
    HashTableFree(table);
}

TEST_F(HashTableTest, CopiesAreIndependent) {
    HashTable *source = HashTableNew(8, NULL, NULL, NULL, 4, 2, 1);
    for (UInt i = 0; i < 8; i++) Insert(source, "s" + std::to_string(i), i);
    HashTable *target = HashTableNew(100, NULL, NULL, NULL, 0, 0, 0);
    Insert(target, "gone", 1);
    HashTableCopy(target, source);
    EXPECT_EQ(HashTableSize(target), 8u);
    EXPECT_EQ(Lookup(target, "gone"), nullptr);
    HashTableGrow(target, 2.0, nullptr);
    Insert(target, "only in the copy", 42);
    memset(Lookup(target, "s1"), 0, 4);
    EXPECT_EQ(Lookup(source, "only in the copy"), nullptr);
    EXPECT_EQ(PayloadOf(Lookup(source, "s1")), 1u);
    HashTableFree(source);
    EXPECT_EQ(PayloadOf(Lookup(target, "s7")), 7u);
    HashTableFree(target);
}

TEST_F(HashTableTest, FileFormRoundTrips) {
    TempDir dir;
    HashTable *table = HashTableNew(30, NULL, NULL, NULL, 4, 0, 0);
    for (UInt i = 0; i < 25; i++) Insert(table, "file key " + std::to_string(i), i + 1000);
    std::string path = dir / "table.bin";
    ASSERT_EQ(HashTableWrite(table, path.c_str()), 1) << QKErrorMessage();
    // Fixed fields, little-endian, then the slots and the data area.
    std::string bytes = ReadWhole(path);
    ASSERT_EQ(bytes.size(), 29u + table->t_nslots * 4 + table->t_data_used);
    EXPECT_EQ(bytes.substr(9, 8), std::string("\x19\0\0\0\x1E\0\0\0", 8));  // count, capacity
    EXPECT_EQ(bytes.substr(29 + table->t_nslots * 4),
              std::string((const char *)table->t_data, table->t_data_used));

    HashTable *read = HashTableNew(5, NULL, NULL, NULL, 0, 1, 1);
    ASSERT_EQ(HashTableRead(read, path.c_str()), 1) << QKErrorMessage();
    EXPECT_EQ(HashTableSize(read), 25u);
    HashTableGrow(read, 2.0, nullptr);
    Insert(read, "after reading", 5);
    for (UInt i = 0; i < 25; i++)
        EXPECT_EQ(PayloadOf(Lookup(read, "file key " + std::to_string(i))), i + 1000);
    HashTableFree(read);

    // Failures keep the table and name the file.
    HashTable *other = HashTableNew(5, NULL, NULL, NULL, 0, 0, 0);
    Insert(other, "kept", 0);
    std::string missing = dir / "missing/table.bin";
    EXPECT_EQ(HashTableRead(other, missing.c_str()), 0);
    EXPECT_NE(std::string(QKErrorMessage()).find("error opening " + missing), std::string::npos);
    EXPECT_EQ(HashTableWrite(table, missing.c_str()), 0);
    for (const std::string &damaged : {bytes.substr(0, bytes.size() - 1), bytes + "x"}) {
        WriteWhole(dir / "damaged.bin", damaged);
        EXPECT_EQ(HashTableRead(other, (dir / "damaged.bin").c_str()), 0);
        EXPECT_NE(std::string(QKErrorMessage()).find("error reading"), std::string::npos);
    }
    EXPECT_NE(Lookup(other, "kept"), nullptr);
    HashTableFree(other);
    HashTableFree(table);
}

}  // namespace
