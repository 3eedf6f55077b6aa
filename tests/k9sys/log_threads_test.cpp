// Many threads log, register and change levels at once.
#include <atomic>
#include <memory>
#include <set>
#include <thread>

#include "k9sys/sink_fixture.h"
#include "support/run_threads.h"

namespace k9erepl::test {

namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 500;

using LogThreads = SinkFixture;

}  // namespace

TEST_F(LogThreads, EveryMessageArrivesWholeAndOnce) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    RunThreads(kThreads, [](int number) {
        for (int round = 0; round < kRounds; ++round) {
            K9LogInfoEx("a", "thread %d round %d", number, round);
        }
    });
    std::multiset<std::string> expected;
    for (int number = 0; number < kThreads; ++number) {
        for (int round = 0; round < kRounds; ++round) {
            expected.insert("3 a thread " + std::to_string(number) + " round " +
                            std::to_string(round) + " 0");
        }
    }
    EXPECT_EQ(std::multiset<std::string>(m_received.begin(), m_received.end()), expected);
}

TEST_F(LogThreads, AFreshModuleGetsOneFlagFromAllThreads) {
    for (int round = 0; round < kRounds / 10; ++round) {
        const std::string module = "fresh " + std::to_string(round);
        std::vector<K9LogFlag*> flags(kThreads);
        RunThreads(kThreads, [&](int number) {
            flags[static_cast<std::size_t>(number)] = trcheckEx_K9LogInfoEx_(module.c_str(), "x");
        });
        EXPECT_EQ(std::set<K9LogFlag*>(flags.begin(), flags.end()).size(), 1U);
    }
}

TEST_F(LogThreads, LevelsAndSinksChangeWhileOthersLog) {
    K9SysSetLogLevel("a", K9SYS_LOG_WARNING);
    std::atomic<int> arrived{0};
    const auto sink = [](K9SysLogLevel, const char*, const char*, std::uint32_t, void* context) {
        static_cast<std::atomic<int>*>(context)->fetch_add(1);
    };
    RunThreads(kThreads, [&](int number) {
        for (int round = 0; round < kRounds; ++round) {
            if (number == 0) {
                K9SysSetLogSink(sink, &arrived);
                K9SysSetLogLevel("a", K9SYS_LOG_INFO);
            } else if (number == 1) {
                K9SysSetLogLevels("a=warning");
            } else {
                K9LogWarningEx("a", "warning %d", round);
            }
        }
    });
    EXPECT_EQ(arrived.load() + static_cast<int>(m_received.size()), (kThreads - 2) * kRounds);
}

TEST_F(LogThreads, NoSinkRunsOnceItIsReplaced) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    const auto sink = [](K9SysLogLevel, const char*, const char*, std::uint32_t, void* context) {
        ++*static_cast<int*>(context);
    };
    int lastCount = 0;
    K9SysSetLogSink(sink, &lastCount);
    std::atomic<bool> stop{false};
    std::thread logger([&] {
        while (!stop) {
            K9LogInfoEx("a", "x");
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        const auto count = std::make_unique<int>(0);
        K9SysSetLogSink(sink, count.get());
        K9SysSetLogSink(sink, &lastCount);
        // Nobody else may touch `count` now, nor the memory that it leaves.
        *count = -1;
    }
    stop = true;
    logger.join();
}

}  // namespace k9erepl::test
