// Which messages are printed: levels of all modules, of single ones, and lists of levels.
#include "k9sys/sink_fixture.h"

namespace k9erepl::test {

namespace {

constexpr std::uint32_t kBadLevels = 2;

class LogLevels : public SinkFixture {
  protected:
    // The levels at which `module` prints, as "ewi".
    std::string Printing(const char* module) {
        m_received.clear();
        K9LogErrorEx(module, "e");
        K9LogWarningEx(module, "w");
        K9LogInfoEx(module, "i");
        std::string letters;
        const std::string start = std::string(" ") + module + " ";
        for (const std::string& line : m_received) {
            letters += line.substr(1 + start.size(), 1);
        }
        return letters;
    }
};

}  // namespace

TEST_F(LogLevels, EachLevelIncludesTheOnesBefore) {
    EXPECT_EQ(Printing("a"), "");
    K9SysSetLogLevel(nullptr, K9SYS_LOG_ERROR);
    EXPECT_EQ(Printing("a"), "e");
    K9SysSetLogLevel(nullptr, K9SYS_LOG_WARNING);
    EXPECT_EQ(Printing("a"), "ew");
    K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO);
    EXPECT_EQ(Printing("a"), "ewi");
}

TEST_F(LogLevels, AModuleHasALevelOfItsOwn) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_ERROR);
    K9SysSetLogLevel("own", K9SYS_LOG_INFO);
    EXPECT_EQ(Printing("own"), "ewi");
    EXPECT_EQ(Printing("other"), "e");
    K9SysSetLogLevel("own", K9SYS_LOG_OFF);
    EXPECT_EQ(Printing("own"), "");
}

TEST_F(LogLevels, ALevelForAllForgetsThoseOfSingleModules) {
    K9SysSetLogLevel("own", K9SYS_LOG_INFO);
    K9SysSetLogLevel(nullptr, K9SYS_LOG_WARNING);
    EXPECT_EQ(Printing("own"), "ew");
}

TEST_F(LogLevels, AModuleThatIsNewTakesTheDefault) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_WARNING);
    EXPECT_EQ(Printing("a module that nothing has named before"), "ew");
}

TEST_F(LogLevels, AModuleNameThatBeginsWithAnotherIsAnotherModule) {
    K9SysSetLogLevel("k9eRepl-storage", K9SYS_LOG_INFO);
    EXPECT_EQ(Printing("k9eRepl-storage-idx"), "");
}

TEST_F(LogLevels, AListOfOneWordIsTheDefault) {
    EXPECT_EQ(K9SysSetLogLevels("info"), 0U);
    EXPECT_EQ(Printing("a"), "ewi");
    EXPECT_EQ(K9SysSetLogLevels("off"), 0U);
    EXPECT_EQ(Printing("a"), "");
}

TEST_F(LogLevels, AListOfModulesLeavesTheOthersAtError) {
    EXPECT_EQ(K9SysSetLogLevels("k9eRepl-storage=info,***TP***=warning"), 0U);
    EXPECT_EQ(Printing("k9eRepl-storage"), "ewi");
    EXPECT_EQ(Printing("***TP***"), "ew");
    EXPECT_EQ(Printing("other"), "e");
}

TEST_F(LogLevels, AListMixesDefaultAndModulesInAnyOrder) {
    EXPECT_EQ(K9SysSetLogLevels("a=off,warning,b=info"), 0U);
    EXPECT_EQ(Printing("a"), "");
    EXPECT_EQ(Printing("b"), "ewi");
    EXPECT_EQ(Printing("other"), "ew");
}

TEST_F(LogLevels, AListReplacesWhatWasSetBefore) {
    K9SysSetLogLevel("a", K9SYS_LOG_INFO);
    EXPECT_EQ(K9SysSetLogLevels("b=info"), 0U);
    EXPECT_EQ(Printing("a"), "e");
}

TEST_F(LogLevels, BlanksAndEmptyItemsOfAListDoNotCount) {
    EXPECT_EQ(K9SysSetLogLevels(" , a = info ,, warning ,"), 0U);
    EXPECT_EQ(Printing("a"), "ewi");
    EXPECT_EQ(Printing("b"), "ew");
}

TEST_F(LogLevels, TheLastOfSeveralItemsHolds) {
    EXPECT_EQ(K9SysSetLogLevels("a=off,a=info,off,warning"), 0U);
    EXPECT_EQ(Printing("a"), "ewi");
    EXPECT_EQ(Printing("b"), "ew");
}

TEST_F(LogLevels, AnEmptyListMeansErrors) {
    EXPECT_EQ(K9SysSetLogLevels(""), 0U);
    EXPECT_EQ(Printing("a"), "e");
}

TEST_F(LogLevels, AModuleNameMayHoldAnEqualsSign) {
    EXPECT_EQ(K9SysSetLogLevels("a=b=info"), 0U);
    EXPECT_EQ(Printing("a=b"), "ewi");
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

}  // namespace k9erepl::test
