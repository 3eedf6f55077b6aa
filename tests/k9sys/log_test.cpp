// Messages on their way to the sink: which levels are printed, the flags of the registering
// variants, what a sink receives and when, and all of it on many threads.
#include <atomic>
#include <memory>
#include <set>
#include <thread>

#include "k9sys/stand_in_fixture.h"
#include "support/run_threads.h"

namespace k9erepl::test {
namespace {

constexpr std::uint32_t kBadLevels = 2;

class LogLevels : public SinkFixture {
  protected:
    // The levels at which `module` prints, as "ewi".
    std::string Printing(const std::string& module) {
        m_received.clear();
        K9LogErrorEx(module.c_str(), "e");
        K9LogWarningEx(module.c_str(), "w");
        K9LogInfoEx(module.c_str(), "i");
        std::string letters;
        for (const std::string& line : m_received) {
            letters += line.substr(3 + module.size(), 1);
        }
        return letters;
    }
};

TEST_F(LogLevels, EachLevelIncludesTheOnesBefore) {
    EXPECT_EQ(Printing("a"), "");
    K9SysSetLogLevel(nullptr, K9SYS_LOG_ERROR);
    EXPECT_EQ(Printing("a"), "e");
    K9SysSetLogLevel(nullptr, K9SYS_LOG_WARNING);
    EXPECT_EQ(Printing("a"), "ew");
    EXPECT_EQ(Printing("a module that nothing has named before"), "ew");
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    EXPECT_EQ(Printing("a"), "ewi");
}

TEST_F(LogLevels, AModuleHasALevelOfItsOwnUntilOneIsSetForAll) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_ERROR);
    K9SysSetLogLevel("own", K9SYS_LOG_INFO);
    EXPECT_EQ(Printing("own"), "ewi");
    EXPECT_EQ(Printing("own-idx"), "e") << "only the name's beginning is the same";
    K9SysSetLogLevel("own", K9SYS_LOG_OFF);
    EXPECT_EQ(Printing("own"), "");
    K9SysSetLogLevel(nullptr, K9SYS_LOG_WARNING);
    EXPECT_EQ(Printing("own"), "ew");
}

TEST_F(LogLevels, AListReplacesWhatWasSetBefore) {
    const struct {
        const char* list;
        Lines printing;  // "module letters"
    } lists[] = {
        {"info", {"a ewi"}},
        {"off", {"a "}},
        {"", {"a e"}},
        {"k9eRepl-storage=info,***TP***=warning",
         {"k9eRepl-storage ewi", "***TP*** ew", "other e"}},
        {"a=off,warning,b=info", {"a ", "b ewi", "other ew"}},
        {" , a = info ,, warning ,", {"a ewi", "b ew"}},
        {"a=off,a=info,off,warning", {"a ewi", "b ew"}},
        {"b=info", {"a e", "b ewi"}},
        {"a=b=info", {"a=b ewi"}},
    };
    for (const auto& [list, printing] : lists) {
        EXPECT_EQ(K9SysSetLogLevels(list), 0U) << list;
        for (const std::string& line : printing) {
            const std::string module = line.substr(0, line.find(' '));
            EXPECT_EQ(module + " " + Printing(module), line) << list;
        }
    }
}

TEST_F(LogLevels, AListThatIsNotUnderstoodChangesNothing) {
    K9SysSetLogLevel("a", K9SYS_LOG_WARNING);
    for (const char* list : {"loud", "INFO", "a=loud", "a=", "=info", "b=info,a=x"}) {
        EXPECT_EQ(K9SysSetLogLevels(list), kBadLevels) << list;
    }
    EXPECT_EQ(K9SysSetLogLevels(nullptr), kBadLevels);
    EXPECT_EQ(Printing("a"), "ew");
    EXPECT_EQ(Printing("b"), "");
}

using LogFlags = SinkFixture;

TEST_F(LogFlags, EachModuleHasOneForEachLevel) {
    K9LogFlag* const info = trcheckEx_K9LogInfoEx_("a", "x");
    K9LogFlag* const warning = trcheckEx_K9LogWarningEx_("a", "x");
    K9LogFlag* const error = trcheckEx_K9LogErrorEx_("a", "x");
    EXPECT_EQ(trcheckEx_K9LogInfoEx_("a", "other text"), info);
    EXPECT_EQ(trcheckEx_K9LogInfoEx_0("a", "x"), info);
    EXPECT_EQ(trcheckEx_K9LogWarningEx_("a", "x"), warning);
    EXPECT_EQ(trcheckEx_K9LogErrorWithCodeEx_(1, "a", "x"), error);
    EXPECT_EQ(trcheckEx_K9LogErrorWithCodeEx_(2, "a", "x"), error);
    EXPECT_EQ(std::set({info, warning, error, trcheckEx_K9LogInfoEx_("b", "x")}).size(), 4U);
    EXPECT_EQ(m_received, Lines()) << "all levels are off";
}

TEST_F(LogFlags, ANullModuleHasOneToo) {
    K9LogFlag* const flag = trcheckEx_K9LogInfoEx_(nullptr, "x");
    ASSERT_NE(flag, nullptr);
    EXPECT_EQ(flag, trcheckEx_K9LogInfoEx_("", "x"));
}

TEST_F(LogFlags, AFlagStaysWhereItIsWhenModulesAndLevelsCome) {
    K9LogFlag* const flag = trcheckEx_K9LogInfoEx_("a", "x");
    for (int i = 0; i < 1000; ++i) {
        trcheckEx_K9LogInfoEx_(std::to_string(i).c_str(), "x");
    }
    K9SysSetLogLevels("a=info,b=warning");
    EXPECT_EQ(trcheckEx_K9LogInfoEx_("a", "x"), flag);
}

TEST_F(LogFlags, AFlagFollowsTheLevelOfItsModule) {
    K9LogFlag* const flag = trcheckEx_K9LogWarningEx_("a", "x");
    EXPECT_EQ(*flag, 0);
    K9SysSetLogLevel("a", K9SYS_LOG_WARNING);
    EXPECT_NE(*flag, 0);
    K9SysSetLogLevel("b", K9SYS_LOG_OFF);
    EXPECT_NE(*flag, 0);
    K9SysSetLogLevels("a=error");
    EXPECT_EQ(*flag, 0);
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    EXPECT_NE(*flag, 0);
}

TEST_F(LogFlags, RegisteringLogsWhenTheLevelIsEnabled) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    trcheckEx_K9LogInfoEx_("a", "info %d", 1);
    trcheckEx_K9LogInfoEx_0("a", "info %d", 2);
    trcheckEx_K9LogWarningEx_("a", "warning %s", "3");
    trcheckEx_K9LogErrorEx_("a", "error %I64d", 4LL);
    trcheckEx_K9LogErrorWithCodeEx_(27, "a", "error %P", std::size_t{5});
    EXPECT_EQ(m_received, (Lines{"3 a info 1 0", "3 a info 2 0", "2 a warning 3 0", "1 a error 4 0",
                                 "1 a error 5 27"}));
}

class LogSink : public SinkFixture {
  protected:
    LogSink() { K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO); }
};

void K9SYS_CALL LogOnceMore(K9SysLogLevel, const char* module, const char*, std::uint32_t,
                            void* context) {
    ++*static_cast<int*>(context);
    K9LogErrorEx(module, "from inside the sink");
}

TEST_F(LogSink, ReceivesLevelModuleTextAndCode) {
    K9LogInfoEx("a", "info %d", 1);
    K9LogWarningEx("b", "warning %s", "text");
    K9LogErrorEx("c", "error %I64d", -3LL);
    K9LogErrorWithCodeEx(0x8011, "d", "error %P", std::size_t{4});
    K9LogInfoEx("a", "two\nlines");
    K9LogInfoEx(nullptr, "text");
    K9LogInfoEx("a", nullptr);
    EXPECT_EQ(m_received, (Lines{"3 a info 1 0", "2 b warning text 0", "1 c error -3 0",
                                 "1 d error 4 32785", "3 a two\nlines 0", "3  text 0", "3 a  0"}));
}

TEST_F(LogSink, ReceivesMessagesOfUpToAMegabyteWhole) {
    constexpr std::size_t kMost = 1024 * 1024 - 1;
    for (const std::size_t size : {1022U, 1023U, 1024U, 100'000U, 2'000'000U}) {
        const std::string text(size, 'x');
        m_received.clear();
        K9LogInfoEx("a", "%s", text.c_str());
        EXPECT_EQ(m_received, (Lines{"3 a " + text.substr(0, kMost) + " 0"}));
    }
}

TEST_F(LogSink, IsTheLastOneSetAndWhatItLogsIsDropped) {
    int count = 0;
    K9SysSetLogSink(&LogOnceMore, &count);
    K9LogInfoEx("a", "x");
    K9LogInfoEx("a", "y");
    EXPECT_EQ(count, 2);
    EXPECT_EQ(m_received, Lines());
}

constexpr int kLogThreads = 8;
constexpr int kRounds = 500;

using LogThreads = SinkFixture;

TEST_F(LogThreads, EveryMessageArrivesWholeAndOnce) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    RunThreads(kLogThreads, [](int number) {
        for (int round = 0; round < kRounds; ++round) {
            K9LogInfoEx("a", "thread %d round %d", number, round);
        }
    });
    std::multiset<std::string> expected;
    for (int number = 0; number < kLogThreads; ++number) {
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
        std::vector<K9LogFlag*> flags(kLogThreads);
        RunThreads(kLogThreads, [&](int number) {
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
    RunThreads(kLogThreads, [&](int number) {
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
    EXPECT_EQ(arrived.load() + static_cast<int>(m_received.size()), (kLogThreads - 2) * kRounds);
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

}  // namespace
}  // namespace k9erepl::test
