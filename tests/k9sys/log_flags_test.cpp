// The registering variants: they log like their plain twins, and hand out flags that stay.
#include "k9sys/sink_fixture.h"

namespace k9erepl::test {

namespace {

using LogFlags = SinkFixture;

}  // namespace

TEST_F(LogFlags, RegisteringTwiceGivesTheSameAddress) {
    EXPECT_EQ(trcheckEx_K9LogInfoEx_("a", "x"), trcheckEx_K9LogInfoEx_("a", "other text"));
    EXPECT_EQ(trcheckEx_K9LogWarningEx_("a", "x"), trcheckEx_K9LogWarningEx_("a", "x"));
    EXPECT_EQ(trcheckEx_K9LogErrorEx_("a", "x"), trcheckEx_K9LogErrorEx_("a", "x"));
    EXPECT_EQ(trcheckEx_K9LogErrorWithCodeEx_(1, "a", "x"),
              trcheckEx_K9LogErrorWithCodeEx_(2, "a", "x"));
}

TEST_F(LogFlags, BothInfoVariantsShareAFlag) {
    EXPECT_EQ(trcheckEx_K9LogInfoEx_("a", "x"), trcheckEx_K9LogInfoEx_0("a", "x"));
}

TEST_F(LogFlags, ErrorsWithAndWithoutACodeShareAFlag) {
    EXPECT_EQ(trcheckEx_K9LogErrorEx_("a", "x"), trcheckEx_K9LogErrorWithCodeEx_(1, "a", "x"));
}

TEST_F(LogFlags, LevelsAndModulesHaveFlagsOfTheirOwn) {
    K9LogFlag* const info = trcheckEx_K9LogInfoEx_("a", "x");
    EXPECT_NE(info, trcheckEx_K9LogWarningEx_("a", "x"));
    EXPECT_NE(info, trcheckEx_K9LogErrorEx_("a", "x"));
    EXPECT_NE(info, trcheckEx_K9LogInfoEx_("b", "x"));
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

TEST_F(LogFlags, RegisteringIsSilentWhenTheLevelIsOff) {
    trcheckEx_K9LogInfoEx_("a", "x");
    trcheckEx_K9LogWarningEx_("a", "x");
    trcheckEx_K9LogErrorEx_("a", "x");
    trcheckEx_K9LogErrorWithCodeEx_(1, "a", "x");
    EXPECT_EQ(m_received, Lines());
}

TEST_F(LogFlags, ANullModuleHasAFlagToo) {
    K9LogFlag* const flag = trcheckEx_K9LogInfoEx_(nullptr, "x");
    ASSERT_NE(flag, nullptr);
    EXPECT_EQ(flag, trcheckEx_K9LogInfoEx_("", "x"));
}

}  // namespace k9erepl::test
