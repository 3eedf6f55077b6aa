// A test program that dies names the test that was running.
#include "support/death_notice.h"

#include <gtest/gtest.h>

#include <string>

#include "deaths.h"
#include "support/child_process.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

namespace {

class DeathNoticeTest : public testing::Test {
  protected:
    // Runs that test of the dying program, which has no part in this program's shards.
    ChildEnd Run(const std::string& test) {
        ChildProcess child({.arguments = {DYING_PROGRAM, "--gtest_filter=" + test},
                            .environment = {"GTEST_TOTAL_SHARDS", "GTEST_SHARD_INDEX"},
                            .outputPath = m_folder.File("output"),
                            .errorPath = m_folder.File("errors")});
        return child.Wait();
    }

    // What it said of its death, up to the system's part; empty without a notice.
    std::string Notice() const {
        const std::string errors = ReadText(m_folder.File("errors"));
        const auto begin = errors.find("test program died");
        return begin == std::string::npos ? "" : errors.substr(begin, errors.rfind(';') - begin);
    }

  private:
    TempFolder m_folder;
};

}  // namespace

TEST_F(DeathNoticeTest, NamesTheTestThatAborts) {
    EXPECT_EQ(Run("Dying.OfAnAbort"), kEndOfAbort);
    EXPECT_EQ(Notice(), "test program died; running test: Dying.OfAnAbort");
}

TEST_F(DeathNoticeTest, NamesTheTestOfAnExceptionThatNobodyCatches) {
    EXPECT_EQ(Run("Dying.OfAnException"), kEndOfAbort);
    EXPECT_EQ(Notice(), "test program died; running test: Dying.OfAnException");
}

TEST_F(DeathNoticeTest, NamesTheTestThatWritesWhereNoMemoryIs) {
    EXPECT_EQ(Run("Dying.OfAWildWrite"), kEndOfWildWrite);
    EXPECT_EQ(Notice(), "test program died; running test: Dying.OfAWildWrite");
}

TEST_F(DeathNoticeTest, NamesTheTestWhoseThreadDies) {
    EXPECT_EQ(Run("Dying.OfAWildWriteOnAThread"), kEndOfWildWrite);
    EXPECT_EQ(Notice(), "test program died; running test: Dying.OfAWildWriteOnAThread");
}

TEST_F(DeathNoticeTest, NamesTheTestThatASanitizerEnds) {
    if (!kUndefinedBehaviourEnds) {
        GTEST_SKIP() << "no sanitizer looks for undefined behaviour here";
    }
    EXPECT_EQ(Run("Dying.OfUndefinedBehaviour"), kEndOfAbort);
    EXPECT_EQ(Notice(), "test program died; running test: Dying.OfUndefinedBehaviour");
}

TEST_F(DeathNoticeTest, NamesTheLastTestWhenNoneIsRunning) {
    EXPECT_EQ(Run("DyingAfterwards.OfAnAbort"), kEndOfAbort);
    EXPECT_EQ(Notice(), "test program died; running test: none, after DyingAfterwards.OfAnAbort");
}

TEST_F(DeathNoticeTest, SaysNothingOfAProgramThatLives) {
    EXPECT_EQ(Run("Dying.NotAtAll"), (ChildEnd{0, 0}));
    EXPECT_EQ(Notice(), "");
}

TEST(DeathNoticeText, WritesNumbersInHexadecimal) {
    DeathNotice notice;
    const std::string begin = notice.Text();
    notice.AddHex(0);
    notice.AddHex(0x1f);
    notice.AddHex(~u64{0});
    EXPECT_EQ(notice.Text(), begin + "0x0" + "0x1f" + "0xffffffffffffffff");
}

TEST(DeathNoticeText, CutsOffWhatDoesNotFit) {
    DeathNotice notice;
    const std::string begin = notice.Text();
    notice.Add(std::string(5000, 'x').c_str());
    EXPECT_EQ(notice.Size(), 1023U);
    EXPECT_EQ(notice.Text(), begin + std::string(1023 - begin.size(), 'x'));
}

}  // namespace k9erepl::test
