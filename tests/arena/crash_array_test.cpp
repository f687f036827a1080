// Commits that move named arrays between their forms (a partial array to a
// larger size class and to whole blocks, a cleared array back to empty, a
// new array), cut at every file system call (see crash_driver.h): the
// reopened arena holds exactly the arrays before or after the change.
#include <map>

#include "arena/arena_internal.h"
#include "crash_driver.h"

using namespace crashtest;

namespace {

// Array name -> element size and elements.
struct Arrays {
    std::map<std::string, std::pair<UInt, std::string>> arrays;
    bool operator==(const Arrays &other) const = default;
};

std::string Mismatch(VMArena *arena, Int genID, const Arrays &model) {
    for (const auto &[name, array] : model.arrays) {
        int create = 0;
        Int id = VMAArrayFind(arena, genID, name.data(), (UInt)name.size(), 1, &create, 0, 8192);
        if (id < 0) return name + " missing";
        std::string elements;
        for (UInt i = 0, end, length = VMAArrayLength_(arena, id, genID); i < length; i = end) {
            auto *p =
                (const char *)VMAArrayRange_(arena, id, 8192, i, &end, genID, 1, array.first, 0);
            if (p == nullptr) return name + ": " + QKErrorMessage();
            elements.append(p, (size_t)(end - i) * array.first);
        }
        if (elements != array.second) return name + " differs";
    }
    return "";
}

Int Find(VMArena *arena, const std::string &name) {
    int create = 1;
    return VMAArrayFind(arena, NEWGEN, name.data(), (UInt)name.size(), 1, &create, 0, 8192);
}

// Appends `count` elements made from the name and the position; the array is
// made if it is new.
bool Append(VMArena *arena, Arrays *model, const std::string &name, UInt eltSize, UInt count) {
    auto &[size, elements] = model->arrays.try_emplace(name, eltSize, "").first->second;
    std::string more;
    for (UInt i = 0; i < count * size; i++) more += (char)(name.size() * 31 + elements.size() + i);
    elements += more;
    return VMAArrayAppend_(arena, Find(arena, name), 8192, more.data(), count, NEWGEN, size);
}

UByte Type(VMArena *arena, const std::string &name) {
    return qk::arena::ArrayRecord(&arena->rw_gen, (UInt)Find(arena, name))->type;
}

bool BuildA(VMArena *arena, Arrays *m) {
    return Append(arena, m, "small", 4, 10) && Append(arena, m, "grow", 4, 1000) &&
           Append(arena, m, "full", 4, 7000) && Append(arena, m, "clear", 12, 100) &&
           VMArenaCommit(arena, nullptr, nullptr);
}

// B: "small" to a larger class, "grow" to whole blocks, an insertion and a
// removal that move "full" across its blocks, "clear" emptied, and a new
// array.
bool ChangeB(VMArena *arena, Arrays *m) {
    std::string &full = m->arrays["full"].second;
    const char element[4] = {'i', 'n', 's', '!'};
    char scratch[8];
    Int fullID = Find(arena, "full"), clearID = Find(arena, "clear");
    full.insert(20, element, 4), full.erase(4 * 6500, 4);
    m->arrays["clear"].second.clear();
    VMAArrayClear_(arena, clearID, NEWGEN);
    return Append(arena, m, "small", 4, 20) && Append(arena, m, "grow", 4, 6000) &&
           VMAArrayInsert_(arena, fullID, 8192, 5, element, scratch, scratch + 4, NEWGEN, 4) &&
           VMAArrayRemove_(arena, fullID, 8192, 6500, NEWGEN, 4) &&
           Append(arena, m, "new", 8, 50) && Type(arena, "small") == PARTIAL_ARRAY_TYPE &&
           Type(arena, "grow") == FULL_ARRAY_TYPE && Type(arena, "clear") == EMPTY_ARRAY_TYPE;
}

bool ChangeC(VMArena *arena, Arrays *m) {
    for (const char *name : {"small", "grow", "clear"})
        if (!Append(arena, m, name, m->arrays[name].first, 5)) return false;
    return Append(arena, m, "c", 4, 3000);
}

class CrashArrayTest : public ::testing::TestWithParam<Setup> {
  protected:
    void SetUp() override { QKLibInit("crasharraytest"); }
};

TEST_P(CrashArrayTest, EveryCutLeavesTheArraysBeforeOrAfter) {
    CutDriver<Arrays>(GetParam(), {BuildA, ChangeB, ChangeC}).Run();
}

INSTANTIATE_TEST_SUITE_P(Arena, CrashArrayTest,
                         ::testing::Values(Setup{1, STATUS_NO_SERIAL, false, true},
                                           Setup{2, STATUS_NO_SERIAL, true, false}),
                         [](const ::testing::TestParamInfo<Setup> &info) {
                             return std::to_string(info.param.buckets) + "Bucket" +
                                    (info.param.recoverFlag ? "Recover" : "Plain");
                         });

}  // namespace
