// Settings that are "yes" or "no".
#include "support/yes_no.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <string>
#include <vector>

#include "support/log_capture.h"

namespace k9erepl::test {

namespace {

using Texts = std::vector<std::string>;

TEST(YesNoSetting, OnlyTheBeginningOfItsValueCounts) {
    const LogCapture log;
    for (const char* connStr : {"key=yes", "file=a; key = yes please", "key=yesterday"}) {
        YesNo setting;
        EXPECT_EQ(ReadYesNo(connStr, "key", &setting), RC_OK) << connStr;
        EXPECT_TRUE(setting.given && setting.yes) << connStr;
    }
    for (const char* connStr : {"key=no", "key=no;key=yes", "key=nobody"}) {
        YesNo setting;
        EXPECT_EQ(ReadYesNo(connStr, "key", &setting), RC_OK) << connStr;
        EXPECT_TRUE(setting.given && !setting.yes) << connStr;
    }
    EXPECT_EQ(log.Texts(), Texts());
}

TEST(YesNoSetting, IsNotGivenWithoutAValue) {
    for (const char* connStr : {"", "key", "key=", "key=;key=yes", "other=yes"}) {
        YesNo setting;
        EXPECT_EQ(ReadYesNo(connStr, "key", &setting), RC_OK) << connStr;
        EXPECT_FALSE(setting.given || setting.yes) << connStr;
    }
}

TEST(YesNoSetting, RefusesEveryOtherWord) {
    for (const std::string word : {"Yes", "NO", "1", "true", "y"}) {
        const LogCapture log;
        YesNo setting;
        EXPECT_EQ(ReadYesNo(("key=" + word).c_str(), "key", &setting), RC_INVALID_ARG);
        EXPECT_FALSE(setting.yes);
        EXPECT_EQ(log.Texts(K9SYS_LOG_ERROR), Texts({"Unknown key value (" + word + ")"}));
        EXPECT_EQ(log.CodeOf("Unknown key value (" + word + ")"), RC_INVALID_ARG);
    }
}

TEST(YesNoSetting, IsLoggedOnlyWhenItIsGiven) {
    const LogCapture log;
    LogYesNo("key", {.given = true, .yes = true});
    LogYesNo("key", {.given = true, .yes = false});
    LogYesNo("key", {});
    EXPECT_EQ(log.Texts(), Texts({"Use key yes", "Use key no"}));
}

}  // namespace

}  // namespace k9erepl::test
