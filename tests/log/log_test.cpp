// Logs: the bytes of records and files, reads forwards, backwards and from
// the writer's buffer against a model, recovery from torn and damaged files,
// pointers in the status file, and writers racing a waiting reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

namespace {

namespace fs = std::filesystem;

std::string Le32(UInt v) {
    return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)};
}

// A record as the format defines it: FNV-1 from 0 over the header, its
// checksum field 0, and the payload.
std::string Record(UInt action, UInt previous, const std::string &payload) {
    std::string r = Le32(16 + payload.size()) + Le32(previous) + Le32(0) + Le32(action) + payload;
    UInt hash = 0;
    for (unsigned char c : r) hash = hash * 16777619u ^ c;
    return r.replace(8, 4, Le32(hash));
}

std::string FileHeader(UInt number, UInt previous) {
    return Record(1, previous, "qkboxlog" + Le32(1) + Le32(number));
}

std::string Error() {
    ULong code = QKErrorCode();
    return std::to_string((UInt)code) + "/" + std::to_string(code >> 32) + " " + QKErrorMessage();
}

std::string Outcome(bool ok) {
    return ok ? "ok" : Error();
}

// Serial, action and payload.
using Rec = std::tuple<ULong, UInt, std::string>;

class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("logtest");
        Open();
    }
    void TearDown() override { Close(); }
    void Open(bool readOnly = false) {
        Close();
        log = LogOpen(dir.Path().c_str(), readOnly);
        ASSERT_NE(log, nullptr) << Error();
        reader = LogReadContextNew(log);
    }
    void Close() {
        if (log == nullptr) return;
        LogReadContextDelete(reader);
        EXPECT_TRUE(LogClose(log)) << Error();
        log = nullptr;
    }
    ULong Write(UInt action, const std::string &payload) {
        ULong serial = 0;
        EXPECT_TRUE(LogWrite(log, action, payload.data(), payload.size(), &serial)) << Error();
        model.push_back({serial, action, payload});
        return serial;
    }
    // "action:payload", with "+size" when the payload did not fit, or the
    // error.
    std::string Read(ULong serial, UInt room = 1 << 16, ULong *previous = nullptr) {
        std::string buffer(room, '\0');
        UInt action = 0, size = room;
        if (!LogRead(reader, serial, &action, buffer.data(), &size, nullptr, previous))
            return Error();
        return std::to_string(action) + ":" + buffer.substr(0, size) +
               (size > room ? "+" + std::to_string(size) : "");
    }
    // The callers' records, walked forwards from the first serial; the walk
    // backwards from the last one must find the same.
    std::vector<Rec> Records() {
        std::vector<Rec> forwards, backwards;
        ULong at = 0, last = LogLastSerial(log), step = 0;
        auto read = [&](std::vector<Rec> &into, ULong *next, ULong *previous) {
            std::string buffer(1 << 16, '\0');
            UInt action = 0, size = buffer.size();
            if (!LogRead(reader, at, &action, buffer.data(), &size, next, previous)) return false;
            if (action > LOG_ACTION_EOF) into.push_back({at, action, buffer.substr(0, size)});
            return true;
        };
        EXPECT_TRUE(LogFirstSerial(reader, 0, &at, 0, 0)) << Error();
        for (; at <= last && read(forwards, &step, nullptr); at = step) continue;
        for (at = last; read(backwards, nullptr, &step); at = step) continue;
        std::reverse(backwards.begin(), backwards.end());
        EXPECT_EQ(forwards, backwards);
        return forwards;
    }

    // "name=serial:value " for each pointer.
    std::string Pointers() {
        std::string all;
        auto add = [](const char *name, ULong serial, const char *value, void *out) {
            *(std::string *)out +=
                std::string(name) + "=" + std::to_string(serial) + ":" + (value ? value : "") + " ";
        };
        LogEnumeratePointers(log, add, &all);
        return all;
    }

    TempDir dir;
    Log *log = nullptr;
    LogReadContext *reader = nullptr;
    std::vector<Rec> model;
};

TEST_F(LogTest, FilesAndRecordsAreByteExact) {
    EXPECT_EQ(LogLastSerial(log), LOG_SERIAL(1, 0));
    EXPECT_EQ(Write(7, "hello"), LOG_SERIAL(1, 32));
    ASSERT_TRUE(LogFlush(log));
    EXPECT_EQ(ReadWhole(dir / "log.1"), FileHeader(1, 0) + Record(7, 0, "hello"));
    EXPECT_EQ(Le32(CheckSum(Record(7, 0, "hi").data(), "hi", 2)), Record(7, 0, "hi").substr(8, 4));
    // A clean close ends no file: the reopened log appends to it.
    Open();
    EXPECT_EQ(Write(8, ""), LOG_SERIAL(1, 53));
    // Under a limit of 100 bytes a 1000-byte record rotates, stands alone,
    // and the next one rotates again.
    LogSetMaxFileSize(log, 100);
    EXPECT_EQ(Write(9, std::string(1000, 'x')), LOG_SERIAL(2, 32));
    EXPECT_EQ(Write(9, "y"), LOG_SERIAL(3, 32));
    Close();
    EXPECT_EQ(ReadWhole(dir / "log.1"),
              FileHeader(1, 0) + Record(7, 0, "hello") + Record(8, 32, "") + Record(2, 53, ""));
    EXPECT_EQ(ReadWhole(dir / "log.2"),
              FileHeader(2, 69) + Record(9, 0, std::string(1000, 'x')) + Record(2, 32, ""));
    EXPECT_EQ(ReadWhole(dir / "log.3"), FileHeader(3, 1048) + Record(9, 0, "y"));
    EXPECT_EQ(fs::status(dir / "log.3").permissions(), fs::perms(0600));
}

TEST_F(LogTest, ReadsAtTheEdgesAndTheirErrors) {
    ULong a = Write(5, "alpha");
    LogSetMaxFileSize(log, 80);
    ULong b = Write(6, "beta"), previous = 0;
    LogSetMaxFileSize(log, LOG_DEFAULT_MAX_FILE_SIZE);
    // Backwards over the file boundary: the end-of-file record of log.1.
    EXPECT_EQ(Read(b, 99, &previous), "6:beta");
    EXPECT_EQ(Read(previous, 99, &previous), "1:qkboxlog" + Le32(1) + Le32(2));
    EXPECT_EQ(Read(previous), "2:");
    // A record in the writer's buffer reads as it does after the flush.
    ULong c = Write(6, "gamma");
    EXPECT_LT(fs::file_size(dir / "log.2"), SERIAL_OFFSET(c));
    std::string unflushed = Read(c);
    ASSERT_TRUE(LogFlush(log));
    EXPECT_EQ(Read(c), unflushed);
    // Damage in an older file is found by the reader.
    std::string one = ReadWhole(dir / "log.1");
    one[48] = 'A';
    WriteWhole(dir / "log.1", one);
    ULong found = 0;
    TempDir empty;
    const std::pair<std::string, std::string> cases[] = {
        {Read(a), "1/2 log record checksum mismatch"},
        {Read(a, 2), "5:Al+5"},  // too small: the true size, no check
        {Read(c + 21), "2/3 unavailable log serial number: 0x200000049"},  // the end
        {Read(0), "2/3 unavailable log serial number: 0x0"},
        {Read(LOG_SERIAL(7, 0)), "2/3 unavailable log serial number: 0x700000000"},
        {Read(LOG_SERIAL(1, 900)), "1/2 invalid log serial number: 0x100000384"},
        {Outcome(LogFirstSerial(reader, c + 1, &found, 1, 20)), "2/2 timeout"},
        {Outcome(LogFirstSerial(reader, c + 1, &found, 0, 0)),
         "2/3 unavailable log serial number: 0x200000035"},
        {Outcome(LogFirstSerial(reader, a + 1, &found, 1, 0)), "ok"},
        {std::to_string(found), std::to_string(LOG_SERIAL(1, 53))},
        {Outcome(LogWrite(log, 3, "", LOG_MAX_RECORD_SIZE, nullptr)), "22/0 Invalid argument"},
        {Outcome(LogTruncate(log, c)), "ok"},
        {Read(a), "2/3 unavailable log serial number: 0x100000020"},  // in a deleted file
        {std::to_string(LogGetPointer(log, "none", nullptr)), std::to_string(LOG_NO_SERIAL)},
        {Outcome(LogOpen(empty.Path().c_str(), 1)),
         "2/0 empty log directory \"" + empty.Path() + "\""},
    };
    for (const auto &[outcome, expected] : cases) EXPECT_EQ(outcome, expected);
    LogWaitClients(log, LOG_NO_SERIAL - 1);  // no pointers: at once
    Open(true);
    for (bool ok : {LogWrite(log, 3, "x", 1, nullptr) != 0, LogTruncate(log, c) != 0,
                    LogSetParameter(log, 'a', 1) != 0})
        EXPECT_EQ(Outcome(ok), "22/0 read-only log");
}

TEST_F(LogTest, RandomWritesRotationsAndReadsMatchAModel) {
    std::mt19937 rng(17);
    LogSetMaxFileSize(log, 30000);
    for (int step = 0; step < 1500; step++) {
        UInt op = rng() % 100;
        if (op < 60 || model.empty()) {
            std::string payload(rng() % 5 == 0 ? rng() % 20000 : rng() % 200, '\0');
            for (char &c : payload) c = (char)rng();
            Write(3 + rng() % 9, payload);
        } else if (op < 94) {
            const auto &[serial, action, payload] = model[rng() % model.size()];
            UInt room = rng() % 4 ? payload.size() : rng() % (payload.size() + 1);
            EXPECT_EQ(Read(serial, room),
                      std::to_string(action) + ":" + payload.substr(0, room) +
                          (room < payload.size() ? "+" + std::to_string(payload.size()) : ""));
        } else if (op < 97) {
            EXPECT_TRUE(LogFlush(log));
        } else if (op < 98) {
            Open();
            LogSetMaxFileSize(log, 30000);
        } else {
            EXPECT_EQ(Records(), model);
        }
    }
    EXPECT_EQ(Records(), model);
}

// Cut or flipped anywhere in its last two records, the newest file keeps
// the whole records before the damage, and writing goes on behind them.
class LogDamageTest : public LogTest, public ::testing::WithParamInterface<bool> {};

TEST_P(LogDamageTest, OpenKeepsTheWholeRecordsBeforeTheDamage) {
    for (int i = 0; i < 4; i++) Write(3 + i, std::string(i * 7, 'a' + i));
    Close();
    const std::string pristine = ReadWhole(dir / "log.1");
    const std::vector<Rec> all = model;
    for (size_t k = SERIAL_OFFSET(std::get<0>(all[2])); k < pristine.size(); k++) {
        std::string bytes = pristine.substr(0, GetParam() ? pristine.size() : k);
        if (GetParam()) bytes[k] ^= (char)(1 << (k % 8));
        WriteWhole(dir / "log.1", bytes);
        model.clear();
        for (const Rec &r : all)
            if (SERIAL_OFFSET(std::get<0>(r)) + 16 + std::get<2>(r).size() <= k) model.push_back(r);
        Open();
        EXPECT_EQ(Records(), model) << "at " << k;
        Write(9, "next");
        Open();
        EXPECT_EQ(Records(), model) << "at " << k;
        Close();
    }
}

INSTANTIATE_TEST_SUITE_P(CutOrFlipped, LogDamageTest, ::testing::Bool());

// A newest file without a good header gives way to the file before it,
// which must end cleanly; a writable log makes a new file in its place.
TEST_F(LogTest, ABadNewestHeaderGivesWayToTheFileBefore) {
    Write(3, "one");
    LogSetMaxFileSize(log, 60);
    Write(3, "two");
    Close();
    const std::string one = ReadWhole(dir / "log.1");
    std::string badMagic = ReadWhole(dir / "log.2");
    badMagic[20] ^= 1;
    const UInt eof = one.size() - 16;
    const std::string newLog = "one " + std::to_string(LOG_SERIAL(2, 0));
    const std::tuple<std::string, std::string, bool, std::string> cases[] = {
        {one, badMagic, false, newLog},
        {one, "", false, newLog},  // cut while being made
        {one, badMagic, true, "one " + std::to_string(LOG_SERIAL(1, eof))},
        {one.substr(0, eof), badMagic, false, "0/2 corrupted log file \"" + dir / "log.1\""},
    };
    for (const auto &[log1, log2, readOnly, expected] : cases) {
        WriteWhole(dir / "log.1", log1);
        WriteWhole(dir / "log.2", log2);
        std::string outcome = (log = LogOpen(dir.Path().c_str(), readOnly)) ? "" : Error();
        if (log != nullptr) {
            reader = LogReadContextNew(log);
            for (const Rec &r : Records()) outcome += std::get<2>(r) + " ";
            outcome += std::to_string(LogLastSerial(log));
            Close();
            EXPECT_TRUE(readOnly || ReadWhole(dir / "log.2") == FileHeader(2, eof));
        }
        EXPECT_EQ(outcome, expected);
    }
}

TEST_F(LogTest, PointersLiveInTheStatusFileAndTruncateTheLog) {
    LogSetMaxFileSize(log, 40);  // a file for each record
    ULong s[4];
    for (ULong &serial : s) serial = Write(3, "r");
    EXPECT_TRUE(LogSetPointer(log, "reader", s[1], "v 1", 1) && LogSetParameter(log, 'x', 5) &&
                LogSetPointer(log, "temp", s[0], nullptr, 0));
    EXPECT_EQ(ReadWhole(dir / "status.txt"), "x=5\n@P reader 300000020 v 1\n");
    EXPECT_FALSE(LogSetPointer(log, "a b", 1, nullptr, 1) || LogSetPointer(log, "a", 1, "\n", 1));
    EXPECT_EQ(Error(), "1/2 bad argument(s)");
    // Truncation follows the slowest pointer; a removal takes the last one.
    EXPECT_TRUE(LogSetAutoTruncate(log, 1));
    EXPECT_FALSE(fs::exists(dir / "log.1") || !fs::exists(dir / "log.2"));
    EXPECT_TRUE(LogSetPointer(log, "temp", 1, nullptr, 0) &&
                LogSetPointer(log, "reader", LOG_NO_SERIAL, nullptr, 0));
    EXPECT_EQ(Pointers(), "reader=12884901920:v 1 ");
    EXPECT_FALSE(fs::exists(dir / "log.2"));
    // Pointers that were saved come back; lines that are none are skipped.
    Open();
    const char *value = nullptr;
    EXPECT_TRUE(LogGetPointer(log, "reader", &value) == s[1] && std::string(value) == "v 1");
    EXPECT_EQ(LogGetParameter(log, 'x'), 5u);
    std::thread waiter([&] { LogWaitClients(log, s[3]); });
    EXPECT_TRUE(LogSetPointer(log, "reader", s[3], nullptr, 1));
    waiter.join();
    Close();
    WriteWhole(dir / "status.txt", "@Q\n@P x zz\n@P y 10\n@P  1\n");
    Open();
    EXPECT_EQ(Pointers(), "y=16: ");
    fs::remove(dir / "log.3");  // gone behind the log's back: skipped
    ULong found = 0;
    EXPECT_TRUE(LogFirstSerial(reader, 0, &found, 0, 0) && found == LOG_SERIAL(4, 0));
    Close();
    EXPECT_TRUE(LogDelete(dir.Path().c_str()) && !fs::exists(dir / "log.5"));
}

TEST_F(LogTest, WritersAndAWaitingReaderAgree) {
    constexpr UInt kThreads = 3, kEach = 400;
    LogSetMaxFileSize(log, 4096);
    std::thread follower([&] {
        LogReadContext *context = LogReadContextNew(log);
        UInt seen[kThreads] = {}, total = 0, got[2], action, size;
        for (ULong at = 0, found; total < kThreads * kEach; total += action == 3) {
            size = sizeof got;
            ASSERT_TRUE(LogFirstSerial(context, at, &found, 1, 20000) &&
                        LogRead(context, found, &action, got, &size, &at, nullptr))
                << Error();
            EXPECT_TRUE(action != 3 || (got[0] < kThreads && got[1] == seen[got[0]]++));
        }
        LogReadContextDelete(context);
    });
    std::vector<std::thread> writers;
    for (UInt t = 0; t < kThreads; t++) {
        writers.emplace_back([&, t] {
            for (UInt n = 0; n < kEach; n++) {
                UInt record[2] = {t, n};
                EXPECT_TRUE(LogWrite(log, 3, record, sizeof record, nullptr) &&
                            (n % 50 || LogFlush(log)));
            }
        });
    }
    for (std::thread &w : writers) w.join();
    follower.join();
}

}  // namespace
