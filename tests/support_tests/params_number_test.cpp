// Values of a connection string as numbers.
#include <gtest/gtest.h>

#include <limits>

#include "support/params.h"

namespace k9erepl::test {

namespace {

constexpr i32 kMinInt = std::numeric_limits<i32>::min();
constexpr i32 kMaxInt = std::numeric_limits<i32>::max();

}  // namespace

TEST(ToInt, ReadsDecimalNumbers) {
    EXPECT_EQ(ToInt("0"), 0);
    EXPECT_EQ(ToInt("42"), 42);
    EXPECT_EQ(ToInt("-42"), -42);
    EXPECT_EQ(ToInt("+42"), 42);
    EXPECT_EQ(ToInt("007"), 7);
}

TEST(ToInt, SkipsWhiteSpaceAndIgnoresWhatFollows) {
    EXPECT_EQ(ToInt(" \t\n\v\f\r7 "), 7);
    EXPECT_EQ(ToInt("7;8"), 7);
    EXPECT_EQ(ToInt("12abc"), 12);
    EXPECT_EQ(ToInt("1.9"), 1);
}

TEST(ToInt, WithoutDigitsIsZero) {
    for (const char* text : {"", " ", "abc", "-", "+", "+-1", "- 1", "\xB2"}) {
        EXPECT_EQ(ToInt(text), 0) << text;
    }
}

TEST(ToInt, ReadsTheLimitsExactly) {
    EXPECT_EQ(ToInt("2147483647"), kMaxInt);
    EXPECT_EQ(ToInt("-2147483648"), kMinInt);
}

TEST(ToInt, SaturatesAtTheLimits) {
    EXPECT_EQ(ToInt("2147483648"), kMaxInt);
    EXPECT_EQ(ToInt("-2147483649"), kMinInt);
    EXPECT_EQ(ToInt("99999999999999999999999999999999"), kMaxInt);
    EXPECT_EQ(ToInt("-99999999999999999999999999999999"), kMinInt);
}

TEST(ToUInt, ReadsUpToItsLimitExactly) {
    EXPECT_EQ(ToUInt("2147483648"), 2147483648U);
    EXPECT_EQ(ToUInt("4294967295"), 4294967295U);
}

TEST(ToUInt, SaturatesAtItsLimits) {
    EXPECT_EQ(ToUInt("4294967296"), 4294967295U);
    EXPECT_EQ(ToUInt("99999999999999999999999999999999"), 4294967295U);
    EXPECT_EQ(ToUInt("-1"), 0U);
    EXPECT_EQ(ToUInt("-0"), 0U);
}

TEST(GetParamInt, ReadsTheNumberOfAKey) {
    i32 value = 0;
    EXPECT_TRUE(GetParamInt("a=1;b=-25,c=3", "b", &value));
    EXPECT_EQ(value, -25);
}

TEST(GetParamInt, ABlankBehindTheNumberDoesNotMatter) {
    i32 value = 0;
    EXPECT_TRUE(GetParamInt(" b = 7 ;c=1", "b", &value));
    EXPECT_EQ(value, 7);
}

TEST(GetParamInt, StopsAtTheSeparator) {
    i32 value = 0;
    EXPECT_TRUE(GetParamInt("a=1,2", "a", &value));
    EXPECT_EQ(value, 1);
}

TEST(GetParamInt, AnAbsentOrEmptyValueChangesNothing) {
    i32 value = 77;
    EXPECT_FALSE(GetParamInt("a=1;b=2", "c", &value));
    EXPECT_FALSE(GetParamInt("a=;b=2", "a", &value));
    EXPECT_FALSE(GetParamInt("a= ;b=2", "a", &value));
    EXPECT_FALSE(GetParamInt("x;y=1", "x", &value));
    EXPECT_FALSE(GetParamInt("", "x", &value));
    EXPECT_EQ(value, 77);
}

TEST(GetParamInt, AValueThatIsNoNumberIsZero) {
    i32 value = 77;
    EXPECT_TRUE(GetParamInt("a=yes", "a", &value));
    EXPECT_EQ(value, 0);
}

TEST(GetParamInt, SaturatesAtTheLimits) {
    i32 value = 0;
    EXPECT_TRUE(GetParamInt("a=4294967296", "a", &value));
    EXPECT_EQ(value, kMaxInt);
}

TEST(GetParamUInt, ReadsAndSaturates) {
    u32 value = 0;
    EXPECT_TRUE(GetParamUInt("a=4000000000", "a", &value));
    EXPECT_EQ(value, 4000000000U);
    EXPECT_TRUE(GetParamUInt("a=-5", "a", &value));
    EXPECT_EQ(value, 0U);
}

TEST(GetParamUInt, AnAbsentOrEmptyValueChangesNothing) {
    u32 value = 77;
    EXPECT_FALSE(GetParamUInt("a=1;b=2", "c", &value));
    EXPECT_FALSE(GetParamUInt("a=;b=2", "a", &value));
    EXPECT_EQ(value, 77U);
}

}  // namespace k9erepl::test
