// Connection strings: finding a key's value, adding and removing items, numbers and yes or no.
#include "support/params.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/yes_no.h"

namespace k9erepl::test {
namespace {

using Texts = std::vector<std::string>;

constexpr i32 kMinInt = std::numeric_limits<i32>::min();
constexpr i32 kMaxInt = std::numeric_limits<i32>::max();
constexpr u32 kMaxUInt = std::numeric_limits<u32>::max();

TEST(FindParam, FindsTheValueOfTheFirstItemOfThatKey) {
    constexpr const char* kAbsent = "absent";
    const struct {
        const char* connStr;
        const char* key;
        const char* value;
    } cases[] = {
        {"a=1;b=2", "a", "1"},
        {"a=1,b=2;c=3", "b", "2"},
        {"a=1,b=2;c=3", "c", "3"},
        {"a=1,a=2", "a", "1"},
        {";;,a=1;,", "a", "1"},
        {";;,a=1;,", "b", kAbsent},
        // Blanks around the wanted key and before a value do not count, trailing ones do.
        {"a=1;b=2", " b ", "2"},
        {"a=1;b=2", "\tb", "2"},
        {" b = 7 ;c=1", "b", "7 "},
        {"\tb\t=\t7\t;c=1", "b", "7\t"},
        // Case and the whole key count.
        {"a=1;b=2", "B", kAbsent},
        {"file_size_delta=5", "file", kAbsent},
        {"file_size_delta=5;file=x", "file", "x"},
        // A value is no key, may hold "=" and runs to the end of the string.
        {"a=b;c=b=1", "b", kAbsent},
        {"k=a=b", "k", "a=b"},
        {"file=/tmp/some file.dat", "file", "/tmp/some file.dat"},
        // A key without a value is found empty, but not at the end.
        {"x;y=1", "x", ""},
        {"x ,y=1", "x", ""},
        {"x=;y=1", "x", ""},
        {"y=1;x", "x", kAbsent},
        {"x ", "x", kAbsent},
        {"", "a", kAbsent},
        {" \t", "a", kAbsent},
        {"a=1;=2", "", kAbsent},
        {"a=1;=2", "  ", kAbsent},
    };
    for (const auto& [connStr, key, value] : cases) {
        SCOPED_TRACE(std::string("'") + key + "' in '" + connStr + "'");
        u32 length = 77;
        const char* const found = FindParam(connStr, key, &length);
        EXPECT_EQ(found == nullptr ? kAbsent : std::string(found, length), value);
        EXPECT_TRUE(found != nullptr || length == 0);
    }
}

TEST(FindParam, TellsPlaces) {
    const char* const connStr = "a=1; b = 7 ;x;c=1";
    u32 length = 77;
    const char* item = nullptr;
    FindParam(connStr, "b", &length, &item);
    EXPECT_EQ(item, connStr + 4);
    EXPECT_EQ(FindParam(connStr, "x", &length), connStr + 13) << "its separator";
    EXPECT_EQ(length, 0U);
}

TEST(GetParam, CopiesTheValueOrNothing) {
    const std::pair<const char*, const char*> cases[] = {{"b", "two"}, {"x", ""}, {"a", ""}};
    std::string value = "before";
    for (const auto& [key, expected] : cases) {
        GetParam("a=;b=two;c", key, value);
        EXPECT_EQ(value, expected);
    }
}

TEST(Trim, SkipsBlanksOnBothSides) {
    const char* const text = " \t a b \t";
    const char* const blanks = " \t ";
    u32 length = 0;
    EXPECT_EQ(Trim(text, &length), text + 3);
    EXPECT_EQ(length, 3U);
    EXPECT_EQ(Trim(blanks, &length), blanks + 3);
    EXPECT_EQ(length, 0U);
}

TEST(TrimRight, DropsTrailingCharactersOfTheSet) {
    EXPECT_EQ(TrimRight("a,b;,;", ";,"), 3U);
    EXPECT_EQ(TrimRight("abc", ";,"), 3U);
    EXPECT_EQ(TrimRight(";;", ";,"), 0U);
    EXPECT_EQ(TrimRight("", ";,"), 0U);
}

TEST(AppendParam, PutsASemicolonBetweenItems) {
    std::string connStr;
    AppendParam(connStr, "a", "1");
    EXPECT_EQ(connStr, "a=1");
    AppendParam(connStr, "b", "2");
    AppendParam(connStr, "c", "");
    EXPECT_EQ(connStr, "a=1;b=2;c=");
}

TEST(RemoveParam, TakesTheFirstItemAndTheSeparatorBehindIt) {
    const struct {
        const char* connStr;
        const char* key;
        const char* left;
        const char* removed;
    } cases[] = {
        {"a=1;b=2,c=3", "a", "b=2,c=3", "1"},
        {"a=1;b=2,c=3", "b", "a=1;c=3", "2"},
        {"a=1;b=2", "b", "a=1;", "2"},
        {"a=1", "a", "", "1"},
        {"a=1; b = 7 ;c=3", "b", "a=1;c=3", "7 "},
        {"a=1;x;b=2", "x", "a=1;b=2", ""},
        {"a=1;x=;b=2", "x", "a=1;b=2", ""},
        {"a=1;a=2", "a", "a=2", "1"},
        {"a=1;b=2", "c", "a=1;b=2", ""},
        {"", "c", "", ""},
    };
    for (const auto& [connStr, key, left, expected] : cases) {
        std::string changed = connStr;
        std::string removed = "before";
        RemoveParam(changed, key, removed);
        EXPECT_EQ(changed, left) << key << " of " << connStr;
        EXPECT_EQ(removed, expected) << key << " of " << connStr;
    }
}

struct ReadNumber {
    const char* text;
    i32 number;
    u32 unsignedNumber;
};
constexpr ReadNumber kNumbers[] = {
    {"0", 0, 0},
    {"42", 42, 42},
    {"-42", -42, 0},
    {"+42", 42, 42},
    {"007", 7, 7},
    {"-0", 0, 0},
    // White space before the digits and everything behind them does not count.
    {" \t\n\v\f\r7 ", 7, 7},
    {"7;8", 7, 7},
    {"12abc", 12, 12},
    {"1.9", 1, 1},
    // No digits.
    {"", 0, 0},
    {" ", 0, 0},
    {"abc", 0, 0},
    {"-", 0, 0},
    {"+", 0, 0},
    {"+-1", 0, 0},
    {"- 1", 0, 0},
    {"\xB2", 0, 0},
    // The limits, and beyond them.
    {"2147483647", kMaxInt, 2147483647},
    {"2147483648", kMaxInt, 2147483648},
    {"-2147483648", kMinInt, 0},
    {"-2147483649", kMinInt, 0},
    {"4294967295", kMaxInt, kMaxUInt},
    {"4294967296", kMaxInt, kMaxUInt},
    {"99999999999999999999999999999999", kMaxInt, kMaxUInt},
    {"-99999999999999999999999999999999", kMinInt, 0},
};

TEST(Numbers, AreReadAsFarAsTheyGoAndSaturate) {
    for (const auto& [text, number, unsignedNumber] : kNumbers) {
        EXPECT_EQ(ToInt(text), number) << text;
        EXPECT_EQ(ToUInt(text), unsignedNumber) << text;
    }
}

TEST(Numbers, OfAKeyEndAtTheSeparator) {
    const std::pair<const char*, i32> cases[] = {{"b=3,a=-25", -25},
                                                 {" a = 7 ;c=1", 7},
                                                 {"a=1,2", 1},
                                                 {"a=yes", 0},
                                                 {"a=4294967296", kMaxInt}};
    for (const auto& [connStr, number] : cases) {
        i32 value = 77;
        EXPECT_TRUE(GetParamInt(connStr, "a", &value)) << connStr;
        EXPECT_EQ(value, number) << connStr;
    }
    u32 value = 77;
    EXPECT_TRUE(GetParamUInt("a=4000000000", "a", &value));
    EXPECT_EQ(value, 4000000000U);
    EXPECT_TRUE(GetParamUInt("a=-5", "a", &value));
    EXPECT_EQ(value, 0U);
}

TEST(Numbers, OfAKeyThatIsAbsentOrEmptyStayAsTheyWere) {
    i32 number = 77;
    u32 unsignedNumber = 77;
    for (const char* connStr : {"a=1;b=2", "x=;b=2", "x= ;b=2", "x;y=1", ""}) {
        EXPECT_FALSE(GetParamInt(connStr, "x", &number)) << connStr;
        EXPECT_FALSE(GetParamUInt(connStr, "x", &unsignedNumber)) << connStr;
    }
    EXPECT_EQ(number, 77);
    EXPECT_EQ(unsignedNumber, 77U);
}

TEST(YesNoSetting, OnlyTheBeginningOfItsValueCounts) {
    const struct {
        const char* connStr;
        bool given;
        bool yes;
    } cases[] = {{"key=yes", true, true},
                 {"file=a; key = yes please", true, true},
                 {"key=yesterday", true, true},
                 {"key=no", true, false},
                 {"key=no;key=yes", true, false},
                 {"key=nobody", true, false},
                 {"", false, false},
                 {"key", false, false},
                 {"key=", false, false},
                 {"key=;key=yes", false, false},
                 {"other=yes", false, false}};
    const LogCapture log;
    for (const auto& [connStr, given, yes] : cases) {
        YesNo setting;
        EXPECT_EQ(ReadYesNo(connStr, "key", &setting), RC_OK) << connStr;
        EXPECT_EQ(setting.given, given) << connStr;
        EXPECT_EQ(setting.yes, yes) << connStr;
    }
    EXPECT_EQ(log.Texts(), Texts());
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
