// Adding items to a connection string and taking them out.
#include <gtest/gtest.h>

#include <string>

#include "support/params.h"

namespace k9erepl::test {

namespace {

// What is left of `connStr`, with the removed value in brackets behind it.
std::string Remove(std::string connStr, const char* key) {
    std::string removed = "before";
    RemoveParam(connStr, key, removed);
    return connStr + "[" + removed + "]";
}

}  // namespace

TEST(AppendParam, TheFirstItemNeedsNoSeparator) {
    std::string connStr;
    AppendParam(connStr, "a", "1");
    EXPECT_EQ(connStr, "a=1");
}

TEST(AppendParam, LaterItemsComeBehindASemicolon) {
    std::string connStr = "a=1";
    AppendParam(connStr, "b", "2");
    AppendParam(connStr, "c", "");
    EXPECT_EQ(connStr, "a=1;b=2;c=");
}

TEST(AppendParam, WhatIsAppendedIsFound) {
    std::string connStr = "a=1";
    AppendParam(connStr, "file", "x.dat");
    std::string value;
    GetParam(connStr.c_str(), "file", value);
    EXPECT_EQ(value, "x.dat");
}

TEST(RemoveParam, TakesTheItemAndTheSeparatorBehindIt) {
    EXPECT_EQ(Remove("a=1;b=2,c=3", "a"), "b=2,c=3[1]");
    EXPECT_EQ(Remove("a=1;b=2,c=3", "b"), "a=1;c=3[2]");
}

TEST(RemoveParam, TheLastItemLeavesTheSeparatorBeforeIt) {
    EXPECT_EQ(Remove("a=1;b=2", "b"), "a=1;[2]");
}

TEST(RemoveParam, TheOnlyItemLeavesNothing) {
    EXPECT_EQ(Remove("a=1", "a"), "[1]");
}

TEST(RemoveParam, BlanksOfTheItemGoWithIt) {
    EXPECT_EQ(Remove("a=1; b = 7 ;c=3", "b"), "a=1;c=3[7 ]");
}

TEST(RemoveParam, AKeyWithoutAValueGoesToo) {
    EXPECT_EQ(Remove("a=1;x;b=2", "x"), "a=1;b=2[]");
    EXPECT_EQ(Remove("a=1;x=;b=2", "x"), "a=1;b=2[]");
}

TEST(RemoveParam, OnlyTheFirstOfSeveralGoes) {
    EXPECT_EQ(Remove("a=1;a=2", "a"), "a=2[1]");
}

TEST(RemoveParam, AnAbsentKeyChangesNothing) {
    EXPECT_EQ(Remove("a=1;b=2", "c"), "a=1;b=2[]");
    EXPECT_EQ(Remove("", "c"), "[]");
}

}  // namespace k9erepl::test
