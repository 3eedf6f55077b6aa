// What the other tests rely on when they compare log texts.
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace k9erepl::test {

namespace {

using Texts = std::vector<std::string>;

void LogOneOfEach() {
    K9LogInfoEx("a", "an info");
    K9LogWarningEx("b", "a warning");
    K9LogErrorWithCodeEx(27, "a", "an error");
}

}  // namespace

TEST(LogCapture, CollectsAllLevelsOfAllModules) {
    const LogCapture log;
    LogOneOfEach();
    EXPECT_EQ(log.Messages(), (std::vector<LoggedMessage>{{K9SYS_LOG_INFO, "a", "an info", 0},
                                                          {K9SYS_LOG_WARNING, "b", "a warning", 0},
                                                          {K9SYS_LOG_ERROR, "a", "an error", 27}}));
}

TEST(LogCapture, CollectsOnlyTheModulesItIsTold) {
    const LogCapture log({"b"});
    LogOneOfEach();
    EXPECT_EQ(log.Texts(), (Texts{"a warning"}));
}

TEST(LogCapture, FindsExactTexts) {
    const LogCapture log;
    LogOneOfEach();
    EXPECT_TRUE(log.Has("an error"));
    EXPECT_FALSE(log.Has("an err"));
    EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "an error"));
    EXPECT_FALSE(log.Has(K9SYS_LOG_WARNING, "an error"));
}

TEST(LogCapture, CountsTextsAndParts) {
    const LogCapture log;
    LogOneOfEach();
    LogOneOfEach();
    EXPECT_EQ(log.Count("an info"), 2U);
    EXPECT_EQ(log.Count("info"), 0U);
    EXPECT_EQ(log.CountContaining("an "), 4U);
}

TEST(LogCapture, TellsTheCodeOfAText) {
    const LogCapture log;
    LogOneOfEach();
    EXPECT_EQ(log.CodeOf("an error"), 27U);
    EXPECT_EQ(log.CodeOf("an info"), 0U);
    EXPECT_EQ(log.CodeOf("nothing"), std::nullopt);
}

TEST(LogCapture, TellsTextsOfALevel) {
    const LogCapture log;
    LogOneOfEach();
    EXPECT_EQ(log.Texts(K9SYS_LOG_WARNING), (Texts{"a warning"}));
    EXPECT_EQ(log.Texts(), (Texts{"an info", "a warning", "an error"}));
}

TEST(LogCapture, ForgetsWhenCleared) {
    LogCapture log;
    LogOneOfEach();
    log.Clear();
    EXPECT_EQ(log.Texts(), Texts());
}

TEST(LogCapture, AnInnerCaptureTakesTheMessagesWhileItLives) {
    const LogCapture outer({"a"});
    {
        const LogCapture inner({"b"});
        LogOneOfEach();
        EXPECT_EQ(inner.Texts(), (Texts{"a warning"}));
    }
    EXPECT_EQ(outer.Texts(), Texts());
    LogOneOfEach();
    EXPECT_EQ(outer.Texts(), (Texts{"an info", "an error"}));
}

TEST(LogCapture, PrintsWhatWasLogged) {
    const LogCapture log;
    LogOneOfEach();
    std::ostringstream out;
    out << log;
    EXPECT_EQ(
        out.str(),
        "logged:\n  info a: an info\n  warning b: a warning\n  error a: an error (code 27)\n");
}

}  // namespace k9erepl::test
