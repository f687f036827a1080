// Log crash tests: a child writing a log is cut at every file call, during
// rotations, during truncation by a pointer and during the recovering open.
// The log it leaves must open, hold a run of the written records in order
// that ends no earlier than the last flush before the cut, and take more.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <functional>
#include <vector>

#include "arena/crash_util.h"
#include "qk/qkcommon.h"

using namespace crashtest;

namespace {

constexpr int kRecords = 40;

std::string Payload(int i) {
    return std::to_string(i) + ":" + std::string(20 + i * 7 % 50, 'a' + i % 26);
}

// The child's count of records flushed, in memory it shares with the test.
int *const gFlushed = static_cast<int *>(
    mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

class LogCrashTest : public ::testing::Test {
  protected:
    void SetUp() override { QKLibInit("logcrashtest"); }

    // Writes records [from, to) with files of at most 300 bytes, flushing
    // every 5 and counting the flushed ones.
    bool Write(Log *log, int from, int to) {
        LogSetMaxFileSize(log, 300);
        for (int i = from; i < to; i++) {
            std::string p = Payload(i);
            if (!LogWrite(log, 3, p.data(), p.size(), nullptr)) return false;
            if (i % 5 == 4 && !LogFlush(log)) return false;
            if (i % 5 == 4) *gFlushed = i + 1;
        }
        return true;
    }
    Log *Open(const ScratchDir &dir) { return LogOpen(dir.Path().c_str(), 0); }

    // golden_: a log of `records` records, closed.
    void Build(int records) {
        Log *log = Open(golden_);
        ASSERT_TRUE(log && Write(log, 0, records) && LogClose(log)) << QKErrorMessage();
        flushedBefore_ = records;
    }

    // Opens a copy of golden_, runs `work` and closes it in a child cut at
    // call `n` (0: never) before or after it; the child's exit status.
    int Cut(long n, bool after, const std::function<bool(Log *)> &work) {
        if (!work_.CopyOf(golden_.Path())) return -1;
        *gFlushed = flushedBefore_;
        return InChild([&] {
            CrashFaultArm(n, after);
            Log *log = Open(work_);
            bool ok = log && work(log) && LogClose(log);
            CrashFaultDisarm();
            return ok ? 0 : 1;
        });
    }

    // The record numbers of an open log from its first serial on; -1 for
    // a record that is not the one of its number, -2 for a failed read.
    static std::vector<int> Numbers(Log *log) {
        LogReadContext *reader = LogReadContextNew(log);
        std::vector<int> numbers;
        std::string buffer(256, '\0');
        ULong at = 0, last = LogLastSerial(log);
        for (bool ok = LogFirstSerial(reader, 0, &at, 0, 0); ok && at <= last;) {
            UInt action = 0, size = buffer.size();
            ok = LogRead(reader, at, &action, buffer.data(), &size, &at, nullptr);
            int n = ok && action == 3 ? std::stoi(buffer) : -2;
            if (!ok || action == 3)
                numbers.push_back(buffer.substr(0, size) == Payload(n) ? n : -1);
        }
        LogReadContextDelete(reader);
        return numbers;
    }

    // "" when the log in work_ opens writable and holds records i to j - 1,
    // i <= `firstAtMost` and j at least the flushed count, and a record
    // written then is there after a reopening.
    std::string Verify(int firstAtMost) {
        Log *log = Open(work_);
        if (log == nullptr) return std::string("open: ") + QKErrorMessage();
        std::vector<int> numbers = Numbers(log);
        int next = numbers.empty() ? 0 : numbers.back() + 1, flushed = *gFlushed;
        bool run = numbers.empty() || (numbers[0] >= 0 && numbers[0] <= firstAtMost);
        for (size_t i = 1; i < numbers.size(); i++) run = run && numbers[i] == numbers[i - 1] + 1;
        bool wrote = Write(log, next, next + 1);
        LogClose(log);
        numbers.push_back(next);
        log = Open(work_);
        bool kept = log != nullptr && Numbers(log) == numbers;
        if (log != nullptr) LogClose(log);
        if (run && next >= flushed && wrote && kept) return "";
        return "records " + std::to_string(numbers[0]) + " to " + std::to_string(next - 1) +
               ", flushed " + std::to_string(flushed);
    }

    // Cuts `work` at each of its calls; each cut must verify.
    void CutEverywhere(const std::function<bool(Log *)> &work, int firstAtMost) {
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
    int flushedBefore_ = 0;
};

TEST_F(LogCrashTest, RotationsCutAnywhereKeepTheFlushedRecords) {
    Build(3);
    CutEverywhere([&](Log *log) { return Write(log, 3, kRecords); }, 0);
}

TEST_F(LogCrashTest, TruncationByAPointerCutAnywhereKeepsTheTail) {
    Build(kRecords);
    CutEverywhere(
        [&](Log *log) {
            return LogSetAutoTruncate(log, 1) &&
                   LogSetPointer(log, "reader", LogLastSerial(log), "v", 1) &&
                   !fs::exists(work_ / "log.1");
        },
        kRecords);
}

// A torn tail, cut while the log opens and writes behind it.
TEST_F(LogCrashTest, TheRecoveringOpenCutAnywhereKeepsTheWholeRecords) {
    Build(12);
    int last = 1;
    while (fs::exists(golden_ / ("log." + std::to_string(last + 1)))) last++;
    std::string newest = golden_ / ("log." + std::to_string(last));
    fs::resize_file(newest, fs::file_size(newest) - 5);
    flushedBefore_ = 11;
    CutEverywhere([&](Log *log) { return Write(log, 11, 20); }, 0);
}

}  // namespace
