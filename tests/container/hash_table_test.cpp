// HashTable and HashDelTable: both against a map on random operations in
// every length width; entry layout, hashing and probing, removal, selection
// into the table, misuse, and the serial form in memory and in files.
#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "container/container_test.h"
#include "container/varint.h"
#include "frame/file_test_dir.h"

namespace {

using std::to_string;

// HashTableX or HashDelTableX, after the type T of the table in scope.
template <class T, class P, class D>
constexpr auto Pick(P plain, D del) {
    if constexpr (std::is_same_v<T, HashTable>)
        return plain;
    else
        return del;
}
#define FN(X) Pick<T>(HashTable##X, HashDelTable##X)

// Entries start with a 4-byte number. Looks `key` up, or inserts it with
// `number` when one is given.
template <class T>
void *Find(T *table, const std::string &key, const UInt *number = nullptr, int *found = nullptr) {
    return FN(Find)(table, key.data(), (UInt)key.size(), number, found, nullptr);
}
UInt NumberOf(const void *entry) {  // entries are packed: no alignment
    UInt number = ~0u;
    if (entry) memcpy(&number, entry, 4);
    return number;
}
int Remove(HashDelTable *table, const std::string &key) {
    return HashDelTableRemove(table, key.data(), (UInt)key.size(), nullptr);
}
int ByNumberDescending(const void *a, const void *b, void *) {
    return NumberOf(a) > NumberOf(b) ? -1 : NumberOf(a) < NumberOf(b);
}

// "key=number" of the entries at `offsets`, or of all in order of insertion.
template <class T>
std::vector<std::string> Entries(T *table, const UIntArray *offsets = nullptr) {
    UIntArray all = {};
    if (!offsets) FN(Select)(table, 0, nullptr, nullptr, &all), offsets = &all;
    std::vector<std::string> entries;
    for (UInt k = 0, size; k < offsets->length; k++) {
        const UByte *entry = ((HashTable *)table)->t_data + offsets->data[k];  // the core is first
        const char *key = (const char *)FN(EntryKey)(table, entry, &size);
        entries.push_back(std::string(key, size) + "=" + to_string(NumberOf(entry)));
    }
    ArrayFree(all);
    return entries;
}

template <class T>
class HashTables : public ContainerTest {};
using TableTypes = ::testing::Types<HashTable, HashDelTable>;
TYPED_TEST_SUITE(HashTables, TableTypes);

// Random insertions, lookups and (for HashDelTable) removals of keys empty,
// short and long, in every width of the length field, on the heap and
// mapped; growth whenever the table says it is full. Every answer is the
// map's; entries keep their order of insertion (HashTable's their offsets
// too), the data area holds the live entries once grown, and a copy
// outlives its source.
TYPED_TEST(HashTables, RandomOperationsAgreeWithAMap) {
    using T = TypeParam;
    constexpr bool del = std::is_same_v<T, HashDelTable>;
    for (UInt width : {0u, 1u, 2u, 3u, 4u}) {
        T *table = FN(New)(5, NULL, NULL, NULL, 4, width, width % 2);
        std::mt19937 random(width);
        std::map<std::string, std::pair<UInt, UInt>> model;  // number and offset
        std::vector<std::string> order, entries;
        ULong bytes = 0;  // of the live entries
        for (UInt step = 0, keySize; step < 300; step++) {
            UInt n = random() % 1500;
            std::string key = n % 300 ? to_string(n) + std::string(n % 7 ? 0 : n % 250, '.') : "";
            UInt size = 4 + (width ? width : (UInt)qk::VarIntSize(key.size())) + key.size();
            auto known = model.find(key);
            if (step % 3 == 0 && del) {
                if constexpr (del) {
                    ASSERT_EQ(Remove(table, key), known != model.end());
                }
                if (known != model.end())
                    order.erase(std::find(order.begin(), order.end(), key)), model.erase(known),
                        bytes -= size;
            } else if (step % 3 == 1) {
                ASSERT_EQ(NumberOf(Find(table, key)),
                          known == model.end() ? ~0u : known->second.first);
            } else {
                if (FN(Full)(table)) FN(Grow)(table, 1.5, nullptr);
                int found;
                UByte *entry = (UByte *)Find(table, key, &step, &found);
                UInt offset = FN(GetOffset)(table, entry);
                if (!found) model[key] = {step, offset}, order.push_back(key), bytes += size;
                ASSERT_EQ(std::pair(found, NumberOf(entry)),
                          std::pair((int)(known != model.end()), model[key].first));
                ASSERT_EQ(FN(EntryKey)(table, entry, &keySize), entry + size - key.size());
                ASSERT_TRUE(del || offset == model[key].second);  // HashTable entries stay
            }
        }
        FN(Grow)(table, 1.1, nullptr);
        EXPECT_EQ(std::pair((ULong)FN(Size)(table), (ULong)((HashTable *)table)->t_data_used),
                  std::pair((ULong)model.size(), bytes));
        for (const std::string &key : order)
            entries.push_back(key + "=" + to_string(model[key].first));
        T *copy = FN(New)(100, NULL, NULL, NULL, 0, 0, 0);
        Find(copy, "gone", &width);
        FN(Copy)(copy, table);
        EXPECT_EQ(Entries(table), entries);
        FN(Free)(table);
        EXPECT_EQ(Entries(copy), entries);
        for (auto &[key, value] : model) ASSERT_EQ(NumberOf(Find(copy, key)), value.first);
        FN(Free)(copy);
    }
}

// Enumeration from an entry on stops at a callback's value; selection into
// an array follows the order of insertion, and sorts. Selected into the
// table, entries are reached by index; lookups go on, insertions (and
// growth of a HashDelTable) are refused until the table is cleared.
TYPED_TEST(HashTables, EnumerationAndSelection) {
    using T = TypeParam;
    T *table = FN(New)(20, NULL, NULL, NULL, 4, 0, 0);
    for (UInt i = 0, n = 0; i < 12; i++, n = i * 5 % 12) Find(table, to_string(i), &n);
    int calls = 0;
    UInt offset = FN(GetOffset)(table, Find(table, "4"));
    auto third = [](void *entry, void *calls) {
        return ++*(int *)calls == 3 ? (int)NumberOf(entry) + 100 : 0;
    };
    EXPECT_EQ(FN(Enumerate)(table, offset, third, &calls), 100 + 6 * 5 % 12);
    UIntArray odd = {};
    auto isOdd = [](const void *entry, void *) { return (int)(NumberOf(entry) % 2); };
    EXPECT_EQ(FN(Select)(table, 0, isOdd, nullptr, &odd), 6u);
    EXPECT_EQ(Entries(table, &odd),
              (std::vector<std::string>{"1=5", "3=3", "5=1", "7=11", "9=9", "11=7"}));
    FN(Sort)(table, ByNumberDescending, &odd);
    EXPECT_EQ(Entries(table, &odd),
              (std::vector<std::string>{"7=11", "9=9", "11=7", "1=5", "3=3", "5=1"}));
    EXPECT_EQ(FN(Select)(table, 0, nullptr, nullptr, nullptr), 12u);
    FN(Sort)(table, ByNumberDescending, nullptr);
    for (UInt i = 0; i < 12; i++) EXPECT_EQ(NumberOf(FN(GetIndex)(table, i)), 11 - i);
    EXPECT_EQ(NumberOf(Find(table, "3")), 3u);
    if constexpr (std::is_same_v<T, HashTable>)  // the same check for both
        EXPECT_DEATH(Find(table, "refused", &offset), "'!table->t_selected' failed");
    else
        EXPECT_DEATH(HashDelTableGrow(table, 2.0, nullptr), "'!table->t_selected' failed");
    FN(Clear)(table);
    EXPECT_EQ(std::tuple(((HashTable *)table)->t_selected, FN(Size)(table), Find(table, "3")),
              std::tuple(0, 0u, nullptr));
    EXPECT_EQ(std::pair(NumberOf(Find(table, "again", &offset)), FN(Capacity)(table)),
              std::pair(offset, 20u));
    FN(Free)(table), ArrayFree(odd);
}

// HashBytes against the sum of byte[i] * 257^i, at every length and
// alignment. An entry packs the caller's part, the length (a variable-length
// number, or little-endian in the table's width) and the key.
TEST_F(ContainerTest, HashBytesAndTheEntryLayout) {
    std::string key(200, 'k'), number("\xD4\xC3\xB2\xA1", 4);
    for (size_t i = 0; i < 48; i++) key[i] = (char)(i * 37 + 3);
    for (UInt start = 0; start < 8; start++) {
        for (UInt size = 0, sum = 0, power = 1; size <= 40;
             sum += (UByte)key[start + size++] * power, power *= 257)
            ASSERT_EQ(HashBytes(key.data() + start, size), sum) << start << " " << size;
    }
    for (auto [width, lengths] :
         {std::pair(0u, std::string("\x91\x02\x06")), {3u, std::string("\xC8\0\0\x03\0\0", 6)}}) {
        HashTable *table = HashTableNew(0, NULL, NULL, NULL, 4, width, 0);
        Find(table, key, (const UInt *)number.data()),
            Find(table, std::string("xyz"), (const UInt *)number.data());
        UInt big = width ? 3 : 2;
        EXPECT_EQ(std::string((char *)table->t_data, table->t_data_used),
                  number + lengths.substr(0, big) + key + number + lengths.substr(big) + "xyz");
        HashTableFree(table);
    }
}

// Every key hashing to 3 of 7 slots: probes go 3, 5, 0, 2, 4 (steps of
// 7 - 2 - 3 % 5). A removed slot is passed by lookups and taken by the next
// insertion that passes it; a full table takes no more.
TEST_F(ContainerTest, HashDelTableProbesByDoubleHashingAndReusesRemovedSlots) {
    HashDelTable table;  // embedded
    HashDelTableInit(
        &table, 5, [](const void *, UInt, void *, void *) -> UInt { return 3; }, NULL, NULL, 4, 0,
        0);
    UInt *slots = table.t_table.t_slots;
    auto slot = [&](const void *e) {
        return std::find(slots, slots + 7, HashDelTableGetOffset(&table, e)) - slots;
    };
    std::vector<long> taken;
    for (UInt i = 0; i < 5; i++) taken.push_back(slot(Find(&table, "c" + to_string(i), &i)));
    EXPECT_EQ(taken, (std::vector<long>{3, 5, 0, 2, 4}));
    EXPECT_EQ(Remove(&table, "c1"), 1);
    EXPECT_EQ(Remove(&table, "c1") + Remove(&table, "never"), 0);
    EXPECT_EQ(std::tuple(slots[5], table.t_deleted, HashDelTableSize(&table)),
              std::tuple(HASH_SLOT_DELETED, 1u, 4u));
    for (UInt i : {0u, 2u, 3u, 4u}) EXPECT_EQ(NumberOf(Find(&table, "c" + to_string(i))), i);
    UInt seven = 7;
    EXPECT_EQ(slot(Find(&table, "new", &seven)), 5);
    EXPECT_EQ(table.t_deleted, 0u);
    EXPECT_DEATH(Find(&table, "one too many", &seven), "t_capacity' failed");
    HashDelTableFree(&table);
}

// Keys compared and hashed without regard to case; the hash counts the calls
// that carry the table's own data as their argument, as growth's do. Misuse
// is an assertion; a full table does not grow by itself.
TEST_F(ContainerTest, HashTableCallsTheCallersFunctionsAndChecksItsUse) {
    auto hash = [](const void *key, UInt size, void *userData, void *hashArg) -> UInt {
        return *(int *)userData += hashArg == userData, size * 31 + tolower(*(const char *)key);
    };
    auto compare = [](const void *stored, UInt storedSize, const void *key, UInt size, void *,
                      void *) -> int {
        return storedSize != size || strncasecmp((const char *)stored, (const char *)key, size);
    };
    int hashes = 0, extra = 5;
    HashTable *table = HashTableNew(10, hash, &hashes, compare, 0, 0, 0);
    void *entry = HashTableFind(table, "Hello", 5, "", nullptr, &hashes);
    EXPECT_EQ(HashTableFind(table, "hELLO", 5, nullptr, nullptr, &hashes), entry);
    HashTableGrow(table, 2.0, &hashes);
    EXPECT_EQ(hashes, 3);
    EXPECT_EQ(
        std::string((char *)HashTableFind(table, "HELLO", 5, nullptr, nullptr, nullptr) + 1, 5),
        "Hello");
    HashTableFree(table);
    table = HashTableNew(5, NULL, NULL, NULL, 0, 1, 0);
    EXPECT_DEATH(HashTableGrow(table, 1.0, nullptr), "'factor > 1.0' failed");
    EXPECT_DEATH(HashTableSort(table, ByNumberDescending, nullptr),
                 "'cmp != NULL && \\(entries != NULL \\|\\| table->t_selected\\)' failed");
    for (int i = 0; i < 5; i++) HashTableFind(table, &i, sizeof i, "", nullptr, nullptr);
    EXPECT_DEATH(HashTableFind(table, &extra, sizeof extra, "", nullptr, nullptr), "t_capacity");
    HashTableGrow(table, 2.0, nullptr);
    std::string tooLong(256, 'x');  // for a one-byte length
    EXPECT_DEATH(HashTableFind(table, tooLong.data(), 256, "", nullptr, nullptr), "failed");
    HashTableFree(table);
}

// A HashDelTable with live and removed entries, and its serial form.
class SerialForm : public ContainerTest {
  protected:
    void SetUp() override {
        ContainerTest::SetUp();
        for (UInt i = 0; i < 30; i++) Find(table, "m" + to_string(i * 31), &i);
        for (UInt i = 0; i < 30; i += 4) Remove(table, "m" + to_string(i * 31));
        HashDelTableMemWrite(table, &form);
    }
    void TearDown() override { HashDelTableFree(table), ArrayFree(form); }
    std::string Form() const { return std::string((const char *)form.data, form.length); }
    HashDelTable *table = HashDelTableNew(40, NULL, NULL, NULL, 4, 0, 0);
    ByteArray form = {};
};

// Fixed little-endian fields (the caller's part, flags, width, count,
// capacity, slots, data used and allocated), the slots, the data area in
// use. Read back it gives the same table, which writes the same bytes; in a
// file the same bytes, which a HashTable refuses for their removed slots. A
// HashTable's file reads back into a table of other settings; failures keep
// the table and name the file.
TEST_F(SerialForm, IsFixedFieldsSlotsAndDataInMemoryAndInFiles) {
    auto le = [](ULong value, int width) {
        std::string field;
        for (int i = 0; i < width; i++) field += (char)(value >> 8 * i);
        return field;
    };
    const HashTable &core = table->t_table;
    std::string expected = le(4, 4) + le(0, 4) + le(0, 1) + le(22, 4) + le(40, 4) +
                           le(core.t_nslots, 4) + le(core.t_data_used, 4) + le(core.t_data_size, 4);
    for (UInt i = 0; i < core.t_nslots; i++) expected += le(core.t_slots[i], 4);
    EXPECT_EQ(Form(), expected + std::string((char *)core.t_data, core.t_data_used));
    HashDelTable read;
    HashDelTableInit(&read, 5, NULL, NULL, NULL, 0, 2, 1);
    std::vector<UByte> longer(form.data, form.data + form.length + 10);
    ASSERT_EQ(HashDelTableMemRead(&read, longer.data(), longer.size()), form.length);
    EXPECT_EQ(std::pair(read.t_deleted, HashDelTableSize(&read)), std::pair(8u, 22u));
    for (UInt i = 0; i < 30; i++)
        EXPECT_EQ(NumberOf(Find(&read, "m" + to_string(i * 31))), i % 4 ? i : ~0u);
    ByteArray again = {};
    ArrayAppend(again, "pre", 3);  // forms are appended
    HashDelTableMemWrite(&read, &again);
    EXPECT_EQ(std::string((char *)again.data, again.length), "pre" + Form());
    HashDelTableFree(&read), ArrayFree(again);

    TempDir dir;
    std::string path = dir / "table.bin", missing = dir / "missing/table.bin";
    ASSERT_EQ(HashTableWrite(&table->t_table, path.c_str()), 1) << QKErrorMessage();
    EXPECT_EQ(ReadWhole(path), Form());
    HashTable *plain = HashTableNew(30, NULL, NULL, NULL, 4, 0, 0),
              *back = HashTableNew(5, NULL, NULL, NULL, 0, 1, 1);
    for (UInt i = 0; i < 25; i++) Find(plain, "file key " + to_string(i), &i);
    ASSERT_EQ(HashTableWrite(plain, path.c_str()), 1);
    std::string bytes = ReadWhole(path);
    ASSERT_EQ(HashTableRead(back, path.c_str()), 1) << QKErrorMessage();
    HashTableGrow(back, 2.0, nullptr);
    for (UInt i = 0; i < 25; i++) EXPECT_EQ(NumberOf(Find(back, "file key " + to_string(i))), i);
    EXPECT_EQ(HashTableRead(back, missing.c_str()) + HashTableWrite(back, missing.c_str()), 0);
    EXPECT_NE(std::string(QKErrorMessage()).find("error opening " + missing), std::string::npos);
    for (const std::string &damaged : {bytes.substr(0, bytes.size() - 1), bytes + "x", Form()}) {
        WriteWhole(path, damaged);
        EXPECT_EQ(HashTableRead(back, path.c_str()), 0);
        EXPECT_NE(std::string(QKErrorMessage()).find("error reading"), std::string::npos);
    }
    EXPECT_EQ(NumberOf(Find(back, "file key 7")), 7u);
    HashTableFree(plain), HashTableFree(back);
}

// Every truncation is refused and leaves the target as it was; damaged
// bytes are refused, or give a table whose operations stay within its
// memory (ASan watches).
TEST_F(SerialForm, DamageIsRefusedWithoutHarm) {
    HashDelTable *target = HashDelTableNew(5, NULL, NULL, NULL, 4, 0, 0);
    UInt number = 77, state = 12345;
    int refused = 0;
    Find(target, "unchanged", &number);
    for (UInt cut = 0; cut < form.length; cut++) {
        std::vector<UByte> part(form.data, form.data + cut);
        ASSERT_EQ(HashDelTableMemRead(target, part.data(), cut), 0u) << cut;
        EXPECT_EQ(QKErrorCode(), QK_ERROR_CODE(QK_ERR_FORMAT, QK_DOMAIN_GENERAL));
    }
    EXPECT_EQ(NumberOf(Find(target, "unchanged")), 77u);
    for (int round = 0; round < 3000; round++) {
        std::vector<UByte> damaged(form.data, form.data + form.length);
        for (int k = 0; k <= round % 3; k++) {
            state = state * 1103515245u + 12345u;
            damaged[(state >> 8) % damaged.size()] ^= (UByte)(1u << ((state >> 4) % 8));
        }
        if (HashDelTableMemRead(target, damaged.data(), damaged.size()) == 0 && ++refused) continue;
        for (UInt i = 0; i < 30; i++) Find(target, "m" + to_string(i * 31));
        HashDelTableEnumerate(
            target, 0, [](void *, void *) { return 0; }, nullptr);
        Remove(target, "m62");
        if (HashDelTableFull(target)) HashDelTableGrow(target, 1.5, nullptr);
        Find(target, "new", &number);
    }
    EXPECT_GT(refused, 100);
    HashDelTableFree(target);
}

}  // namespace
