// A writer killed at random moments. A child commits generation after
// generation: it frees and allocates blocks of every size, so that the data
// files grow and shrink, writes the generation's bytes into every live
// block and a root block that lists them, commits, and then reports the
// generation on a pipe. The parent kills it with SIGKILL after a random
// delay, 200 times, and after each kill opens the arena: it must hold one
// committed generation whole, the one last reported or the next, and its
// structures must be whole.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <random>

#include "arena/arena_check.h"
#include "crash_model.h"
#include "crash_util.h"

using namespace crashtest;

namespace {

constexpr int kKills = 200;

class CrashSoakTest : public ::testing::Test {
  protected:
    // The root block: the generation, the count of listed blocks, their IDs.
    struct Root {
        ULong generation = 0;
        std::vector<ULong> ids;
        bool operator==(const Root &) const = default;
    };

    void SetUp() override {
        QKLibInit("crashsoaktest");
        ASSERT_FALSE(dir.Path().empty());
    }
    VMArena *Open(UInt flags) {
        return VMArenaOpen(dir.Path().c_str(), VM_FLAG_MAPPED | flags, 2, STATUS_NO_SERIAL,
                           STATUS_NO_SERIAL, nullptr, nullptr);
    }
    bool ReadRoot(VMArena *arena, Int genID, Root *root) {
        return Holding(arena, genID, [&] {
            auto *words = (const ULong *)VMArenaDataAcquire(arena, rootID, genID, 1, 0, 0);
            if (words == nullptr || words[1] > 8192 / 8 - 2) return false;
            *root = {words[0], std::vector<ULong>(words + 2, words + 2 + words[1])};
            return true;
        });
    }
    bool WriteRoot(VMArena *arena, const Root &root) {
        return Holding(arena, NEWGEN, [&] {
            auto *words = (ULong *)VMArenaDataAcquire(arena, rootID, NEWGEN, 0, 0, 0);
            if (words == nullptr) return false;
            words[0] = root.generation;
            words[1] = root.ids.size();
            std::copy(root.ids.begin(), root.ids.end(), words + 2);
            return true;
        });
    }

    // One generation on top of the new generation's root: the list moves
    // toward a target that swings between few and many blocks, with some
    // churn; every listed block and the root get the new generation's bytes.
    bool Step(VMArena *arena) {
        Root root;
        if (!ReadRoot(arena, NEWGEN, &root)) return false;
        ULong next = ++root.generation;
        std::mt19937_64 random(next);
        static const UInt kSizes[] = {64, 100, 300, 1000, 3000, 8192, 8192, 8192};
        size_t target = (next / 6) % 2 == 0 ? 30 : 170;
        Model model;  // only for the calls; the root is the record
        for (int churn = 0; !root.ids.empty() && (churn < 5 || root.ids.size() > target); churn++) {
            size_t at = random() % root.ids.size();
            Free(arena, &model, root.ids[at]);
            root.ids.erase(root.ids.begin() + at);
        }
        while (root.ids.size() < target + 5) {
            root.ids.push_back(Holding(arena, NEWGEN, [&] {
                return VMArenaBlockNew(arena, kSizes[random() % 8], nullptr, NEWGEN);
            }));
            if (root.ids.back() == INVALID_VMARENA_BLOCK_ID) return false;
        }
        for (ULong id : root.ids)
            if (!Write(arena, &model, id, (UInt)next)) return false;
        return WriteRoot(arena, root) && VMArenaCommit(arena, nullptr, nullptr);
    }

    // "" when the arena holds one generation whole in both generations and
    // its structures are whole, with the generation in *found.
    std::string Check(UInt flags, ULong *found) {
        VMArena *arena = Open(flags);
        if (arena == nullptr) return std::string("open failed: ") + QKErrorMessage();
        Root root, newRoot;
        Model model;
        std::string why,
            fault = !ReadRoot(arena, OLDGEN, &root) || !ReadRoot(arena, NEWGEN, &newRoot)
                        ? "no root block"
                    : !(newRoot == root) ? "the generations' roots differ"
                                         : "";
        for (ULong id : fault.empty() ? root.ids : std::vector<ULong>()) {
            UInt size = 0;
            VMArenaDataAcquire(arena, id, OLDGEN, 1, &size, nullptr);
            model.blocks[id] = Pattern(id, (UInt)root.generation, size);
        }
        if (fault.empty()) fault = Mismatch(arena, OLDGEN, model) + Mismatch(arena, NEWGEN, model);
        if (fault.empty() && !qk::arena::VMArenaCheckMemory(arena, &why)) fault = why;
        VMArenaClose(arena);
        *found = root.generation;
        return fault;
    }

    ScratchDir dir;
    ULong rootID = INVALID_VMARENA_BLOCK_ID;
};

TEST_F(CrashSoakTest, KilledWriterLeavesOneCommittedGeneration) {
    VMArena *arena = Open(VM_FLAG_CREATE);
    ASSERT_NE(arena, nullptr) << QKErrorMessage();
    Model model;
    rootID = New(arena, &model, 8192, 0);
    ASSERT_TRUE(WriteRoot(arena, Root()) && VMArenaCommit(arena, nullptr, nullptr));
    VMArenaClose(arena);

    // The delay before each kill is random up to a span that starts near a
    // fork, an open and a few commits on a quick machine, so that kills fall
    // into the recovering open, into the writing of blocks and into every
    // phase of the commits; where a writer starts up slowly (a sanitizer's
    // fork, a busy machine), kills that keep finding no new generation
    // widen it, so that the writers get on.
    std::mt19937 random(12345);
    long span = 10000;
    ULong committed = 0;
    int unreported = 0, stalled = 0;
    for (int kill = 0; kill < kKills; kill++) {
        int pipes[2];
        ASSERT_EQ(pipe(pipes), 0);
        fflush(stdout);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {  // the writer: commits until killed, reporting each generation
            close(pipes[0]);
            VMArena *writer = Open(kill % 3 == 2 ? VM_FLAG_RECOVER : 0);
            for (Root root; writer && Step(writer) && ReadRoot(writer, OLDGEN, &root);)
                if (write(pipes[1], &root.generation, sizeof root.generation) < 0) break;
            _exit(10);
        }
        close(pipes[1]);
        ULong before = committed, found = 0;
        usleep((useconds_t)(random() % span));
        ::kill(pid, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFSIGNALED(status)) << "writer ended by itself after kill " << kill;
        for (ULong reported; read(pipes[0], &reported, sizeof reported) == sizeof reported;)
            committed = reported;
        close(pipes[0]);
        ASSERT_EQ(Check(kill % 2 ? VM_FLAG_RECOVER : 0, &found), "")
            << "after kill " << kill << ", last reported generation " << committed;
        ASSERT_TRUE(found == committed || found == committed + 1)
            << "after kill " << kill << " the arena holds generation " << found
            << ", last reported " << committed;
        unreported += found != committed;
        stalled = found > before ? 0 : stalled + 1;
        if (stalled == 4 && span < 2000000) span *= 2, stalled = 0;
        committed = found;
    }
    printf("%d kills; %llu generations, %d unreported at the kill; delay up to %ld us\n", kKills,
           (unsigned long long)committed, unreported, span);
    // The writer got on between the kills (a kill that falls into the open
    // commits nothing).
    EXPECT_GT(committed, (ULong)kKills / 8);
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
