// Buffered reads and writes over a socket pair: blocks around the buffer
// size, lines with CRs, limits and abrupt ends, a peer that trickles bytes,
// numbers as text, time-outs, and the failures of a closed peer.
#include <sys/ioctl.h>

#include <random>
#include <thread>

#include "channel/channel_test_util.h"

using namespace chantest;

namespace {

class ChannelIOTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }
};

TEST_F(ChannelIOTest, BlocksRoundTripAroundTheBufferSize) {
    ChannelPair pair;
    std::mt19937 random(1);
    for (size_t size : {1, 1459, 11679, 11680, 11681, 40000}) {
        std::string sent(size, '\0');
        for (char &c : sent) c = (char)random();
        std::thread writer([&] {
            EXPECT_EQ(ChannelWriteBuf(pair.a, sent.data(), (UInt)size), 1);
            EXPECT_EQ(ChannelFlush(pair.a), 1);
        });
        // A byte first, so that the rest comes partly from the buffer.
        std::string got(size, '\0');
        got[0] = (char)ChannelReadByte(pair.b);
        UInt count = 0;
        EXPECT_EQ(ChannelReadBuf(pair.b, &got[1], (UInt)size - 1, &count), 0);
        EXPECT_EQ(count, size - 1);
        writer.join();
        EXPECT_EQ(got, sent) << size;
    }
}

TEST_F(ChannelIOTest, ReadBufStopsAtEndOfFileAndCounts) {
    for (size_t size : {10, 20000}) {
        Pair pair;
        pair.Send(std::string(size, 'x'));
        pair.ClosePeer();
        std::string got(size + 100, '\0');
        UInt count = 0;
        errno = 5;
        EXPECT_EQ(ChannelReadBuf(pair.channel, &got[0], (UInt)got.size(), &count), -1);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(count, size);
    }
}

TEST_F(ChannelIOTest, ReadLineDropsEveryCRAndEndsWithReadEOF) {
    Pair pair;
    pair.Send("abc\r\nde\rf\n\r\r\nlast");
    pair.ClosePeer();
    EXPECT_EQ(ReadLine(pair.channel), "abc");
    EXPECT_EQ(ReadLine(pair.channel), "def");
    EXPECT_EQ(ReadLine(pair.channel), "");
    // The last line has no LF: its bytes stay, the result is 0.
    int result = 1;
    EXPECT_EQ(ReadLine(pair.channel, 0, &result), "last");
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(HasError(QK_ERR_EOF, QK_DOMAIN_GENERAL, "read EOF"));
    EXPECT_EQ(ReadLine(pair.channel, 0, &result), "");
    EXPECT_EQ(result, 0);
}

TEST_F(ChannelIOTest, ReadLineStopsAfterMaxStoredBytes) {
    Pair pair;
    pair.Send("abcdef\nab\rcd\nxy\n");
    shutdown(pair.peer, SHUT_WR);
    EXPECT_EQ(ReadLine(pair.channel, 4), "abcd");
    EXPECT_EQ(ReadLine(pair.channel, 4), "ef");
    // A CR is not stored, so it does not count.
    EXPECT_EQ(ReadLine(pair.channel, 3), "abc");
    EXPECT_EQ(ReadLine(pair.channel, 3), "d");
    // Exactly max bytes before the LF: the LF ends the next line.
    EXPECT_EQ(ReadLine(pair.channel, 2), "xy");
    int result = 0;
    EXPECT_EQ(ReadLine(pair.channel, 2, &result), "");
    EXPECT_EQ(result, 1);
}

TEST_F(ChannelIOTest, LinesLongerThanTheBuffer) {
    ChannelPair pair;
    std::string line(3 * CHANNEL_BUFFER_SIZE + 17, 'q'), expected;
    for (size_t i = 0; i < line.size(); i += 1000) line[i] = '\r';
    for (char c : line)
        if (c != '\r') expected += c;
    std::thread writer([&] {
        std::string text = line + "\n" + line + "\r\nend\n";
        EXPECT_EQ(ChannelWriteBuf(pair.a, text.data(), (UInt)text.size()), 1);
        EXPECT_EQ(ChannelFlush(pair.a), 1);
    });
    EXPECT_EQ(ReadLine(pair.b), expected);
    EXPECT_EQ(ReadLine(pair.b), expected);
    EXPECT_EQ(ReadLine(pair.b), "end");
    writer.join();
}

TEST_F(ChannelIOTest, PeerClosingMidLine) {
    Pair pair;
    std::thread peer([&] {
        pair.Send("whole\r\npart");
        pair.ClosePeer();
    });
    EXPECT_EQ(ReadLine(pair.channel), "whole");
    int result = 1;
    EXPECT_EQ(ReadLine(pair.channel, 0, &result), "part");
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(HasError(QK_ERR_EOF, QK_DOMAIN_GENERAL, "read EOF"));
    peer.join();
}

TEST_F(ChannelIOTest, PeerSendingOneByteAtATime) {
    Pair pair;
    const std::string text = "GET / HTTP/1.0\r\nHost: x\r\n\r\n\xC3\xA9\xE2\x82\xAC";
    const int fd = pair.channel->fd;
    std::thread peer([&] {
        for (char c : text) {
            ASSERT_EQ(write(pair.peer, &c, 1), 1);
            // Wait until the byte has been taken, so that every read gets one.
            int queued = 1;
            for (int i = 0; i < 5000 && queued > 0; i++) {
                usleep(100);
                if (ioctl(fd, FIONREAD, &queued) != 0) break;
            }
        }
        pair.ClosePeer();
    });
    EXPECT_EQ(ReadLine(pair.channel), "GET / HTTP/1.0");
    EXPECT_EQ(ReadLine(pair.channel), "Host: x");
    EXPECT_EQ(ReadLine(pair.channel), "");
    EXPECT_EQ(ChannelPeekByte(pair.channel), 0xC3);
    EXPECT_EQ(ChannelReadUTF8(pair.channel), 0xE9);
    EXPECT_EQ(ChannelReadUTF8(pair.channel), 0x20AC);
    EXPECT_EQ(ChannelReadUTF8(pair.channel), -1);
    peer.join();
}

TEST_F(ChannelIOTest, NumbersAsTextAlsoNearTheEndOfTheBuffer) {
    Pair pair;
    EXPECT_TRUE(
        ChannelWriteInt(pair.channel, -2147483647 - 1) && ChannelWriteUInt(pair.channel, 0) &&
        ChannelWriteLong(pair.channel, -9223372036854775807LL - 1) &&
        ChannelWriteHexInt(pair.channel, 0xabcd) &&
        ChannelWriteHexLong(pair.channel, 0x123456789abcdefULL) &&
        ChannelWriteDouble(pair.channel, 3.14159265) && ChannelWriteDouble(pair.channel, -1e20));
    EXPECT_EQ(pair.Drain(), "-21474836480-92233720368547758080000abcd0123456789abcdef3.1416-1e+20");
    // Every prefix length near the end of the buffer, then long numbers.
    for (UInt fill = CHANNEL_BUFFER_SIZE - 40; fill < CHANNEL_BUFFER_SIZE; fill += 3) {
        std::string prefix(fill, 'p');
        ASSERT_EQ(ChannelWriteBuf(pair.channel, prefix.data(), fill), 1);
        ASSERT_EQ(ChannelWriteULong(pair.channel, 18446744073709551615ULL), 1);
        ASSERT_EQ(ChannelWriteDouble(pair.channel, -1.2345678e-300), 1);
        EXPECT_EQ(pair.Drain(), prefix + "18446744073709551615-1.2346e-300") << fill;
    }
}

TEST_F(ChannelIOTest, WritingToAClosedPeerFailsWithoutASignal) {
    Pair pair;
    pair.ClosePeer();
    EXPECT_EQ(ChannelWriteString(pair.channel, "lost"), 1);
    EXPECT_EQ(ChannelFlush(pair.channel), 0);
    EXPECT_TRUE(HasError(EPIPE, QK_DOMAIN_OS));
    EXPECT_EQ(pair.channel->writePos, 4u);
    // Closing tries the flush again and reports it.
    EXPECT_EQ(ChannelClose(pair.channel), 0);
    pair.channel = nullptr;
}

TEST_F(ChannelIOTest, Timeouts) {
    // A write limit of 0 seconds: the first wait on the full socket gives up.
    Pair full(-1, 0);
    std::string block(1 << 20, 'w');
    int result = 1;
    for (int i = 0; i < 64 && result; i++)
        result = ChannelWriteBuf(full.channel, block.data(), (UInt)block.size());
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(HasError(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "timeout"));

    // A read limit of 1 is a second: it fires, and a byte that comes a little
    // later is waited for.
    Pair pair(1, -1);
    EXPECT_EQ(ChannelReadByte(pair.channel), -3);
    EXPECT_TRUE(HasError(QK_ERR_TIMEOUT, QK_DOMAIN_GENERAL, "timeout"));
    std::thread late([&] {
        usleep(100000);
        pair.Send("l");
    });
    EXPECT_EQ(ChannelReadByte(pair.channel), 'l');
    late.join();
}

TEST_F(ChannelIOTest, TimeoutsSwitchTheBlockingModeAtOnce) {
    Pair pair;
    EXPECT_FALSE(IsNonBlocking(pair.channel->fd));
    EXPECT_EQ(ChannelSetReadTimeout(pair.channel, 5000), -1);
    EXPECT_TRUE(IsNonBlocking(pair.channel->fd));
    EXPECT_EQ(ChannelSetWriteTimeout(pair.channel, 7), -1);
    EXPECT_EQ(ChannelSetReadTimeout(pair.channel, -1), 5000);
    EXPECT_TRUE(IsNonBlocking(pair.channel->fd));
    EXPECT_EQ(ChannelSetWriteTimeout(pair.channel, -1), 7);
    EXPECT_FALSE(IsNonBlocking(pair.channel->fd));
}

TEST_F(ChannelIOTest, ShutdownDisconnectAndUnconnected) {
    Pair pair;
    EXPECT_EQ(ChannelWriteString(pair.channel, "bye"), 1);
    EXPECT_EQ(ChannelShutdown(pair.channel), 1);
    EXPECT_EQ(pair.Receive(10), "bye");
    pair.Send("abc");
    EXPECT_EQ(ChannelReadByte(pair.channel), 'a');
    // Disconnect drops both buffers at once; the object can be used again.
    EXPECT_EQ(ChannelWriteString(pair.channel, "never"), 1);
    ChannelDisconnect(pair.channel);
    EXPECT_FALSE(ChannelConnected(pair.channel));
    EXPECT_EQ(pair.channel->writePos, 0u);
    EXPECT_EQ(pair.channel->readEnd, pair.channel->readPos);
    EXPECT_EQ(ChannelReadByte(pair.channel), -2);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ChannelSetFD(pair.channel, -1, 1), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_GE(ChannelGetMemorySize(pair.channel), sizeof(Channel));
    EXPECT_EQ(ChannelGetMemorySize(nullptr), 0u);
}

}  // namespace
