// A squeeze whose copy has no room begins nothing. How much room there is, a library in front of
// the C library says.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

class ToolClearRoom : public ToolTest {
  protected:
    void SetFree(i64 bytes) {
        m_environment = {"K9SYS_LOG", "K9SYS_LOG_FILE", "LD_PRELOAD=" FREE_SPACE_LIBRARY,
                         "K9EREPL_TEST_FREE_BYTES=" + std::to_string(bytes)};
    }
    // Ten records of 100,000 bytes.
    void FillLarge() {
        std::string lines;
        for (int i = 0; i < 10; ++i) {
            lines += std::string(100000, 'x') + "\n";
        }
        ASSERT_EQ(Append(lines).exitStatus, 0);
        m_before = ReadBytes(StorageFile());
    }
    // A squeeze that keeps the last of them needs its bytes, its head, what a file begins with, a
    // commit block and a little for what is noted beside.
    static constexpr i64 kNeeded = 1056 + 24 + 100000 + 32 + 4096;
    std::string NoRoom(i64 bytesFree) const {
        return "clear: cannot squeeze the storage '" + StorageFile() +
               "': the copy of what is kept needs " + std::to_string(kNeeded) + " bytes in '" +
               StorageFile().substr(0, StorageFile().rfind('/')) + "', where " +
               std::to_string(bytesFree) +
               " are free; make room, or use --mode logical, which needs none; nothing was changed";
    }
};

TEST_F(ToolClearRoom, JustEnoughRoomIsEnoughAndLessChangesNothing) {
    FillLarge();
    SetFree(kNeeded - 1);
    for (const char* mode : {"squeeze", "squeeze-backup"}) {
        ExpectFailure(Clear("10", mode), NoRoom(kNeeded - 1));
        ExpectNothingChanged();
    }
    SetFree(kNeeded);
    const ToolRun run = Clear("10", "squeeze-backup");
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(Stat("oldestRev"), "10");
    EXPECT_TRUE(Exists(Backup()));
}

TEST_F(ToolClearRoom, ZerosBehindTheDataAreNotCopied) {
    FillLarge();
    ResizeFile(StorageFile(), 100'000'000);
    SetFree(kNeeded);
    EXPECT_EQ(Clear("10", "squeeze").exitStatus, 0);
}

TEST_F(ToolClearRoom, WhatWasClearedLogicallyBeforeIsNotCopied) {
    FillLarge();
    SetFree(100);
    ASSERT_EQ(Clear("10", "logical").exitStatus, 0);
    SetFree(kNeeded + 32);  // the commit block of that clear
    EXPECT_EQ(Clear("10", "squeeze").exitStatus, 0);
}

TEST_F(ToolClearRoom, WhatCopiesNothingNeedsNoRoom) {
    FillLarge();
    SetFree(100);
    EXPECT_EQ(Clear("1", "squeeze").exitStatus, 0);  // nothing to do
    EXPECT_EQ(Clear("5", "mark").exitStatus, 0);
    EXPECT_EQ(Clear("11", "squeeze").exitStatus, 0);  // everything
    EXPECT_EQ(Cat(), "");
}

}  // namespace
}  // namespace k9erepl::test
