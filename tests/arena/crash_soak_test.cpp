// A writer killed at random moments. A child commits generation after
// generation: it frees and allocates blocks of every size, so that the data
// files grow and shrink, writes the generation's bytes into every live
// block and a root block that lists them, commits, and then reports the
// generation on a pipe. The parent kills it with SIGKILL after a random
// delay, 200 times, and after each kill opens the arena: it must hold one
// committed generation whole, the one last reported or the next, and its
// accounting must be whole.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <time.h>

#include <random>

#include "arena/arena_check.h"
#include "crash_model.h"
#include "crash_util.h"

using namespace crashtest;

namespace {

constexpr int kKills = 200;
// The root block: the generation, the count of listed blocks, their IDs.
constexpr UInt kRootWords = ARENA_MAX_BLOCK_SIZE / sizeof(ULong);
constexpr UInt kMaxListed = kRootWords - 2;

struct Root {
    ULong generation;
    std::vector<ULong> ids;
};

bool ReadRoot(VMArena *arena, ULong rootID, Int genID, Root *root) {
    const ULong *words =
        (const ULong *)VMArenaDataAcquire(arena, rootID, genID, 1, nullptr, nullptr);
    if (words == nullptr || words[1] > kMaxListed) return false;
    root->generation = words[0];
    root->ids.assign(words + 2, words + 2 + words[1]);
    return true;
}

bool WriteRoot(VMArena *arena, ULong rootID, const Root &root) {
    ULong *words = (ULong *)VMArenaDataAcquire(arena, rootID, NEWGEN, 0, nullptr, nullptr);
    if (words == nullptr) return false;
    words[0] = root.generation;
    words[1] = root.ids.size();
    if (!root.ids.empty()) memcpy(words + 2, root.ids.data(), root.ids.size() * sizeof(ULong));
    return true;
}

class CrashSoakTest : public ::testing::Test {
  protected:
    void SetUp() override {
        QKLibInit("crashsoaktest");
        ASSERT_FALSE(dir.Path().empty());
    }

    VMArena *Open(UInt flags) {
        return VMArenaOpen(dir.Path().c_str(), VM_FLAG_MAPPED | flags, 2, STATUS_NO_SERIAL,
                           STATUS_NO_SERIAL, nullptr, nullptr);
    }

    // One generation on top of the new generation's root: the list moves
    // toward a target that swings between few and many blocks, with some
    // churn; every listed block and the root get the new generation's bytes.
    static bool Step(VMArena *arena, ULong rootID) {
        Root root;
        VMArenaNewGenAcquire(arena, NEWGEN);
        bool ok = ReadRoot(arena, rootID, NEWGEN, &root);
        VMArenaNewGenRelease(arena, NEWGEN);
        if (!ok) return false;
        ULong next = root.generation + 1;
        std::mt19937_64 random(next);
        static const UInt kSizes[] = {64, 100, 300, 1000, 3000, 8192, 8192, 8192};
        size_t target = (next / 6) % 2 == 0 ? 30 : 170;
        Model model;  // only for the calls; the root is the record
        for (int churn = 0; churn < 5 && !root.ids.empty(); churn++) {
            size_t at = random() % root.ids.size();
            Free(arena, &model, root.ids[at]);
            root.ids.erase(root.ids.begin() + at);
        }
        while (root.ids.size() > target) {
            size_t at = random() % root.ids.size();
            Free(arena, &model, root.ids[at]);
            root.ids.erase(root.ids.begin() + at);
        }
        while (root.ids.size() < target + 5) {
            VMArenaNewGenAcquire(arena, NEWGEN);
            ULong id = VMArenaBlockNew(arena, kSizes[random() % 8], nullptr, NEWGEN);
            VMArenaNewGenRelease(arena, NEWGEN);
            if (id == INVALID_VMARENA_BLOCK_ID) return false;
            root.ids.push_back(id);
        }
        for (ULong id : root.ids) {
            if (!Write(arena, &model, id, (UInt)next)) return false;
        }
        root.generation = next;
        VMArenaNewGenAcquire(arena, NEWGEN);
        ok = WriteRoot(arena, rootID, root);
        VMArenaNewGenRelease(arena, NEWGEN);
        return ok && VMArenaCommit(arena, nullptr, nullptr);
    }

    // The child: commits until killed, reporting each generation after its
    // commit has returned.
    int Writer(int report, UInt flags) {
        VMArena *arena = Open(flags);
        if (arena == nullptr) return 10;
        for (;;) {
            if (!Step(arena, rootID)) return 11;
            Root root;
            VMArenaOldGenAcquire(arena);
            bool ok = ReadRoot(arena, rootID, OLDGEN, &root);
            VMArenaOldGenRelease(arena);
            if (!ok || write(report, &root.generation, sizeof root.generation) < 0) return 12;
        }
    }

    // The generation that `dir` holds, after checking that it is whole in
    // both generations; "" or what is wrong in *fault.
    ULong Check(UInt flags, std::string *fault) {
        VMArena *arena = Open(flags);
        if (arena == nullptr) {
            *fault = std::string("open failed: ") + QKErrorMessage();
            return 0;
        }
        Root root, newRoot;
        VMArenaOldGenAcquire(arena);
        bool ok = ReadRoot(arena, rootID, OLDGEN, &root);
        VMArenaOldGenRelease(arena);
        VMArenaNewGenAcquire(arena, NEWGEN);
        ok = ReadRoot(arena, rootID, NEWGEN, &newRoot) && ok;
        VMArenaNewGenRelease(arena, NEWGEN);
        std::string why;
        if (!ok) {
            *fault = "no root block";
        } else if (newRoot.generation != root.generation || newRoot.ids != root.ids) {
            *fault = "the generations' roots differ";
        } else {
            Model model;
            for (ULong id : root.ids) {
                UInt size = 0;
                VMArenaOldGenAcquire(arena);
                VMArenaDataAcquire(arena, id, OLDGEN, 1, &size, nullptr);
                VMArenaOldGenRelease(arena);
                model.blocks[id] = Pattern(id, (UInt)root.generation, size);
            }
            std::string diff = Mismatch(arena, OLDGEN, model);
            if (diff.empty()) diff = Mismatch(arena, NEWGEN, model);
            if (!diff.empty()) {
                *fault = "generation " + std::to_string(root.generation) + ": " + diff;
            } else if (!qk::arena::VMArenaCheckMemory(arena, &why)) {
                *fault = why;
            }
        }
        VMArenaClose(arena);
        return root.generation;
    }

    ScratchDir dir;
    ULong rootID = INVALID_VMARENA_BLOCK_ID;
};

TEST_F(CrashSoakTest, KilledWriterLeavesOneCommittedGeneration) {
    VMArena *arena = Open(VM_FLAG_CREATE);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();
    Model model;
    rootID = New(arena, &model, 8192, 0);
    ASSERT_NE(rootID, INVALID_VMARENA_BLOCK_ID);
    ASSERT_TRUE(WriteRoot(arena, rootID, Root{0, {}}));
    ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr)) << QKErrorMessage();
    VMArenaClose(arena);

    // The delay before each kill spans a fork, an open and four commits on
    // this machine (measured in a child, as the writers run, so that a
    // slow fork under a sanitizer counts too), so that kills fall into the
    // recovering open, into the writing of blocks and into every phase of
    // the commits.
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    fflush(stdout);
    pid_t timing = fork();
    ASSERT_GE(timing, 0);
    if (timing == 0) {
        VMArena *child = Open(0);
        bool ok = child != nullptr;
        for (int i = 0; ok && i < 4; i++) ok = Step(child, rootID);
        _exit(ok ? 0 : 1);
    }
    int timingStatus = 0;
    ASSERT_EQ(waitpid(timing, &timingStatus, 0), timing);
    ASSERT_TRUE(WIFEXITED(timingStatus) && WEXITSTATUS(timingStatus) == 0);
    clock_gettime(CLOCK_MONOTONIC, &end);
    long span = (end.tv_sec - start.tv_sec) * 1000000L + (end.tv_nsec - start.tv_nsec) / 1000;
    span = std::max(span, 2000L);

    std::mt19937 random(12345);
    ULong committed = 4, highest = 4;  // the timing child committed four
    int survived = 0, unreported = 0, inRenames = 0, inWrites = 0, stalled = 0;
    constexpr long kMaxSpan = 2000000;
    for (int kill = 0; kill < kKills; kill++) {
        int pipes[2];
        ASSERT_EQ(pipe(pipes), 0);
        UInt flags = kill % 3 == 2 ? VM_FLAG_RECOVER : 0;
        fflush(stdout);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(pipes[0]);
            _exit(Writer(pipes[1], flags));
        }
        close(pipes[1]);
        ULong before = committed;
        usleep((useconds_t)(random() % span));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status))
            << "writer ended by itself with " << WEXITSTATUS(status) << " after kill " << kill;
        ULong reported;
        while (read(pipes[0], &reported, sizeof reported) == sizeof reported) committed = reported;
        close(pipes[0]);
        // Where the kill fell: between the renames of a commit (the marker
        // stands), or while its new files were being written.
        if (Exists(dir / "committing")) {
            inRenames++;
        } else {
            for (const std::string &name : Files(dir.Path())) {
                if (name.ends_with(".new.new") || name.ends_with(".old.new")) {
                    inWrites++;
                    break;
                }
            }
        }
        std::string fault;
        ULong found = Check(kill % 2 ? VM_FLAG_RECOVER : 0, &fault);
        ASSERT_EQ(fault, "") << "after kill " << kill << ", last reported generation " << committed;
        ASSERT_TRUE(found == committed || found == committed + 1)
            << "after kill " << kill << " the arena holds generation " << found
            << ", last reported " << committed;
        if (found != committed) unreported++;
        // Where a writer starts up slowly (a sanitizer's fork, a busy
        // machine), kills that keep finding no new generation widen the
        // delay, so that the writers get on.
        stalled = found > before ? 0 : stalled + 1;
        if (stalled == 4 && span < kMaxSpan) {
            span *= 2;
            stalled = 0;
        }
        committed = found;
        highest = std::max(highest, found);
        survived++;
    }
    printf(
        "kills survived: %d (generations committed: %llu, %d of them unreported at the kill; "
        "%d kills while a commit wrote its files, %d between its renames; delay up to %ld "
        "us)\n",
        survived, (unsigned long long)highest, unreported, inWrites, inRenames, span);
    // The writer got on between the kills (a kill that falls into the open
    // commits nothing).
    EXPECT_GT(highest, 4u + kKills / 8);
    // After the last kill a commit of the surviving generation leaves no
    // temporary file behind.
    arena = Open(0);
    ASSERT_NE(arena, nullptr);
    ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr)) << QKErrorMessage();
    std::string why;
    EXPECT_TRUE(qk::arena::VMArenaCheckAccounting(arena, &why)) << why;
    VMArenaClose(arena);
}

}  // namespace
