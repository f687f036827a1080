// HashDelTable: double hashing, removal and re-insertion, growth that drops
// removed entries, and the memory form, sound or damaged.
#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "qk/qkcommon.h"

namespace {

class HashDelTableTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("hashdeltest"); }
};

// Every key hashes to 3, so that all keys share one probe sequence.
UInt SameHash(const void *, UInt, void *, void *) {
    return 3;
}

void *Insert(HashDelTable *table, const std::string &key, UInt number) {
    return HashDelTableFind(table, key.data(), (UInt)key.size(), &number, nullptr, nullptr);
}

void *Lookup(HashDelTable *table, const std::string &key) {
    return HashDelTableFind(table, key.data(), (UInt)key.size(), nullptr, nullptr, nullptr);
}

int Remove(HashDelTable *table, const std::string &key) {
    return HashDelTableRemove(table, key.data(), (UInt)key.size(), nullptr);
}

UInt PayloadOf(const void *entry) {
    UInt n;
    memcpy(&n, entry, 4);
    return n;
}

int SlotOf(const HashDelTable *table, const void *entry) {
    UInt offset = HashDelTableGetOffset(table, entry);
    for (UInt i = 0; i < table->t_table.t_nslots; i++)
        if (table->t_table.t_slots[i] == offset) return (int)i;
    return -1;
}

TEST_F(HashDelTableTest, RemovedSlotIsReusedAndKeysBeyondItAreStillFound) {
    HashDelTable *table = HashDelTableNew(5, SameHash, NULL, NULL, 4, 0, 0);
    ASSERT_EQ(table->t_table.t_nslots, 7u);
    // First slot 3 mod 7, then steps of 7 - 2 - (3 mod 5) = 2.
    std::vector<int> slots;
    for (UInt i = 0; i < 5; i++)
        slots.push_back(SlotOf(table, Insert(table, "c" + std::to_string(i), i)));
    EXPECT_EQ(slots, (std::vector<int>{3, 5, 0, 2, 4}));
    EXPECT_TRUE(HashDelTableFull(table));

    EXPECT_EQ(Remove(table, "c1"), 1);
    EXPECT_EQ(Remove(table, "c1"), 0);
    EXPECT_EQ(Remove(table, "never"), 0);
    EXPECT_EQ(table->t_deleted, 1u);
    EXPECT_EQ(HashDelTableSize(table), 4u);
    EXPECT_EQ(table->t_table.t_slots[5], HASH_SLOT_DELETED);
    EXPECT_EQ(Lookup(table, "c1"), nullptr);
    // Keys beyond the removed slot in the probe sequence are still found.
    for (UInt i : {2u, 3u, 4u}) EXPECT_EQ(PayloadOf(Lookup(table, "c" + std::to_string(i))), i);
    // Removed slots count towards full; the next insertion takes the removed
    // slot, which its probe sequence passes, even so.
    EXPECT_TRUE(HashDelTableFull(table));
    EXPECT_EQ(SlotOf(table, Insert(table, "new", 7)), 5);
    EXPECT_EQ(table->t_deleted, 0u);
    EXPECT_DEATH(Insert(table, "one too many", 0), "t_capacity' failed");
    for (UInt i : {0u, 2u, 3u, 4u}) EXPECT_EQ(PayloadOf(Lookup(table, "c" + std::to_string(i))), i);
    // A removed key inserted again is a new entry.
    Remove(table, "c0");
    EXPECT_EQ(PayloadOf(Insert(table, "c0", 11)), 11u);
    EXPECT_EQ(HashDelTableSize(table), 5u);
    HashDelTableFree(table);
}

TEST_F(HashDelTableTest, GrowthDropsRemovedEntriesAndKeepsTheOrder) {
    HashDelTable table;  // embedded, mapped memory
    HashDelTableInit(&table, 5, NULL, NULL, NULL, 4, 0, 1);
    std::vector<UInt> live, removed;
    for (UInt i = 0; i < 2000; i++) {
        if (HashDelTableFull(&table)) {
            HashDelTableGrow(&table, 1.5, nullptr);
            EXPECT_EQ(table.t_deleted, 0u);
        }
        Insert(&table, "g" + std::to_string(i), i);
        live.push_back(i);
        if (i % 3 == 2) {  // remove an older key
            UInt old = live[live.size() / 2];
            ASSERT_EQ(Remove(&table, "g" + std::to_string(old)), 1);
            removed.push_back(old);
            live.erase(live.begin() + live.size() / 2);
        }
    }
    // Enumeration and selection skip removed entries, before growth and
    // after it; growth leaves only the live entries' bytes.
    for (int grown = 0; grown <= 1; grown++) {
        if (grown) HashDelTableGrow(&table, 1.1, nullptr);
        std::vector<UInt> walk;
        HashDelTableEnumerate(
            &table, 0,
            [](void *entry, void *userData) {
                ((std::vector<UInt> *)userData)->push_back(PayloadOf(entry));
                return 0;
            },
            &walk);
        EXPECT_EQ(walk, live);
        UIntArray picked = {};
        EXPECT_EQ(HashDelTableSelect(&table, 0, nullptr, nullptr, &picked), live.size());
        ArrayFree(picked);
    }
    UInt expectedUsed = 0;
    for (UInt i : live) expectedUsed += 4 + 1 + 1 + (UInt)std::to_string(i).size();
    EXPECT_EQ(table.t_table.t_data_used, expectedUsed);
    for (UInt i : live) ASSERT_EQ(PayloadOf(Lookup(&table, "g" + std::to_string(i))), i);
    for (UInt i : removed) EXPECT_EQ(Lookup(&table, "g" + std::to_string(i)), nullptr) << i;
    HashDelTableFree(&table);
}

// A table with live and removed entries.
HashDelTable *Sample() {
    HashDelTable *table = HashDelTableNew(40, NULL, NULL, NULL, 4, 0, 0);
    for (UInt i = 0; i < 30; i++) Insert(table, "m" + std::to_string(i * 31), i);
    for (UInt i = 0; i < 30; i += 4) Remove(table, "m" + std::to_string(i * 31));
    return table;
}

TEST_F(HashDelTableTest, MemoryFormRoundTripsAndCopies) {
    HashDelTable *table = Sample();
    ByteArray form = {};
    ArrayAppend(form, "pre", 3);  // the form is appended
    HashDelTableMemWrite(table, &form);
    size_t size = form.length - 3;
    HashDelTable *read = HashDelTableNew(5, NULL, NULL, NULL, 0, 2, 0);
    ASSERT_EQ(HashDelTableMemRead(read, form.data + 3, size + 10), size) << QKErrorMessage();
    EXPECT_EQ(read->t_deleted, table->t_deleted);
    EXPECT_EQ(HashDelTableSize(read), 22u);
    for (UInt i = 0; i < 30; i++) {
        void *entry = Lookup(read, "m" + std::to_string(i * 31));
        EXPECT_EQ(entry ? PayloadOf(entry) : 999, i % 4 ? i : 999) << i;
    }
    ByteArray again = {};  // written again, the same bytes
    HashDelTableMemWrite(read, &again);
    EXPECT_EQ(std::string((char *)again.data, again.length),
              std::string((char *)form.data + 3, size));
    HashDelTable copy;
    HashDelTableInit(&copy, 5, NULL, NULL, NULL, 0, 0, 0);
    HashDelTableCopy(&copy, table);
    HashDelTableFree(table);
    EXPECT_EQ(copy.t_deleted, read->t_deleted);
    EXPECT_EQ(PayloadOf(Lookup(&copy, "m31")), 1u);
    HashDelTableFree(&copy);
    HashDelTableFree(read);
    ArrayFree(form);
    ArrayFree(again);
}

TEST_F(HashDelTableTest, DamagedMemoryFormsAreRefusedCleanly) {
    HashDelTable *table = Sample();
    ByteArray form = {};
    HashDelTableMemWrite(table, &form);
    HashDelTable *target = HashDelTableNew(5, NULL, NULL, NULL, 4, 0, 0);
    Insert(target, "unchanged", 77);
    // Every truncation fails and leaves the table as it was.
    for (UInt cut = 0; cut < form.length; cut++) {
        std::vector<UByte> part(form.data, form.data + cut);
        ASSERT_EQ(HashDelTableMemRead(target, part.data(), cut), 0u) << cut;
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL));
    }
    EXPECT_EQ(PayloadOf(Lookup(target, "unchanged")), 77u);
    // Damaged bytes: refused, or a table whose operations stay within its
    // memory (ASan watches).
    UInt state = 12345;
    int refused = 0;
    for (int round = 0; round < 3000; round++) {
        std::vector<UByte> damaged(form.data, form.data + form.length);
        for (int k = 0; k < 1 + round % 3; k++) {
            state = state * 1103515245u + 12345u;
            damaged[(state >> 8) % damaged.size()] ^= (UByte)(1u << ((state >> 4) % 8));
        }
        if (HashDelTableMemRead(target, damaged.data(), damaged.size()) == 0) {
            refused++;
            continue;
        }
        for (UInt i = 0; i < 30; i++) Lookup(target, "m" + std::to_string(i * 31));
        HashDelTableEnumerate(
            target, 0, [](void *, void *) { return 0; }, nullptr);
        Remove(target, "m62");
        if (HashDelTableFull(target)) HashDelTableGrow(target, 1.5, nullptr);
        Insert(target, "new", 1);
    }
    EXPECT_GT(refused, 100);
    HashDelTableFree(target);
    HashDelTableFree(table);
    ArrayFree(form);
}

}  // namespace
