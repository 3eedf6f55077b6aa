// Finding a key's value in a connection string, and trimming.
#include <gtest/gtest.h>

#include <string>

#include "support/params.h"

namespace k9erepl::test {

namespace {

// The value of `key`, or "absent".
std::string Find(const char* connStr, const char* key) {
    u32 length = 77;
    const char* const value = FindParam(connStr, key, &length);
    if (value == nullptr) {
        EXPECT_EQ(length, 0U);
        return "absent";
    }
    return {value, length};
}

}  // namespace

TEST(FindParam, FindsEachItem) {
    EXPECT_EQ(Find("a=1;b=2", "a"), "1");
    EXPECT_EQ(Find("a=1;b=2", "b"), "2");
    EXPECT_EQ(Find("a=1,b=2;c=3", "b"), "2");
    EXPECT_EQ(Find("a=1,b=2;c=3", "c"), "3");
}

TEST(FindParam, BlanksAroundTheWantedKeyDoNotCount) {
    EXPECT_EQ(Find("a=1;b=2", " b "), "2");
    EXPECT_EQ(Find("a=1;b=2", "\tb"), "2");
}

TEST(FindParam, CaseCounts) {
    EXPECT_EQ(Find("a=1;b=2", "B"), "absent");
}

TEST(FindParam, BlanksBeforeAValueDoNotCountAndTrailingOnesDo) {
    EXPECT_EQ(Find(" b = 7 ;c=1", "b"), "7 ");
    EXPECT_EQ(Find("\tb\t=\t7\t;c=1", "b"), "7\t");
}

TEST(FindParam, AKeyThatOnlyBeginsLikeTheWantedOneIsAnother) {
    EXPECT_EQ(Find("file_size_delta=5", "file"), "absent");
    EXPECT_EQ(Find("file_size_delta=5;file=x", "file"), "x");
}

TEST(FindParam, AKeyWithoutAValueIsFoundEmpty) {
    EXPECT_EQ(Find("x;y=1", "x"), "");
    EXPECT_EQ(Find("x ,y=1", "x"), "");
    EXPECT_EQ(Find("x=;y=1", "x"), "");
}

TEST(FindParam, AKeyWithoutAValuePointsAtItsSeparator) {
    const char* const connStr = "x;y=1";
    u32 length = 77;
    EXPECT_EQ(FindParam(connStr, "x", &length), connStr + 1);
    EXPECT_EQ(length, 0U);
}

TEST(FindParam, ABareKeyAtTheEndIsAbsent) {
    EXPECT_EQ(Find("y=1;x", "x"), "absent");
    EXPECT_EQ(Find("x ", "x"), "absent");
}

TEST(FindParam, TheFirstOfSeveralItemsWins) {
    EXPECT_EQ(Find("a=1,a=2", "a"), "1");
}

TEST(FindParam, AnEmptyConnectionStringHasNoKey) {
    EXPECT_EQ(Find("", "a"), "absent");
    EXPECT_EQ(Find(" \t", "a"), "absent");
}

TEST(FindParam, AnEmptyKeyIsAbsent) {
    EXPECT_EQ(Find("a=1;=2", ""), "absent");
    EXPECT_EQ(Find("a=1;=2", "  "), "absent");
}

TEST(FindParam, AValueMayHoldAnEqualsSign) {
    EXPECT_EQ(Find("k=a=b", "k"), "a=b");
}

TEST(FindParam, AValueIsNoKey) {
    EXPECT_EQ(Find("a=b;c=b=1", "b"), "absent");
}

TEST(FindParam, EmptyItemsAreSkipped) {
    EXPECT_EQ(Find(";;,a=1;,", "a"), "1");
    EXPECT_EQ(Find(";;,a=1;,", "b"), "absent");
}

TEST(FindParam, AValueRunsToTheEndOfTheString) {
    EXPECT_EQ(Find("file=/tmp/some file.dat", "file"), "/tmp/some file.dat");
}

TEST(FindParam, TellsTheStartOfTheItem) {
    const char* const connStr = "a=1; b = 7 ;c=1";
    u32 length = 0;
    const char* item = nullptr;
    FindParam(connStr, "b", &length, &item);
    EXPECT_EQ(item, connStr + 4);
}

TEST(GetParam, CopiesTheValueOrNothing) {
    std::string value = "before";
    GetParam("a=1;b=two;c", "b", value);
    EXPECT_EQ(value, "two");
    GetParam("a=1;b=two;c", "x", value);
    EXPECT_EQ(value, "");
}

TEST(GetParam, ACopyIsNoLongerThanTheValue) {
    std::string value;
    GetParam("a=;b=2", "a", value);
    EXPECT_EQ(value, "");
}

TEST(Trim, SkipsBlanksOnBothSides) {
    const char* const text = " \t a b \t";
    u32 length = 0;
    EXPECT_EQ(Trim(text, &length), text + 3);
    EXPECT_EQ(length, 3U);
}

TEST(Trim, OfBlanksOnlyIsEmpty) {
    const char* const text = " \t ";
    u32 length = 77;
    EXPECT_EQ(Trim(text, &length), text + 3);
    EXPECT_EQ(length, 0U);
}

TEST(TrimRight, DropsTrailingCharactersOfTheSet) {
    EXPECT_EQ(TrimRight("a,b;,;", ";,"), 3U);
    EXPECT_EQ(TrimRight("abc", ";,"), 3U);
    EXPECT_EQ(TrimRight(";;", ";,"), 0U);
    EXPECT_EQ(TrimRight("", ";,"), 0U);
}

}  // namespace k9erepl::test
