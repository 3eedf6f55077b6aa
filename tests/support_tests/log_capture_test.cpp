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

TEST(LogCapture, CollectsWhatIsLoggedUntilItIsCleared) {
    LogCapture log;
    LogOneOfEach();
    EXPECT_EQ(log.Texts(), (Texts{"an info", "a warning", "an error"}));
    EXPECT_EQ(log.Texts(K9SYS_LOG_WARNING), (Texts{"a warning"}));
    EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "an error"));
    EXPECT_FALSE(log.Has(K9SYS_LOG_WARNING, "an error"));
    EXPECT_FALSE(log.Has("an err"));
    EXPECT_EQ(log.CountContaining("an "), 2U);
    EXPECT_EQ(log.CodeOf("an error"), 27U);
    EXPECT_EQ(log.CodeOf("nothing"), std::nullopt);
    std::ostringstream out;
    out << log;
    EXPECT_EQ(
        out.str(),
        "logged:\n  info a: an info\n  warning b: a warning\n  error a: an error (code 27)\n");
    log.Clear();
    EXPECT_EQ(log.Texts(), Texts());
}

TEST(LogCapture, AnInnerCaptureTakesTheMessagesOfItsModulesWhileItLives) {
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

}  // namespace
}  // namespace k9erepl::test
