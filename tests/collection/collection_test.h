// The fixture of the persistent collections' tests: an arena in a fresh
// directory, committed, reopened and closed by the test.
#pragma once

#include <gtest/gtest.h>

#include "frame/file_test_dir.h"
#include "qk/qkcommon.h"

class CollectionTest : public ::testing::Test {
  protected:
    void SetUp() override { Open(VM_FLAG_CREATE | VM_FLAG_MAPPED); }
    void TearDown() override { VMArenaClose(arena); }
    void Open(UInt flags) {
        VMArenaClose(arena);
        arena = VMArenaOpen(dir.Path().c_str(), flags, 1, STATUS_NO_SERIAL, STATUS_NO_SERIAL,
                            nullptr, nullptr);
        ASSERT_NE(arena, nullptr) << QKErrorMessage();
    }
    void Commit() { ASSERT_TRUE(VMArenaCommit(arena, nullptr, nullptr)) << QKErrorMessage(); }

    TempDir dir;
    VMArena *arena = nullptr;
    char path[VMARENA_PATH_SIZE] = "c/";
};
