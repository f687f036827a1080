// Commits of blocks cut at every file system call (see crash_driver.h), in
// one and two buckets, with data files that grow and that shrink, reopened
// with and without VM_FLAG_RECOVER, and in serial mode.
#include "crash_driver.h"
#include "crash_model.h"

using namespace crashtest;

namespace {

// How the change B moves the data file: it grows (copies, new blocks), or
// it shrinks (the high blocks were freed by the commit before A, so the
// commit of B may cut them).
enum class Kind { Grow, Shrink };

// Allocates `count` blocks of each size at `version`.
bool NewBlocks(VMArena *arena, Model *model, std::initializer_list<UInt> sizes, UInt count,
               UInt version) {
    for (UInt size : sizes)
        for (UInt i = 0; i < count; i++)
            if (New(arena, model, size, version) == INVALID_VMARENA_BLOCK_ID) return false;
    return true;
}

// A: pieces of three smaller classes, then whole blocks, version 1. For
// Shrink, the high whole blocks are freed and committed once more: the old
// image still holds them then, so only the commit of B can cut them from
// the data file.
bool BuildA(VMArena *arena, Model *model, Kind kind) {
    if (!NewBlocks(arena, model, {88}, 40, 1) || !NewBlocks(arena, model, {1000, 4000}, 8, 1) ||
        !NewBlocks(arena, model, {8192}, kind == Kind::Grow ? 24 : 72, 1) ||
        !VMArenaCommit(arena, nullptr, nullptr))
        return false;
    if (kind == Kind::Grow) return true;
    std::vector<ULong> high;
    for (ULong id : model->order)
        if ((id & 15) == 15) high.push_back(id);
    for (size_t i = 16; i < high.size(); i++) Free(arena, model, high[i]);
    return VMArenaCommit(arena, nullptr, nullptr);
}

// B: every third block written again (copy on write), some whole blocks
// and pieces freed, new ones allocated (pieces first from the freed
// slots); Grow adds many whole blocks.
bool ChangeB(VMArena *arena, Model *model, Kind kind) {
    std::vector<ULong> order = model->order;
    for (size_t i = 0; i < order.size(); i += 3)
        if (!Write(arena, model, order[i], 2)) return false;
    int freed[2] = {0, 0};  // pieces, whole blocks
    for (size_t i = 1; i < order.size(); i += 4) {
        bool whole = (order[i] & 15) == 15;
        if (freed[whole]++ < (whole ? 4 : 6)) Free(arena, model, order[i]);
    }
    return NewBlocks(arena, model, {8192}, kind == Kind::Grow ? 48 : 3, 2) &&
           NewBlocks(arena, model, {70, 88, 1000}, 4, 2);
}

// C, after a recovery: a few writes, frees and allocations, version 3.
bool ChangeC(VMArena *arena, Model *model) {
    std::vector<ULong> order = model->order;
    for (size_t i = 0; i < 3 && i < order.size(); i++)
        if (!Write(arena, model, order[i], 3)) return false;
    for (size_t i = order.size() - 2; i < order.size(); i++) Free(arena, model, order[i]);
    return NewBlocks(arena, model, {8192}, 3, 3) && NewBlocks(arena, model, {1000, 88}, 1, 3);
}

const char *const kModes[] = {"Plain", "Recover", "Serial"};

struct Variant {
    UInt buckets;
    Kind kind;
    bool recoverFlag, serial;
};

class CrashCommitTest : public ::testing::TestWithParam<Variant> {
  protected:
    void SetUp() override { QKLibInit("crashcommittest"); }
};

TEST_P(CrashCommitTest, EveryCutLeavesTheStateBeforeOrAfter) {
    const Variant &v = GetParam();
    Content<Model> blocks = {[&](VMArena *a, Model *m) { return BuildA(a, m, v.kind); },
                             [&](VMArena *a, Model *m) { return ChangeB(a, m, v.kind); }, ChangeC};
    // Under the marker an open rolls forward with or without
    // VM_FLAG_RECOVER: the plain variants cut the recovering open.
    CutDriver<Model> driver(
        {v.buckets, v.serial ? 1 : STATUS_NO_SERIAL, v.recoverFlag, !v.recoverFlag && !v.serial},
        blocks);
    driver.Run();
}

INSTANTIATE_TEST_SUITE_P(
    Arena, CrashCommitTest,
    ::testing::Values(Variant{1, Kind::Grow, false, false}, Variant{1, Kind::Grow, true, false},
                      Variant{1, Kind::Shrink, false, false}, Variant{1, Kind::Shrink, true, false},
                      Variant{2, Kind::Grow, false, false}, Variant{2, Kind::Grow, true, false},
                      Variant{2, Kind::Shrink, false, false}, Variant{2, Kind::Shrink, true, false},
                      Variant{1, Kind::Grow, false, true}),
    [](const ::testing::TestParamInfo<Variant> &info) {
        const Variant &v = info.param;
        return std::to_string(v.buckets) + "Bucket" + (v.kind == Kind::Grow ? "Grow" : "Shrink") +
               kModes[v.serial ? 2 : v.recoverFlag];
    });

}  // namespace
