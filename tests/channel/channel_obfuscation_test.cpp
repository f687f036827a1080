// Obfuscated channels against a keystream computed here from the
// fingerprint's definition, one byte at a time: what goes on the wire, what
// a large read puts in the caller's memory, two channels talking both ways,
// and switching it off at the same byte on both ends.
#include <random>
#include <thread>

#include "channel/channel_test_util.h"
#include "qk/fingerprint.h"

using namespace chantest;

namespace {

// The fingerprint of one zero byte fed to `a`: tables from the powers of x,
// one byte step, and the final step that makes the value even.
class KeyStream {
  public:
    static constexpr ULong P = 0xf48fc4ebab65b981ULL;

    explicit KeyStream(ULong key) : key_(key) {
        ULong x[64];
        x[0] = Step(1);
        for (int i = 1; i < 64; i++) x[i] = Step(x[i - 1]);
        for (int j = 0; j < 256; j++) {
            t7_[j] = 0;
            for (int b = 0; b < 8; b++) {
                if ((j >> b) & 1) t7_[j] ^= x[63 - 56 - b];
            }
        }
    }

    static ULong Step(ULong a) { return ((a & 1) ? a ^ P : a) >> 1; }

    ULong Next(ULong a) const {
        a = (a >> 8) ^ t7_[a & 255];
        return (a & 1) ? a ^ P : a;
    }

    // Applies the stream to the bytes, moving on.
    std::string Apply(const std::string &bytes) {
        std::string out = bytes;
        for (char &c : out) {
            c = (char)((UByte)c ^ (UByte)(key_ >> 56));
            key_ = Next(key_);
        }
        return out;
    }

  private:
    ULong key_;
    ULong t7_[256];
};

class ChannelObfuscationTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }
};

std::string Random(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string s(size, '\0');
    for (char &c : s) c = (char)random();
    return s;
}

TEST_F(ChannelObfuscationTest, ReferenceKeyStepIsTheFingerprintOfAZeroByte) {
    KeyStream stream(0);
    std::mt19937_64 random(5);
    for (int i = 0; i < 1000; i++) {
        ULong key = random();
        EXPECT_EQ(stream.Next(key), FingerprintExtend(key, "\0", 1)) << key;
    }
}

TEST_F(ChannelObfuscationTest, WritesGoScrambledThroughTheBuffer) {
    const ULong key = 0x0123456789abcdefULL;
    Pair pair;
    ChannelSetObfuscationKey(pair.channel, key);
    KeyStream expected(key);
    // Small, exactly a buffer, and well above a buffer (which, obfuscated,
    // still goes through the buffer).
    for (size_t size : {(size_t)1, (size_t)CHANNEL_BUFFER_SIZE, (size_t)40000}) {
        std::string plain = Random(size, (unsigned)size);
        std::thread writer([&] {
            EXPECT_EQ(ChannelWriteBuf(pair.channel, plain.data(), (UInt)size), 1);
            EXPECT_EQ(ChannelFlush(pair.channel), 1);
        });
        std::string wire = pair.Receive(size);
        writer.join();
        ASSERT_EQ(wire.size(), size);
        EXPECT_EQ(wire, expected.Apply(plain)) << size;
    }
}

TEST_F(ChannelObfuscationTest, ReadsAreDescrambledAlsoStraightIntoTheCallersMemory) {
    const ULong key = 0xfedcba9876543210ULL;
    Pair pair;
    ChannelSetObfuscationKey(pair.channel, key);
    KeyStream peer(key);
    std::string small = Random(100, 1);
    std::string large = Random(3 * CHANNEL_BUFFER_SIZE + 5, 2);
    std::thread sender([&] {
        pair.Send(peer.Apply(small));
        pair.Send(peer.Apply(large));
        pair.Send(peer.Apply("line\r\n"));
        shutdown(pair.peer, SHUT_WR);
    });
    std::string got(small.size(), '\0');
    EXPECT_EQ(ChannelReadBuf(pair.channel, &got[0], (UInt)got.size(), nullptr), 0);
    EXPECT_EQ(got, small);
    got.assign(large.size(), '\0');
    EXPECT_EQ(ChannelReadBuf(pair.channel, &got[0], (UInt)got.size(), nullptr), 0);
    EXPECT_EQ(got, large);
    EXPECT_EQ(ReadLine(pair.channel), "line");
    sender.join();
}

TEST_F(ChannelObfuscationTest, TwoEndsTalkBothWaysAndStopTogether) {
    ChannelPair pair;
    const ULong key = 0x5555aaaa5555aaaaULL;
    ChannelSetObfuscationKey(pair.a, key);
    ChannelSetObfuscationKey(pair.b, key);
    for (int round = 0; round < 20; round++) {
        std::string question = "question " + std::to_string(round) + "\n";
        EXPECT_TRUE(ChannelWriteString(pair.a, question.c_str()) && ChannelFlush(pair.a));
        EXPECT_EQ(ReadLine(pair.b) + "\n", question);
        EXPECT_TRUE(ChannelWriteUIntLE(pair.b, (UInt)round * 977) && ChannelFlush(pair.b));
        UInt answer = 0;
        EXPECT_EQ(ChannelReadUIntLE(pair.a, &answer), 1);
        EXPECT_EQ(answer, (UInt)round * 977);
    }
    // Both ends switch off after the same byte; plain bytes follow.
    ChannelSetObfuscationKey(pair.a, ~0ULL);
    ChannelSetObfuscationKey(pair.b, ~0ULL);
    EXPECT_TRUE(ChannelWriteString(pair.a, "plain\n") && ChannelFlush(pair.a));
    EXPECT_FALSE(pair.b->obfuscated);
    char raw[6];
    EXPECT_EQ(recv(pair.b->fd, raw, 6, MSG_WAITALL), 6);
    EXPECT_EQ(std::string(raw, 6), "plain\n");
}

}  // namespace
