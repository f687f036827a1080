// Channels on files: the open modes and their failures, the position seen
// through the buffers, truncation, syncing, and the refusal of the file
// calls on sockets.
#include "channel/channel_test_util.h"
#include "frame/file_test_dir.h"
#include "qk/file.h"

using namespace chantest;

namespace {

class ChannelFileTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { Init(); }

    TempDir dir_;
};

TEST_F(ChannelFileTest, OpenModes) {
    std::string path = dir_ / "f.txt";
    Channel *channel = ChannelNew(-1, -1);
    EXPECT_EQ(ChannelOpenFile(channel, path.c_str(), "r"), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ChannelOpenFile(channel, (dir_ / "no/dir/f").c_str(), "w"), 0);
    EXPECT_EQ(errno, ENOENT);

    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
    EXPECT_FALSE(ChannelIsSocket(channel));
    EXPECT_EQ(ChannelWriteString(channel, "abc"), 1);
    ASSERT_EQ(ChannelSync(channel), 1);
    EXPECT_EQ(ReadWhole(path), "abc");
    // "a" keeps what is there and writes at the end.
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "a"), 1);
    Long offset = -1;
    EXPECT_EQ(ChannelFileTell(channel, &offset), 1);
    EXPECT_EQ(offset, 3);
    EXPECT_EQ(ChannelWriteString(channel, "de"), 1);
    ASSERT_EQ(ChannelFlush(channel), 1);
    EXPECT_EQ(ReadWhole(path), "abcde");
    // "r" reads; "w" empties.
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "r"), 1);
    EXPECT_EQ(ChannelReadByte(channel), 'a');
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
    EXPECT_EQ(ReadWhole(path), "");
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelFileTest, BadModesAndPaths) {
    std::string path = dir_ / "g";
    Channel *channel = ChannelNew(-1, -1);
    for (const char *mode : {"", "rw", "x", "R", "w+"}) {
        errno = 0;
        EXPECT_EQ(ChannelOpenFile(channel, path.c_str(), mode), 0) << mode;
        EXPECT_EQ(errno, EINVAL) << mode;
    }
    errno = 0;
    EXPECT_EQ(ChannelOpenFile(channel, (dir_ / "bad\xff").c_str(), "w"), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ChannelOpenFile(channel, (dir_ / "bad\xC0\x80").c_str(), "w"), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(FileExists(path.c_str()));
    // Another system error comes as the OS error.
    EXPECT_EQ(ChannelOpenFile(channel, dir_.Path().c_str(), "w"), 0);
    EXPECT_TRUE(HasError(EISDIR, QK_DOMAIN_OS));
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelFileTest, UCS2Path) {
    std::string dir = dir_.Path();
    std::vector<UShort> path(dir.begin(), dir.end());
    for (UShort c : {(UShort)'/', (UShort)0x00E9, (UShort)0x20AC, (UShort)'.', (UShort)'t'})
        path.push_back(c);
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFileUCS2(channel, path.data(), (UInt)path.size(), "w"), 1);
    EXPECT_EQ(ChannelWriteString(channel, "x"), 1);
    EXPECT_EQ(ChannelClose(channel), 1);
    EXPECT_EQ(ReadWhole(dir + "/\xC3\xA9\xE2\x82\xAC.t"), "x");
    channel = ChannelNew(-1, -1);
    path.insert(path.end() - 1, 0);
    EXPECT_EQ(ChannelOpenFileUCS2(channel, path.data(), (UInt)path.size(), "w"), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelFileTest, SeekAndTellThroughTheBuffers) {
    std::string path = dir_ / "digits";
    WriteWhole(path, "0123456789");
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "r"), 1);
    EXPECT_EQ(ChannelReadByte(channel), '0');
    EXPECT_EQ(ChannelReadByte(channel), '1');
    EXPECT_EQ(ChannelReadByte(channel), '2');
    // The whole file sits in the buffer; the caller has read three bytes.
    Long offset = -1;
    ASSERT_EQ(ChannelFileTell(channel, &offset), 1);
    EXPECT_EQ(offset, 3);
    ASSERT_EQ(ChannelFileSeek(channel, -2), 1);
    EXPECT_EQ(ChannelReadByte(channel), '8');
    ASSERT_EQ(ChannelFileTell(channel, &offset), 1);
    EXPECT_EQ(offset, 9);
    ASSERT_EQ(ChannelFileSeek(channel, 5), 1);
    EXPECT_EQ(ChannelReadByte(channel), '5');
    ASSERT_EQ(ChannelFileSeek(channel, 0), 1);
    EXPECT_EQ(ChannelReadByte(channel), '0');
    EXPECT_EQ(ChannelClose(channel), 1);

    // On the write side, Tell flushes and counts what was written.
    channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "w"), 1);
    EXPECT_EQ(ChannelWriteString(channel, "hello"), 1);
    ASSERT_EQ(ChannelFileTell(channel, &offset), 1);
    EXPECT_EQ(offset, 5);
    EXPECT_EQ(ReadWhole(path), "hello");
    // Seek flushes before it moves.
    EXPECT_EQ(ChannelWriteString(channel, "!!"), 1);
    ASSERT_EQ(ChannelFileSeek(channel, 1), 1);
    EXPECT_EQ(ChannelWriteString(channel, "E"), 1);
    EXPECT_EQ(ChannelClose(channel), 1);
    EXPECT_EQ(ReadWhole(path), "hEllo!!");
}

TEST_F(ChannelFileTest, TruncateKeepsThePositionTheCallerSees) {
    std::string path = dir_ / "t";
    WriteWhole(path, "abcdefghij");
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelOpenFile(channel, path.c_str(), "a"), 1);
    ASSERT_EQ(ChannelFileSeek(channel, 0), 1);
    EXPECT_EQ(ChannelReadByte(channel), 'a');
    EXPECT_EQ(ChannelReadByte(channel), 'b');
    ASSERT_EQ(ChannelFileTruncate(channel, 4), 1);
    EXPECT_EQ(FileSize(path.c_str()), 4u);
    EXPECT_EQ(ChannelReadByte(channel), 'c');
    EXPECT_EQ(ChannelReadByte(channel), 'd');
    EXPECT_EQ(ChannelReadByte(channel), -1);
    EXPECT_EQ(ChannelClose(channel), 1);
}

TEST_F(ChannelFileTest, FileCallsRefuseSockets) {
    Pair pair;
    Long offset;
    EXPECT_EQ(ChannelFileSeek(pair.channel, 0), 0);
    EXPECT_TRUE(
        HasError(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "ChannelFileSeek: the Channel is not a file"));
    EXPECT_EQ(ChannelFileTell(pair.channel, &offset), 0);
    EXPECT_TRUE(
        HasError(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "ChannelFileSeek: the Channel is not a file"));
    EXPECT_EQ(ChannelFileTruncate(pair.channel, 0), 0);
    EXPECT_TRUE(HasError(QK_ERR_FAILURE, QK_DOMAIN_GENERAL,
                         "ChannelFileTruncate: the Channel is not a file"));
}

TEST_F(ChannelFileTest, DescriptorsOfTheCaller) {
    std::string path = dir_ / "d";
    WriteWhole(path, "xyz");
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    Channel *channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelSetFD(channel, fd, 0), 1);
    EXPECT_EQ(ChannelReadByte(channel), 'x');
    EXPECT_EQ(ChannelClose(channel), 1);
    // Not owned: still open.
    char c;
    EXPECT_EQ(read(fd, &c, 1), 0);
    channel = ChannelNew(-1, -1);
    ASSERT_EQ(ChannelSetFD(channel, fd, 1), 1);
    EXPECT_EQ(ChannelClose(channel), 1);
    EXPECT_EQ(read(fd, &c, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
