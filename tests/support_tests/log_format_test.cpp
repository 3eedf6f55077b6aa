// The compile-time check of log statements, asked at run time with many formats.
#include "support/log_format.h"

#include <gtest/gtest.h>

#include <string_view>

namespace k9erepl::test {
namespace {

enum class Colour : u8 { kRed };

// Whether a log statement with this format and these arguments would compile.
template <typename... Args>
bool Fits(std::string_view format, const Args&... args) {
    return decltype(LogArgsOf("", args...))::Fit(format);
}

static_assert(decltype(LogArgsOf("", 1, "text"))::Fit("%d %s"));
static_assert(!decltype(LogArgsOf("", 1))::Fit("%s"));

constexpr i32 kI32 = 0;
constexpr u32 kU32 = 0;
constexpr i64 kI64 = 0;
constexpr u64 kU64 = 0;
constexpr std::size_t kSize = 0;
constexpr const char* kText = "";
constexpr void* kPointer = nullptr;

TEST(LogFormat, ArgumentsFitInNumberAndOrder) {
    EXPECT_TRUE(Fits(""));
    EXPECT_TRUE(Fits("Flush"));
    EXPECT_FALSE(Fits("Flush", kI32));
    EXPECT_TRUE(Fits("100%%"));
    EXPECT_TRUE(Fits("%d%%", kI32));
    EXPECT_FALSE(Fits("%d %d", kI32));
    EXPECT_FALSE(Fits("%d", kI32, kI32));
    EXPECT_TRUE(Fits("%s;rev %I64d; size %P", kText, kI64, kSize));
    EXPECT_FALSE(Fits("%s;rev %I64d; size %P", kText, kSize, kI64));
}

TEST(LogFormat, DTakes32BitsOfEitherSign) {
    EXPECT_TRUE(Fits("%d %d", kI32, kU32));
    EXPECT_FALSE(Fits("%d", kI64));
    EXPECT_FALSE(Fits("%d", kU64));
    EXPECT_FALSE(Fits("%d", kText));
}

TEST(LogFormat, UnsignedLettersTakeUnsigned32Bits) {
    for (const char* format : {"%u", "%X", "%r", "%R"}) {
        EXPECT_TRUE(Fits(format, kU32)) << format;
        EXPECT_FALSE(Fits(format, kI32)) << format;
        EXPECT_FALSE(Fits(format, kU64)) << format;
    }
}

TEST(LogFormat, SmallIntegersArePassedAs32Bits) {
    EXPECT_TRUE(Fits("%u %u %d %u", u8{1}, u16{1}, true, false));
    EXPECT_FALSE(Fits("%I64u", u16{1}));
    EXPECT_FALSE(Fits("%u", Colour::kRed)) << "an enumeration needs a cast";
}

TEST(LogFormat, PrefixesTake64BitsAndPASize) {
    EXPECT_TRUE(Fits("%I64d %I64u %llu %P", kI64, kU64, kU64, kSize));
    EXPECT_FALSE(Fits("%I64d", kU64));
    EXPECT_FALSE(Fits("%I64d", kI32));
    EXPECT_FALSE(Fits("%llu", kI64));
    EXPECT_FALSE(Fits("%I64u", kU32));
    EXPECT_FALSE(Fits("%P", kI64));
    EXPECT_FALSE(Fits("%P", kI32));
}

TEST(LogFormat, TextsPointersAndFloatingPointHaveTheirLetters) {
    char buffer[4] = "abc";
    EXPECT_TRUE(Fits("%s %s %s", kText, "literal", buffer));
    EXPECT_FALSE(Fits("%s", kPointer));
    EXPECT_FALSE(Fits("%s", std::string_view("x")));
    EXPECT_TRUE(Fits("%p %p", kPointer, kText));
    EXPECT_FALSE(Fits("%p", kU64));
    EXPECT_TRUE(Fits("%.2f %f", 1.0, 1.0F));
    EXPECT_FALSE(Fits("%f", kI32));
}

TEST(LogFormat, FlagsWidthAndPrecisionMayStandBeforeAndStarsTakeInts) {
    EXPECT_TRUE(Fits("%-08.3I64d|%+5d|%# X|%10s", kI64, kI32, kU32, kText));
    EXPECT_TRUE(Fits("%*.*f", kI32, kI32, 1.0));
    EXPECT_FALSE(Fits("%*d", kI32));
    EXPECT_FALSE(Fits("%*d", kU64, kI32));
}

TEST(LogFormat, DirectivesThatTheSystemLibraryLacksDoNotFit) {
    for (const char* format : {"%q", "%ld", "%zu", "%I32d", "%n", "%"}) {
        EXPECT_FALSE(Fits(format, kI32)) << format;
        EXPECT_FALSE(Fits(format, kI64)) << format;
        EXPECT_FALSE(Fits(format)) << format;
    }
}

}  // namespace
}  // namespace k9erepl::test
