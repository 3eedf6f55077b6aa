// The switch of a call site: what its first execution does, and what later ones do while the system
// library turns the site on and off, also on many threads. Arguments are evaluated exactly when the
// system library is called, so counting evaluations counts calls.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/log.h"
#include "support/log_capture.h"
#include "support/run_threads.h"

namespace k9erepl::test {
namespace {

using Texts = std::vector<std::string>;

constexpr const char* kModule = "log site test";

int g_evaluated = 0;

int Evaluate(int value) {
    ++g_evaluated;
    return value;
}

struct [[gnu::packed]] PackedRecord {
    u8 kind;
    i64 rev;
};

class LogSiteTest : public ::testing::Test {
  protected:
    LogSiteTest() {
        g_evaluated = 0;
        SetLevel(K9SYS_LOG_OFF);
    }

    static void SetLevel(K9SysLogLevel level) { K9SysSetLogLevel(kModule, level); }

    LogCapture m_log;
};

TEST_F(LogSiteTest, EachDisabledSiteReachesTheSystemLibraryOnlyOnce) {
    for (int i = 0; i < 100; ++i) {
        LOG_INFO(kModule, "value %d", Evaluate(i));
        LOG_INFO(kModule, "value %d", Evaluate(i));
    }
    static int s_registrations = 2;  // none when the test is repeated
    EXPECT_EQ(g_evaluated, std::exchange(s_registrations, 0));
    EXPECT_EQ(m_log.Messages(), std::vector<LoggedMessage>());
}

TEST_F(LogSiteTest, ASiteThatIsEnabledLaterStartsPrinting) {
    for (int i = 0; i < 6; ++i) {
        SetLevel(i < 3 ? K9SYS_LOG_OFF : K9SYS_LOG_INFO);
        LOG_INFO(kModule, "value %d", Evaluate(i));
    }
    EXPECT_EQ(m_log.Texts(), (Texts{"value 3", "value 4", "value 5"}));
    static int s_registrations = 1;  // none when the test is repeated
    EXPECT_EQ(g_evaluated, std::exchange(s_registrations, 0) + 3);
}

TEST_F(LogSiteTest, ASiteThatIsDisabledLaterStopsPrinting) {
    for (int i = 0; i < 6; ++i) {
        SetLevel(i < 3 ? K9SYS_LOG_INFO : K9SYS_LOG_OFF);
        LOG_INFO(kModule, "value %d", Evaluate(i));
    }
    EXPECT_EQ(m_log.Texts(), (Texts{"value 0", "value 1", "value 2"}));
    EXPECT_EQ(g_evaluated, 3);
}

TEST_F(LogSiteTest, LevelsAreSwitchedSeparately) {
    SetLevel(K9SYS_LOG_WARNING);
    for (int i = 0; i < 2; ++i) {
        LOG_INFO(kModule, "info %d", i);
        LOG_WARNING(kModule, "warning %d", i);
        LOG_ERROR(kModule, "error %d", i);
    }
    EXPECT_EQ(m_log.Texts(), (Texts{"warning 0", "error 0", "warning 1", "error 1"}));
}

TEST_F(LogSiteTest, EachMacroLogsAtItsLevelFirstAndLater) {
    SetLevel(K9SYS_LOG_INFO);
    for (int i = 0; i < 2; ++i) {
        m_log.Clear();
        LOG_INFO(kModule, "an info");
        LOG_WARNING(kModule, "a warning");
        LOG_ERROR(kModule, "an error");
        LOG_ERROR_CODE(0x8011, kModule, "a failure");
        EXPECT_EQ(m_log.Messages(),
                  (std::vector<LoggedMessage>{{K9SYS_LOG_INFO, kModule, "an info", 0},
                                              {K9SYS_LOG_WARNING, kModule, "a warning", 0},
                                              {K9SYS_LOG_ERROR, kModule, "an error", 0},
                                              {K9SYS_LOG_ERROR, kModule, "a failure", 0x8011}}));
    }
}

TEST_F(LogSiteTest, ArgumentsAreEvaluatedOnceForAMessage) {
    SetLevel(K9SYS_LOG_INFO);
    for (int i = 0; i < 2; ++i) {
        LOG_ERROR_CODE(static_cast<u32>(Evaluate(27)), kModule, "state %d", Evaluate(i));
    }
    EXPECT_EQ(g_evaluated, 4);
    EXPECT_EQ(m_log.CodeOf("state 0"), 27U);
    EXPECT_EQ(m_log.CodeOf("state 1"), 27U);
}

TEST_F(LogSiteTest, ArgumentsOfEveryKindArriveWhole) {
    SetLevel(K9SYS_LOG_INFO);
    for (int i = 0; i < 2; ++i) {
        LOG_INFO(kModule, "%d %u %s %I64d %P %r %R %llu %.2f", -1, 2U, "three", i64{-4},
                 std::size_t{5}, 6U, 0x8011U, u64{7}, 8.125);
    }
    EXPECT_EQ(m_log.Count("-1 2 three -4 5 6 0x8011 7 8.12"), 2U);
    const PackedRecord record = {1, 77};
    LOG_INFO(kModule, "Loaded rec;rev %I64d", record.rev);
    EXPECT_TRUE(m_log.Has("Loaded rec;rev 77"));
}

TEST_F(LogSiteTest, ASiteIsAStatementInAnyBranch) {
    SetLevel(K9SYS_LOG_INFO);
    const bool yes = m_log.Messages().empty();
    // NOLINTBEGIN(readability-braces-around-statements): the point of the test
    if (yes)
        LOG_INFO(kModule, "yes");
    else
        LOG_INFO(kModule, "no");
    // NOLINTEND(readability-braces-around-statements)
    EXPECT_EQ(m_log.Texts(), (Texts{"yes"}));
}

TEST_F(LogSiteTest, TheModuleNamesAreTheSystemsOwn) {
    EXPECT_STREQ(kLogStorage, "k9eRepl-storage");
    EXPECT_STREQ(kLogIndex, "k9eRepl-storage-idx");
    EXPECT_STREQ(kLogTiming, "***TP***");
}

constexpr int kThreads = 8;
constexpr int kRounds = 200;

TEST(LogSiteThreads, AFreshSiteLogsEveryMessageOnce) {
    const LogCapture log({kModule});
    std::atomic<int> waiting{kThreads};
    RunThreads(kThreads, [&](int) {
        --waiting;
        while (waiting != 0) {
            std::this_thread::yield();
        }
        for (int round = 0; round < kRounds; ++round) {
            LOG_INFO(kModule, "round %d", round);
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(log.Count("round " + std::to_string(round)), static_cast<std::size_t>(kThreads));
    }
}

TEST(LogSiteThreads, ALevelMayChangeWhileASiteIsUsed) {
    const LogCapture log({kModule});
    RunThreads(kThreads, [](int number) {
        for (int round = 0; round < kRounds; ++round) {
            if (number == 0) {
                K9SysSetLogLevel(kModule, round % 2 == 0 ? K9SYS_LOG_OFF : K9SYS_LOG_INFO);
            }
            LOG_INFO(kModule, "text");
        }
    });
    // The level ends at info, so the last message of the thread that sets it is there.
    EXPECT_GE(log.Count("text"), 1U);
    EXPECT_EQ(log.Count("text"), log.Messages().size());
}

}  // namespace
}  // namespace k9erepl::test
