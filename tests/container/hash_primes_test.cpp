// The prime table behind the tables' slot counts: the committed file is
// what qkgen makes, and it has the properties the tables rely on.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "qk/qkcommon.h"

namespace {

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

const std::string kCommitted = std::string(QK_SOURCE_DIR) + "/src/container/generated/primes.inc";

TEST(Primes, CommittedTableIsWhatTheGeneratorWritesAndHoldsGrowingPrimes) {
    char output[] = "/tmp/qkgen_primes_XXXXXX";
    int fd = mkstemp(output);
    ASSERT_GE(fd, 0);
    close(fd);
    std::string command = std::string(QKGEN_PATH) + " primes " + output;
    ASSERT_EQ(system(command.c_str()), 0) << command;
    std::string generated = ReadFile(output);
    unlink(output);
    std::string committed = ReadFile(kCommitted);
    EXPECT_EQ(generated, committed);

    std::vector<ULong> primes;
    for (size_t at = committed.find('{'); (at = committed.find("0x", at)) != std::string::npos;
         at += 2)
        primes.push_back(strtoull(committed.c_str() + at, nullptr, 16));
    ASSERT_EQ(primes.size(), 106u);
    EXPECT_EQ(primes.front(), 7u);
    EXPECT_GT(primes.back(), (ULong)1 << 31);
    EXPECT_LT(primes.back(), (ULong)1 << 32);
    for (size_t i = 0; i < primes.size(); i++) {
        for (ULong d = 2; d * d <= primes[i]; d++) ASSERT_NE(primes[i] % d, 0u) << primes[i];
        if (i > 0) {
            EXPECT_GE(primes[i] * 5, primes[i - 1] * 6) << i;  // at least 6/5
        }
    }

    // Tables take the smallest of them at or above 1.5 times their capacity.
    QKLibInit("primestest");
    for (UInt capacity : {0u, 5u, 87u, 88u, 1000u, 123457u}) {
        HashTable *table = HashTableNew(capacity, NULL, NULL, NULL, 0, 0, 0);
        UInt effective = capacity < 5 ? 5 : capacity;
        ULong expected = 0;
        for (size_t i = primes.size(); i-- > 0;)
            if (primes[i] >= (ULong)effective * 3 / 2) expected = primes[i];
        EXPECT_EQ(HashTableCapacity(table), effective);
        EXPECT_EQ(table->t_nslots, expected) << capacity;
        EXPECT_EQ(table->t_data_size, effective * 5);
        HashTableFree(table);
    }
    EXPECT_DEATH(HashTableNew(0xFFFFFFFFu, NULL, NULL, NULL, 0, 0, 0),
                 "Prime\\(\\): argument too large");
}

}  // namespace
