// The prime table behind the tables' slot counts: the committed file is
// what qkgen makes, and it has the properties the tables rely on.
#include "container/container_test.h"

namespace {

TEST_F(ContainerTest, CommittedPrimesAreWhatTheGeneratorWritesAndGrowAsTheTablesNeed) {
    TempDir dir;
    std::string command = std::string(QKGEN_PATH) + " primes " + (dir / "primes.inc");
    ASSERT_EQ(system(command.c_str()), 0) << command;
    std::string committed =
        ReadWhole(std::string(QK_SOURCE_DIR) + "/src/container/generated/primes.inc");
    EXPECT_EQ(ReadWhole(dir / "primes.inc"), committed);

    std::vector<ULong> primes;
    for (size_t at = committed.find('{'); (at = committed.find("0x", at)) != std::string::npos;
         at += 2)
        primes.push_back(strtoull(committed.c_str() + at, nullptr, 16));
    ASSERT_EQ(std::tuple(primes.size(), primes.front(), primes.back() >> 31),
              std::tuple(106u, 7u, 1u));
    for (size_t i = 0; i < primes.size(); i++) {
        for (ULong d = 2; d * d <= primes[i]; d++) ASSERT_NE(primes[i] % d, 0u) << primes[i];
        EXPECT_TRUE(i == 0 || primes[i] * 5 >= primes[i - 1] * 6) << i;  // at least 6/5
    }
    // Tables take the smallest of them at or above 1.5 times their capacity,
    // and 5 bytes of data a unit of capacity; no fewer than 5.
    for (UInt capacity : {0u, 5u, 87u, 88u, 1000u, 123457u}) {
        HashTable *table = HashTableNew(capacity, NULL, NULL, NULL, 0, 0, 0);
        UInt effective = std::max(capacity, 5u);
        auto slots = std::lower_bound(primes.begin(), primes.end(), (ULong)effective * 3 / 2);
        EXPECT_EQ(std::tuple(HashTableCapacity(table), table->t_nslots, table->t_data_size),
                  std::tuple(effective, (UInt)*slots, effective * 5))
            << capacity;
        HashTableFree(table);
    }
    EXPECT_DEATH(HashTableNew(0xFFFFFFFFu, NULL, NULL, NULL, 0, 0, 0),
                 "Prime\\(\\): argument too large");
}

}  // namespace
