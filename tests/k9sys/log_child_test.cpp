// What the environment decides: levels and the log file, and how a line of the file looks. Each
// test runs k9sys_log_child, because a process reads its environment once.
#include <set>

#include "k9sys/child_fixture.h"

namespace k9erepl::test {
namespace {

using LogChild = ChildTest;

const Lines kErrors = {"error a: an error", "error b: an error"};

TEST_F(LogChild, LevelsSayWhatIsLogged) {
    const struct {
        Lines environment;
        Lines lines;
    } runs[] = {
        {{}, kErrors},
        {{"K9SYS_LOG=off"}, {}},
        {{"K9SYS_LOG=warning"},
         {"error a: an error", "warning a: a warning", "error b: an error",
          "warning b: a warning"}},
        {{"K9SYS_LOG=info"},
         {"error a: an error", "warning a: a warning", "info a: an info", "error b: an error",
          "warning b: a warning", "info b: an info"}},
        {{"K9SYS_LOG=off,b=warning"}, {"error b: an error", "warning b: a warning"}},
        {{"K9SYS_LOG=loud"},
         {"K9Sys: K9SYS_LOG is not understood, only errors are logged: \"loud\"", kErrors[0],
          kErrors[1]}},
        {{"K9SYS_LOG_FILE="}, kErrors},
    };
    for (const auto& [environment, lines] : runs) {
        ASSERT_TRUE(Run("levels", environment));
        EXPECT_EQ(LinesOf(m_standardError), lines);
    }
}

TEST_F(LogChild, TheLogFileTakesWhatStandardErrorWouldBehindWhatItHas) {
    const std::string setting = "K9SYS_LOG_FILE=" + m_logFile;
    ASSERT_TRUE(Run("levels", {"K9SYS_LOG=off", setting}));
    EXPECT_FALSE(Exists(m_logFile)) << "nothing is logged";
    WriteText(m_logFile, "what was there\n");
    ASSERT_TRUE(Run("levels", {setting}));
    EXPECT_EQ(LinesOf(m_logFile), (Lines{"what was there", kErrors[0], kErrors[1]}));
    EXPECT_EQ(LinesOf(m_standardError), Lines());
}

TEST_F(LogChild, AFileThatCannotBeOpenedFallsBackToStandardError) {
    const std::string path = m_folder.File("no-such-folder/log");
    ASSERT_TRUE(Run("levels", {"K9SYS_LOG_FILE=" + path}));
    EXPECT_EQ(LinesOf(m_standardError),
              (Lines{"K9Sys: cannot open the log file, logging to standard error: \"" + path + "\"",
                     kErrors[0], kErrors[1]}));
}

TEST_F(LogChild, ALineHasTimeLevelModuleMessageAndCode) {
    ASSERT_TRUE(Run("codes", {}));
    std::string text = ReadText(m_standardError);
    std::erase(text, '\r');  // where the C library ends lines of text so
    EXPECT_EQ(Shape(text.substr(0, text.find('\n') + 1)),
              "0000-00-00 00:00:00.000 error k0eRepl-storage: "
              "Failed to begin trans;state 0 (code 00)\n");
    EXPECT_EQ(LinesOf(m_standardError),
              (Lines{"error k9eRepl-storage: Failed to begin trans;state 3 (code 27)",
                     "error ***TP***: no transaction (code 0x8011)", "error a: two?lines?and ?"}));
}

TEST_F(LogChild, TheTimeIsTheLocalTime) {
    const std::string east = m_folder.File("east");
    const std::string west = m_folder.File("west");
    ASSERT_TRUE(Run("levels", {"TZ=AAA-10", "K9SYS_LOG_FILE=" + east}));
    ASSERT_TRUE(Run("levels", {"TZ=BBB+10", "K9SYS_LOG_FILE=" + west}));
    // Twenty hours lie between them, never a whole day.
    EXPECT_NE(ReadText(east).substr(0, 13), ReadText(west).substr(0, 13));
}

TEST_F(LogChild, LinesOfEightThreadsAreWhole) {
    ASSERT_TRUE(Run("threads", {"K9SYS_LOG_FILE=" + m_logFile}));
    std::multiset<std::string> expected;
    for (int number = 0; number < 8; ++number) {
        for (int round = 0; round < 100; ++round) {
            expected.insert("error a: thread " + std::to_string(number) + " round " +
                            std::to_string(round) + ";some more text");
        }
    }
    const Lines lines = LinesOf(m_logFile);
    EXPECT_EQ(std::multiset<std::string>(lines.begin(), lines.end()), expected);
}

TEST_F(LogChild, MessagesWhileTheProcessEndsAreWritten) {
    ASSERT_TRUE(Run("end", {"K9SYS_LOG_FILE=" + m_logFile}));
    EXPECT_EQ(LinesOf(m_logFile),
              (Lines{"error a: while it runs", "error a: while the process ends"}));
}

}  // namespace
}  // namespace k9erepl::test
