// One call site, many threads, and a level that changes meanwhile.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/log.h"
#include "support/log_capture.h"
#include "support/run_threads.h"

namespace k9erepl::test {

namespace {

constexpr const char* kSharedModule = "log site threads test";
constexpr int kThreads = 8;
constexpr int kRounds = 200;

}  // namespace

TEST(LogSiteThreads, AFreshSiteLogsEveryMessageOnce) {
    const LogCapture log({kSharedModule});
    std::atomic<int> waiting{kThreads};
    RunThreads(kThreads, [&](int) {
        --waiting;
        while (waiting != 0) {
            std::this_thread::yield();
        }
        for (int round = 0; round < kRounds; ++round) {
            LOG_INFO(kSharedModule, "round %d", round);
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_EQ(log.Count("round " + std::to_string(round)), static_cast<std::size_t>(kThreads));
    }
}

TEST(LogSiteThreads, ALevelMayChangeWhileASiteIsUsed) {
    const LogCapture log({kSharedModule});
    RunThreads(kThreads, [](int number) {
        for (int round = 0; round < kRounds; ++round) {
            if (number == 0) {
                K9SysSetLogLevel(kSharedModule, round % 2 == 0 ? K9SYS_LOG_OFF : K9SYS_LOG_INFO);
            }
            LOG_INFO(kSharedModule, "text");
        }
    });
    // The level ends at info, so the last message of the thread that sets it is there.
    EXPECT_GE(log.Count("text"), 1U);
    EXPECT_EQ(log.Count("text"), log.Messages().size());
}

}  // namespace k9erepl::test
