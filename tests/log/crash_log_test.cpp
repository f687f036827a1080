// Log crash tests: a child writing a log is cut at every file call, during
// rotations, during truncation by a pointer and during the recovering open.
// The log it leaves must open, hold a run of the written records in order
// that ends no earlier than the last flush before the cut, and take more.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <functional>

#include "arena/crash_util.h"
#include "qk/qkcommon.h"

using namespace crashtest;

namespace {

constexpr int kRecords = 40;

std::string Payload(int i) {
    return std::to_string(i) + ":" + std::string(20 + i * 7 % 50, 'a' + i % 26);
}

class LogCrashTest : public ::testing::Test {
  protected:
    // The child's count of records flushed, in memory it shares.
    void SetUp() override {
        QKLibInit("logcrashtest");
        void *page =
            mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(page, MAP_FAILED);
        flushed_ = static_cast<int *>(page);
    }
    void TearDown() override { munmap(flushed_, sizeof(int)); }

    // Writes records [from, to) with files of at most 300 bytes, flushing
    // every 5 and counting the flushed ones.
    bool Write(Log *log, int from, int to) {
        LogSetMaxFileSize(log, 300);
        for (int i = from; i < to; i++) {
            std::string p = Payload(i);
            if (!LogWrite(log, 3, p.data(), p.size(), nullptr)) return false;
            if (i % 5 == 4 && !LogFlush(log)) return false;
            if (i % 5 == 4) *flushed_ = i + 1;
        }
        return true;
    }
    Log *Open(const ScratchDir &dir) { return LogOpen(dir.Path().c_str(), 0); }

    // Runs `work` on a copy of golden_ in a child, cut at call `n` (0:
    // never) before or after it, and gives the child's exit status.
    int Cut(long n, bool after, const std::function<bool()> &work) {
        if (!work_.CopyOf(golden_.Path())) return -1;
        *flushed_ = flushedBefore_;
        return InChild([&] {
            CrashFaultArm(n, after);
            bool ok = work();
            CrashFaultDisarm();
            return ok ? 0 : 1;
        });
    }

    // "" when the log in work_ opens writable and holds records i to j - 1
    // for some i <= `firstAtMost` and j >= the flushed count, and a record
    // written after it reads back after a reopening.
    std::string Verify(int firstAtMost) {
        Log *log = Open(work_);
        if (log == nullptr) return std::string("open: ") + QKErrorMessage();
        LogReadContext *reader = LogReadContextNew(log);
        std::string problem, buffer(256, '\0');
        ULong at = 0, last = LogLastSerial(log);
        int first = -1, next = -1;
        bool ok = LogFirstSerial(reader, 0, &at, 0, 0);
        while (ok && at <= last && problem.empty()) {
            UInt action = 0, size = buffer.size();
            ok = LogRead(reader, at, &action, buffer.data(), &size, &at, nullptr);
            if (!ok || action != 3) continue;
            if (next < 0) first = next = std::stoi(buffer);
            if (buffer.substr(0, size) != Payload(next++))
                problem = "record " + std::to_string(next);
        }
        if (!ok) problem = std::string("read: ") + QKErrorMessage();
        if (problem.empty() && (first > firstAtMost || next < *flushed_))
            problem = "records " + std::to_string(first) + " to " + std::to_string(next) +
                      ", flushed " + std::to_string(*flushed_);
        LogReadContextDelete(reader);
        if (problem.empty() && !Write(log, next, next + 1))
            problem = std::string("write: ") + QKErrorMessage();
        if (!LogClose(log) && problem.empty()) problem = std::string("close: ") + QKErrorMessage();
        if (problem.empty() && (log = Open(work_)) != nullptr) {
            reader = LogReadContextNew(log);
            UInt size = buffer.size();
            if (!LogRead(reader, LogLastSerial(log), nullptr, buffer.data(), &size, nullptr,
                         nullptr) ||
                buffer.substr(0, size) != Payload(next))
                problem = "the record written after the recovery is lost";
            LogReadContextDelete(reader);
            LogClose(log);
        }
        return problem;
    }

    // Cuts `work` at each of its calls; each cut must verify.
    void CutEverywhere(const std::function<bool()> &work, int firstAtMost) {
        ASSERT_EQ(Cut(0, false, work), 0);
        long count = CrashFaultCount(CRASH_OP_ANY);
        ASSERT_EQ(Verify(firstAtMost), "");
        int failures = 0;
        for (long n = 1; n <= count && failures < 5; n++) {
            for (bool after : {false, true}) {
                ASSERT_EQ(Cut(n, after, work), CRASH_FAULT_EXIT) << CallName(n, after);
                std::string problem = Verify(firstAtMost);
                failures += !problem.empty();
                EXPECT_EQ(problem, "") << CallName(n, after);
            }
        }
        printf("%ld calls cut\n", count);
    }

    ScratchDir golden_, work_;
    int *flushed_ = nullptr;
    int flushedBefore_ = 0;
};

TEST_F(LogCrashTest, RotationsCutAnywhereKeepTheFlushedRecords) {
    Log *log = Open(golden_);
    ASSERT_TRUE(log && Write(log, 0, 3) && LogClose(log));
    flushedBefore_ = 3;
    CutEverywhere(
        [&] {
            Log *log = Open(work_);
            return log && Write(log, 3, kRecords) && LogClose(log);
        },
        0);
}

TEST_F(LogCrashTest, TruncationByAPointerCutAnywhereKeepsTheTail) {
    Log *log = Open(golden_);
    ASSERT_TRUE(log && Write(log, 0, kRecords) && LogSetPointer(log, "reader", 1, "old", 1) &&
                LogClose(log));
    flushedBefore_ = kRecords;
    auto truncate = [&] {
        Log *log = Open(work_);
        return log && LogSetAutoTruncate(log, 1) &&
               LogSetPointer(log, "reader", LogLastSerial(log), "new", 1) && LogClose(log);
    };
    ASSERT_EQ(Cut(0, false, truncate), 0);
    EXPECT_FALSE(fs::exists(work_ / "log.1"));
    CutEverywhere(truncate, kRecords);
}

// A torn tail, cut while the log opens and writes behind it.
TEST_F(LogCrashTest, TheRecoveringOpenCutAnywhereKeepsTheWholeRecords) {
    Log *log = Open(golden_);
    ASSERT_TRUE(log && Write(log, 0, 12) && LogClose(log));
    int last = 1;
    while (fs::exists(golden_ / ("log." + std::to_string(last + 1)))) last++;
    std::string newest = golden_ / ("log." + std::to_string(last));
    fs::resize_file(newest, fs::file_size(newest) - 5);
    flushedBefore_ = 10;
    CutEverywhere(
        [&] {
            Log *log = Open(work_);
            return log && Write(log, 11, 20) && LogClose(log);
        },
        0);
}

}  // namespace
