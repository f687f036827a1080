// HashTable and HashDelTable: both against a map on random operations in
// every length width; entry layout, hashing and probing, removal, selection
// into the table, misuse, and the serial form in memory and in files.
#include "container/container_test.h"
#include "container/varint.h"

namespace {

using std::to_string;

// HashTableX or HashDelTableX, after the type T of the table in scope.
template <class T, class P, class D>
constexpr auto Pick(P plain, D del) {
    return std::get<(std::is_same_v<T, HashTable> ? 0 : 1)>(std::pair(plain, del));
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
    return entry ? (memcpy(&number, entry, 4), number) : number;
}
int Remove(HashDelTable *table, const std::string &key) {
    return HashDelTableRemove(table, key.data(), (UInt)key.size(), nullptr);
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
        std::map<std::string, std::pair<UInt, UInt>> model;  // number (the step) and offset
        ULong bytes = 0;                                     // of the live entries
        for (UInt step = 0, keySize; step < 300; step++) {
            UInt n = random() % 1500;
            std::string key = n % 300 ? to_string(n) + std::string(n % 7 ? 0 : n % 250, '.') : "";
            UInt size = 4 + (width ? width : (UInt)qk::VarIntSize(key.size())) + key.size();
            auto known = model.find(key);
            if (step % 3 == 0 && del) {
                if constexpr (del) {
                    ASSERT_EQ(Remove(table, key), known != model.end());
                }
                if (known != model.end()) model.erase(known), bytes -= size;
            } else if (step % 3 == 1) {
                ASSERT_EQ(NumberOf(Find(table, key)),
                          known == model.end() ? ~0u : known->second.first);
            } else {
                if (FN(Full)(table)) FN(Grow)(table, 1.5, nullptr);
                int found;
                UByte *entry = (UByte *)Find(table, key, &step, &found);
                UInt offset = FN(GetOffset)(table, entry);
                if (!found) model[key] = {step, offset}, bytes += size;
                ASSERT_EQ(std::pair(found, NumberOf(entry)),
                          std::pair((int)(known != model.end()), model[key].first));
                ASSERT_EQ(FN(EntryKey)(table, entry, &keySize), entry + size - key.size());
                ASSERT_TRUE(del || offset == model[key].second);  // HashTable entries stay
            }
        }
        FN(Grow)(table, 1.1, nullptr);
        EXPECT_EQ(std::pair((ULong)FN(Size)(table), (ULong)((HashTable *)table)->t_data_used),
                  std::pair((ULong)model.size(), bytes));
        T *copy = FN(New)(100, NULL, NULL, NULL, 0, 0, 0);
        Find(copy, "gone", &width);
        FN(Copy)(copy, table), FN(Free)(table);
        ASSERT_EQ(FN(Select)(copy, 0, nullptr, nullptr, nullptr), model.size());
        for (UInt k = 1; k < model.size(); k++)  // numbers grow in the order of insertion
            ASSERT_LT(NumberOf(FN(GetIndex)(copy, k - 1)), NumberOf(FN(GetIndex)(copy, k)));
        for (auto &[key, value] : model) ASSERT_EQ(NumberOf(Find(copy, key)), value.first);
        FN(Free)(copy);
    }
}

// Enumeration from an entry on stops at a callback's value; selection into
// an array keeps the entries a predicate chose, and sorts. Selected into the
// table, entries are reached by index; insertions (and growth of a
// HashDelTable) are refused until the table is cleared.
TYPED_TEST(HashTables, EnumerationAndSelection) {
    using T = TypeParam;
    T *table = FN(New)(20, NULL, NULL, NULL, 4, 0, 0);
    for (UInt i = 0, n = 0; i < 12; i++, n = i * 5 % 12) Find(table, to_string(i), &n);
    auto past6 = [](void *entry, void *) { return NumberOf(entry) > 6 ? (int)NumberOf(entry) : 0; };
    UInt offset = FN(GetOffset)(table, Find(table, "5"));  // numbers 1, 6, 11, 4 ... from here
    EXPECT_EQ(FN(Enumerate)(table, offset, past6, nullptr), 11);
    UIntArray odd = {};
    auto isOdd = [](const void *entry, void *) { return (int)(NumberOf(entry) % 2); };
    auto down = [](const void *x, const void *y, void *) { return int(NumberOf(y) - NumberOf(x)); };
    EXPECT_EQ(FN(Select)(table, 0, isOdd, nullptr, &odd), 6u);
    FN(Sort)(table, down, &odd);
    EXPECT_EQ(NumberOf(((HashTable *)table)->t_data + odd.data[5]), 1u);  // the core is first
    EXPECT_EQ(FN(Select)(table, 0, nullptr, nullptr, nullptr), 12u);
    FN(Sort)(table, down, nullptr);
    for (UInt i = 0; i < 12; i++) EXPECT_EQ(NumberOf(FN(GetIndex)(table, i)), 11 - i);
    EXPECT_DEATH((std::is_same_v<T, HashTable> ? (void)Find(table, "refused", &offset)
                                               : FN(Grow)(table, 2.0, nullptr)),
                 "'!table->t_selected' failed");
    FN(Clear)(table);
    EXPECT_EQ(std::tuple(FN(Size)(table), FN(Capacity)(table), Find(table, "3")),
              std::tuple(0u, 20u, (void *)nullptr));
    EXPECT_EQ(NumberOf(Find(table, "new", &offset)), offset);  // taken again
    EXPECT_DEATH(FN(Sort)(table, down, nullptr),
                 "'cmp != NULL && \\(entries != NULL \\|\\| table->t_selected\\)' failed");
    FN(Free)(table), ArrayFree(odd);
}

// HashBytes against the sum of byte[i] * 257^i, at every length and
// alignment. An entry packs the caller's part, the length (a variable-length
// number, or little-endian in the table's width) and the key. Misuse is an
// assertion.
TEST_F(ContainerTest, HashBytesAndTheEntryLayout) {
    std::string key(200, 'k'), number("\xD4\xC3\xB2\xA1", 4);
    for (size_t i = 0; i < 48; i++) key[i] = (char)(i * 37 + 3);
    for (UInt start = 0; start < 8; start++)
        for (UInt size = 0, sum = 0, power = 1; size <= 40;
             sum += (UByte)key[start + size++] * power, power *= 257)
            ASSERT_EQ(HashBytes(key.data() + start, size), sum) << start << " " << size;
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
    EXPECT_DEATH(HashTableGrow(HashTableNew(0, NULL, NULL, NULL, 0, 0, 0), 1.0, nullptr),
                 "'factor > 1.0' failed");
    EXPECT_DEATH(Find(HashTableNew(0, NULL, NULL, NULL, 4, 1, 0), std::string(256, 'x'),
                      (const UInt *)number.data()),
                 "'LengthFits\\(width, size\\)' failed");  // too long for a one-byte length
}

// The caller's hash sends every key to 3 of 7 slots: probes go 3, 5, 0, 2, 4
// (steps of 7 - 2 - 3 % 5); the caller's compare ignores case. A removed
// slot is passed by lookups and taken by the next insertion that passes it;
// a full table takes no more.
TEST_F(ContainerTest, HashDelTableProbesByDoubleHashingAndReusesRemovedSlots) {
    auto compare = [](const void *a, UInt aSize, const void *b, UInt size, void *, void *) -> int {
        return aSize != size || strncasecmp((const char *)a, (const char *)b, size);
    };
    auto three = [](const void *, UInt, void *, void *) -> UInt { return 3; };
    HashDelTable table;  // embedded
    HashDelTableInit(&table, 5, three, NULL, compare, 4, 0, 0);
    UInt *slots = table.t_table.t_slots;
    auto slot = [&](const void *e) {
        return std::find(slots, slots + 7, HashDelTableGetOffset(&table, e)) - slots;
    };
    const long probes[] = {3, 5, 0, 2, 4};
    for (UInt i = 0; i < 5; i++) EXPECT_EQ(slot(Find(&table, "c" + to_string(i), &i)), probes[i]);
    EXPECT_EQ(Remove(&table, "c1"), 1);
    EXPECT_EQ(std::tuple(slots[5], table.t_deleted, HashDelTableSize(&table)),
              std::tuple(HASH_SLOT_DELETED, 1u, 4u));
    EXPECT_EQ(NumberOf(Find(&table, "C3")), 3u);  // past the removed slot
    EXPECT_FALSE(HashDelTableFull(&table));       // a removed slot does not count
    UInt seven = 7;
    EXPECT_EQ(std::pair(slot(Find(&table, "new", &seven)), table.t_deleted), std::pair(5l, 0u));
    EXPECT_TRUE(HashDelTableFull(&table));
    EXPECT_DEATH(Find(&table, "one too many", &seven), "t_capacity' failed");
    // Steady removals and insertions, growing when full: the table keeps its
    // capacity, and removed slots are cleared before they crowd it.
    std::vector<std::string> live = {"c0", "c2", "c3", "c4", "new"};
    for (UInt i = 0; i < 100; i++) {
        ASSERT_EQ(Remove(&table, live.front()), 1);
        live.erase(live.begin());
        if (HashDelTableFull(&table)) HashDelTableGrow(&table, 1.5, nullptr);
        live.push_back("k" + to_string(i));
        Find(&table, live.back(), &i);
        ASSERT_LE(table.t_table.t_count + table.t_deleted, 5u);
    }
    EXPECT_EQ(HashDelTableCapacity(&table), 5u);
    for (const std::string &key : live) EXPECT_NE(Find(&table, key), nullptr) << key;
    HashDelTableFree(&table);
}

// A HashDelTable with live and removed entries. Its serial form is fixed
// little-endian fields (the caller's part, flags, width, count, capacity,
// slots, data used and allocated), the slots, the data area in use. Read
// back into a table of other settings it gives the same table, which writes
// the same bytes; in a file the same bytes, which a HashTable refuses for
// their removed slots. A HashTable's file reads back into a table of other
// settings; failures keep the table and name the file. Every truncation is
// refused and leaves the target as it was; damaged bytes are refused, or
// give a table whose operations stay within its memory (ASan watches).
TEST_F(ContainerTest, HashDelTableSerialFormInMemoryAndInFilesRefusesDamage) {
    HashDelTable *table = HashDelTableNew(40, NULL, NULL, NULL, 4, 0, 0);
    for (UInt i = 0; i < 30; i++) Find(table, "m" + to_string(i * 31), &i);
    for (UInt i = 0; i < 30; i += 4) Remove(table, "m" + to_string(i * 31));
    auto expectKeys = [](auto *read) {  // every fourth key was removed
        for (UInt i = 0; i < 30; i++)
            EXPECT_EQ(NumberOf(Find(read, "m" + to_string(i * 31))), i % 4 ? i : ~0u);
    };
    auto le = [](ULong value, int width) {
        std::string field;
        for (int i = 0; i < width; i++) field += (char)(value >> 8 * i);
        return field;
    };
    const HashTable &core = table->t_table;
    std::string form = le(4, 4) + le(0, 4) + le(0, 1) + le(22, 4) + le(40, 4) +
                       le(core.t_nslots, 4) + le(core.t_data_used, 4) + le(core.t_data_size, 4);
    for (UInt i = 0; i < core.t_nslots; i++) form += le(core.t_slots[i], 4);
    form += std::string((char *)core.t_data, core.t_data_used);
    ByteArray written = {};
    ArrayAppend(written, "pre", 3);  // forms are appended
    HashDelTableMemWrite(table, &written);
    HashDelTable read;
    HashDelTableInit(&read, 5, NULL, NULL, NULL, 0, 2, 1);
    ASSERT_EQ(HashDelTableMemRead(&read, (form + "and more").data(), form.size() + 8), form.size());
    EXPECT_EQ(std::pair(read.t_deleted, HashDelTableSize(&read)), std::pair(8u, 22u));
    expectKeys(&read);
    HashDelTableMemWrite(&read, &written);  // the same again
    EXPECT_EQ(std::string((char *)written.data, written.length), "pre" + form + form);

    TempDir dir;
    std::string path = dir / "table.bin", missing = dir / "missing/table.bin";
    ASSERT_EQ(HashTableWrite(&table->t_table, path.c_str()), 1) << QKErrorMessage();
    EXPECT_EQ(ReadWhole(path), form);
    HashTable *plain = HashTableNew(30, NULL, NULL, NULL, 4, 0, 0),
              *back = HashTableNew(5, NULL, NULL, NULL, 0, 1, 1);
    for (UInt i = 0; i < 30; i++)
        if (i % 4) Find(plain, "m" + to_string(i * 31), &i);
    ASSERT_EQ(HashTableWrite(plain, path.c_str()), 1);
    std::string bytes = ReadWhole(path);
    ASSERT_EQ(HashTableRead(back, path.c_str()), 1) << QKErrorMessage();
    expectKeys(back);
    EXPECT_EQ(HashTableRead(back, missing.c_str()) + HashTableWrite(back, missing.c_str()), 0);
    EXPECT_EQ(Error().second.rfind("error opening " + missing + ": ", 0), 0u);  // and the cause
    for (auto [damaged, error] : {std::pair(bytes.substr(0, bytes.size() - 1), "too short"),
                                  {bytes + "x", "followed by other bytes"},
                                  {form, "slots"}}) {
        WriteWhole(path, damaged);
        EXPECT_EQ(HashTableRead(back, path.c_str()), 0);
        EXPECT_EQ(Error().second, "error reading " + path + ": bad format: hash table " + error);
    }
    HashTableGrow(back, 2.0, nullptr);
    expectKeys(back);

    UInt number = 77;
    Find(&read, "unchanged", &number);
    int refused = Damage((const UByte *)form.data(), form.size(), 64, 3000, [&](auto &bytes) {
        if (HashDelTableMemRead(&read, bytes.data(), bytes.size()) == 0) {
            EXPECT_TRUE(bytes.size() == form.size() || NumberOf(Find(&read, "unchanged")) == 77);
            return false;
        }
        for (UInt i = 0; i < 30; i++) Find(&read, "m" + to_string(i * 31));
        HashDelTableEnumerate(
            &read, 0, [](void *, void *) { return 0; }, nullptr);
        Remove(&read, "m62");
        if (HashDelTableFull(&read)) HashDelTableGrow(&read, 1.5, nullptr);
        return Find(&read, "new", &number), true;
    });
    EXPECT_GT(refused, 100);
    HashDelTableFree(table), HashDelTableFree(&read), HashTableFree(plain), HashTableFree(back);
    ArrayFree(written);
}

}  // namespace
