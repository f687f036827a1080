// File contents: raw files and their asynchronous transfers, mapped views,
// whole-file locks, filling to a size and the replacing rename.
#include <fcntl.h>

#include "frame/frame_test.h"

namespace {

// Write alone makes the file, and then keeps it; with create it replaces it.
// The high half of a seek must not be negative.
TEST_F(FileTest, OpenFlagsDecideCreationAndReplacement) {
    EXPECT_DEATH(QKFileSeek(0, -1), "hi >= 0");
    std::string path = dir / "f";
    EXPECT_EQ(Left(QKFileOpen(path.c_str(), QKFILE_READ)), OS_FAILURE(QKFILE_INVALID, ENOENT));
    EXPECT_EQ(QKFileOpen(path.c_str(), QKFILE_READ | QKFILE_CREATE), QKFILE_INVALID);
    QKFile f = QKFILE_INVALID;
    for (auto [flags, before, write] :
         {std::tuple((int)QKFILE_WRITE, "", "hello"),
          {QKFILE_WRITE | QKFILE_SEQUENTIAL, "hello", "!"},
          {QKFILE_READ | QKFILE_WRITE | QKFILE_CREATE | QKFILE_RANDOM, "", ""}}) {
        ASSERT_NE(f = QKFileOpen(path.c_str(), flags), QKFILE_INVALID);
        EXPECT_EQ(ReadWhole(path), before);
        if (!*write) break;  // the last one stays open
        const UInt size = (UInt)strlen(write);
        EXPECT_EQ(QKFileWriteData(f, strlen(before), write, size, nullptr), (Int)size);
        EXPECT_TRUE(QKFileSync(f) && QKFileClose(f));
        EXPECT_EQ(ReadWhole(path), std::string(before) + write);
    }
    EXPECT_TRUE(QKFileSetSize(f, 8192, 1) && QKFileSeek(f, 100));
    EXPECT_EQ(std::tuple(FileSize(path.c_str()), lseek(f, 0, SEEK_CUR)), std::tuple(8192u, 100));
    EXPECT_EQ(QKFileClose(f), 1);
    EXPECT_EQ(WithErrno(QKFileClose(f)), std::tuple(0, -1));
}

// Writes in flight together, each waited for by the lowest finished index;
// once all have finished, a wait gives the first, again and again. A read
// past the end moves what there is; a failed transfer is reported by the
// wait.
TEST_F(FileTest, TransfersFinishInAnyOrderAndStayFinished) {
    const UInt kPart = 65536;
    std::string content, buffer(kPart, '\0');
    for (char part = 'A'; part < 'I'; part++) content += std::string(kPart, part);
    QKFile f = QKFileOpen((dir / "async").c_str(), QKFILE_READ | QKFILE_WRITE);
    std::vector<QKFileAsyncIO *> pending(8), all;
    for (UInt i = 0; i < 8; i++) {
        ASSERT_EQ(QKFileWriteData(f, i * kPart, &content[i * kPart], kPart, &pending[i]), 0);
    }
    UInt bytes = 0;
    for (all = pending; !pending.empty();) {
        Int index = QKFileWaitAsyncIO(pending.data(), (UInt)pending.size(), &bytes);
        ASSERT_TRUE(index >= 0 && index < (Int)pending.size() && bytes == kPart) << index;
        pending.erase(pending.begin() + index);
    }
    EXPECT_EQ(QKFileWaitAsyncIO(all.data(), 8, &bytes) + QKFileWaitAsyncIO(&all[3], 5, &bytes), 0);
    for (QKFileAsyncIO *io : all) QKFileDeleteAsyncIO(io);
    EXPECT_EQ(ReadWhole(dir / "async"), content);
    QKFileAsyncIO *io = nullptr;
    ASSERT_EQ(QKFileReadData(f, content.size() - 100, buffer.data(), kPart, &io), 0);
    EXPECT_EQ(QKFileWaitAsyncIO(&io, 1, &bytes), 0);
    EXPECT_EQ(buffer.substr(0, bytes), content.substr(content.size() - 100));
    QKFileDeleteAsyncIO(io);
    EXPECT_EQ(QKFileClose(f), 1);
    f = QKFileOpen((dir / "async").c_str(), QKFILE_READ);
    ASSERT_EQ(QKFileWriteData(f, 0, "xx", 2, &io), 0);
    EXPECT_EQ(Left(QKFileWaitAsyncIO(&io, 1, &bytes)), OS_FAILURE(-1, EBADF));
    QKFileDeleteAsyncIO(io);
    EXPECT_EQ(WithErrno(QKFileWriteData(f, 0, "xx", 2, nullptr)), std::tuple(-1, -1));
    EXPECT_EQ(QKFileClose(f), 1);
}

// ---- Mapped views ----

// An empty file maps to none without failure; read sizes are not supported.
// Views reach the file from any offset, and outlive the descriptor.
TEST_F(FileTest, ViewsOfEveryKind) {
    WriteWhole(dir / "empty", "");
    size_t size = 99;
    int empty = 0;
    errno = 12345;
    EXPECT_EQ(FileMapRead(Dir(), "empty", &size, &empty), nullptr);
    EXPECT_EQ(std::tuple(errno, size, empty), std::tuple(0, 0u, 1));
    EXPECT_EQ(WithErrno(FileSetReadSize(0, 65536)), std::tuple(0, -2));
    EXPECT_ERROR(QK_ERR_NOT_SUPPORTED, "not supported");
    std::string content;
    for (int i = 0; i < 20000; i++) content += (char)('a' + i % 26);
    WriteWhole(dir / "data", content);
    char *whole = (char *)FileMapReadWrite(Dir(), "data", &size, &empty);
    ASSERT_NE(whole, nullptr);
    EXPECT_EQ(std::tuple(size, empty), std::tuple(content.size(), 0));
    memcpy(whole + 19990, "0123456789", 10);
    EXPECT_TRUE(FileMapSync(whole, size) && ReadWhole(dir / "data").substr(19990) == "0123456789");
    int fd = FileOpen(Dir(), "data", 0, FILE_ADVICE_RANDOM);
    const ULong offset = 4096 * 2 + 77;  // inside a page
    char *part = (char *)FileMapSegment(fd, 0, offset, 300);
    close(fd);
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(std::string(part, 300), content.substr(offset, 300));
    part[0] = '#';
    EXPECT_TRUE(FileMapSync(part, 1) && whole[offset] == '#');
    EXPECT_EQ(FileUnmap(part) + FileUnmap(whole), 2);
    EXPECT_EQ(WithErrno(FileUnmap(whole)), std::tuple(0, -1));  // gone: a failure, not a crash
    // A read-only descriptor refuses a writable view; a missing file fails;
    // UCS2 names reach the same files ("é€" in UTF-8 on disk).
    WriteWhole(dir / "ro", "abc");
    fd = FileOpen(Dir(), "ro", 1, FILE_ADVICE_SEQUENTIAL);
    EXPECT_EQ(Left(FileMapSegment(fd, 0, 0, 3)), OS_FAILURE(nullptr, EACCES));
    void *view = FileMapFD(fd, 1, nullptr, nullptr);
    EXPECT_EQ(std::string((char *)view, 3), "abc");
    EXPECT_EQ(FileUnmap(view) + close(fd), 1);
    EXPECT_EQ(Left(FileMapRead(Dir(), "missing", nullptr, nullptr)), OS_FAILURE(nullptr, ENOENT));
    WriteWhole(dir / "\xC3\xA9\xE2\x82\xAC", "wide");
    std::u16string directory(dir.Path().begin(), dir.Path().end()), name = u"\u00E9\u20AC";
    view = FileMapReadUCS2((const UShort *)directory.data(), (UInt)directory.size(),
                           (const UShort *)name.data(), 2, &size, nullptr);
    EXPECT_TRUE(std::string((const char *)view, size) == "wide" && FileUnmap(view));
}

// ---- Whole-file locks ----

// Exclusive against exclusive, exclusive against shared, and two shared
// against exclusive conflict with errno 16; exclusive locks make the file
// with mode 0600, shared ones make none. 260 bytes is the longest path.
TEST_F(FileTest, LockConflictsPathsAndTexts) {
    for (auto [held, conflicting] : {std::pair(Bytes{1}, 1), {Bytes{1}, 0}, {Bytes{0, 0}, 1}}) {
        std::vector<FileLock *> locks;
        for (int exclusive : held) locks.push_back(FileLockAcquire(Dir(), "lock", exclusive));
        EXPECT_EQ(std::count(locks.begin(), locks.end(), nullptr), 0);
        EXPECT_EQ(Left(FileLockAcquire(Dir(), "lock", conflicting)),
                  std::tuple(nullptr, 16, QK_ERROR_CODE(16, QK_DOMAIN_RUNTIME)));
        for (FileLock *lock : locks) EXPECT_EQ(FileLockRelease(lock), 1);
    }
    struct stat st;
    ASSERT_EQ(stat((dir / "lock").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::string name(260 - dir.Path().size() - 1, 'n');
    FileLock *longest = FileLockAcquire(Dir(), name.c_str(), 1);
    ASSERT_NE(longest, nullptr);
    EXPECT_STREQ(longest->path, (dir / name).c_str());
    EXPECT_EQ(FileLockRelease(longest), 1);
    EXPECT_EQ(WithErrno(FileLockAcquire(Dir(), (name + 'n').c_str(), 1)), std::tuple(nullptr, 22));
    EXPECT_EQ(Left(FileLockAcquire(Dir(), "absent", 0)), OS_FAILURE(nullptr, ENOENT));
    // Each write replaces the text, a shorter one too; a read appends it with
    // a zero after, going on until a short piece (2048 bytes are two whole
    // ones). Reads and writes through one lock object from two threads never
    // see a torn text. A shared lock cannot write.
    FileLock *lock = FileLockAcquire(Dir(), "pid", 1);
    const std::string texts[] = {std::string(3000, 'x'), "1234", std::string(2048, 'y')};
    ByteArray text{};
    for (const std::string &written : texts) {
        ASSERT_EQ(FileLockWrite(lock, written.c_str()), 1);
        ArrayClear(text);
        ArrayAdd(text, '>');
        EXPECT_EQ(FileLockRead(lock, &text), 1);
        EXPECT_EQ(Text(text) + (char)text.data[text.length], ">" + written + '\0');
    }
    int torn = 0;
    std::thread writer([&] {
        for (int i = 0; i < 300; i++) FileLockWrite(lock, texts[i % 2 * 2].c_str());
    });
    for (int i = 0; i < 300; i++) {
        ArrayClear(text);
        torn += !FileLockRead(lock, &text) || (Text(text) != texts[0] && Text(text) != texts[2]);
    }
    writer.join();
    ArrayFree(text);
    EXPECT_EQ(torn, 0);
    ASSERT_EQ(FileLockRelease(lock), 1);
    FileLock *shared = FileLockAcquire(Dir(), "pid", 0);
    EXPECT_TRUE(!FileLockWrite(shared, "no") && ReadWhole(dir / "pid") == texts[2]);
    EXPECT_EQ(FileLockRelease(shared), 1);
}

// ---- Sizes and renames ----

// Filling writes real blocks, keeps the data, and cuts a longer file;
// FileTruncate makes the file.
TEST_F(FileTest, FillAndRename) {
    std::string path = dir / "filled";
    EXPECT_TRUE(FileTruncate(path.c_str(), 4, 0, 0) && ReadWhole(path) == std::string(4, '\0'));
    WriteWhole(path, "head");
    int fd = open(path.c_str(), O_RDWR);
    const ULong size = 3 * 0x100000 + 17;  // three whole pieces and a part
    EXPECT_EQ(FileTruncateFD(fd, size, 1, 0), 1);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_TRUE((ULong)st.st_size == size && (ULong)st.st_blocks * 512 >= size);
    EXPECT_EQ(ReadWhole(path), "head" + std::string(size - 4, '\0'));
    EXPECT_TRUE(FileTruncateFD(fd, 2, 1, 0) && ReadWhole(path) == "he");
    close(fd);
    EXPECT_EQ(Left(FileTruncate((dir / "no/such").c_str(), 10, 1, 0)), OS_FAILURE(0, ENOENT));
    // A rename replaces the target; a missing target with a backup is no
    // failure, and the backup stays. Success leaves errno alone.
    WriteWhole(dir / "to", "old"), WriteWhole(dir / "backup", "older");
    for (auto [content, to, backup] :
         {std::tuple("new", "to", true), {"newer", "fresh", true}, {"last", "to", false}}) {
        WriteWhole(dir / "from", content);
        errno = 5;
        const std::string from = dir / "from", backupPath = dir / "backup";
        EXPECT_EQ(
            FileRename(from.c_str(), (dir / to).c_str(), backup ? backupPath.c_str() : nullptr), 1);
        EXPECT_EQ(errno, 5);
        EXPECT_EQ(ReadWhole(dir / to) + ReadWhole(dir / "backup") + ReadWhole(dir / "from"),
                  content + std::string("old<missing>"));
    }
    EXPECT_EQ(Left(FileRename((dir / "from").c_str(), (dir / "to").c_str(), nullptr)),
              OS_FAILURE(0, ENOENT));
    EXPECT_EQ(ReadWhole(dir / "to"), "last");
}

// Renames over a file that another thread keeps reading.
TEST_F(FileTest, ReadersNeverSeeTheRenameTargetMissingOrPartial) {
    std::string to = dir / "target";
    const std::string contents[2] = {std::string(50000, 'A'), std::string(70000, 'B')};
    WriteWhole(to, contents[0]);
    std::atomic<int> bad{0}, renamed{0};
    RunAtOnce(2, [&](int reader) {
        for (int i = 0; reader && (renamed < 40 || i < 200); i++) {
            std::string seen = ReadWhole(to);
            bad += seen != contents[0] && seen != contents[1];
        }
        for (std::string from = dir / "next"; !reader && renamed < 40; renamed++) {
            WriteWhole(from, contents[(renamed + 1) % 2]);
            EXPECT_EQ(FileRename(from.c_str(), to.c_str(), nullptr), 1);
        }
    });
    EXPECT_EQ(bad, 0);
}

}  // namespace
