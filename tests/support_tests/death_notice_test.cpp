// A test program that dies names the test that was running.
#include <gtest/gtest.h>

#include <string>

#include "support/child_process.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::test {
namespace {

// What the dying program says in that test of its death, up to the system's part; empty for no
// notice. The program has no part in this program's shards.
std::string NoticeOf(const std::string& test) {
    const TempFolder folder;
    ChildProcess child({.arguments = {DYING_PROGRAM, "--gtest_filter=" + test},
                        .environment = {"GTEST_TOTAL_SHARDS", "GTEST_SHARD_INDEX"},
                        .outputPath = folder.File("output"),
                        .errorPath = folder.File("errors")});
    const bool lives = child.Wait() == ChildEnd{0, 0};
    std::string errors = ReadText(folder.File("errors"));
    errors.erase(0, errors.find("test program died"));
    EXPECT_EQ(lives, errors.empty()) << test;
    return errors.substr(0, errors.rfind(';'));
}

TEST(DeathNotices, NameTheTestWhateverItDiesOf) {
    for (const std::string test : {"Dying.OfAnAbort", "Dying.OfAnException", "Dying.OfAWildWrite",
                                   "Dying.OfAWildWriteOnAThread"}) {
        EXPECT_EQ(NoticeOf(test), "test program died; running test: " + test);
    }
}

TEST(DeathNotices, NameTheLastTestWhenNoneIsRunning) {
    EXPECT_EQ(NoticeOf("DyingAfterwards.OfAnAbort"),
              "test program died; running test: none, after DyingAfterwards.OfAnAbort");
}

TEST(DeathNotices, SayNothingOfAProgramThatLives) {
    EXPECT_EQ(NoticeOf("Dying.NotAtAll"), "");
}

}  // namespace
}  // namespace k9erepl::test
