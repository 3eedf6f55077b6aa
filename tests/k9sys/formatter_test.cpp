// K9SysSNPrintf: what each directive prints, what flags, width and precision do to it, what is no
// directive, and the end of the buffer.
#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

namespace k9erepl::test {
namespace {

constexpr std::int64_t kMinI64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMaxI64 = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMaxU64 = std::numeric_limits<std::uint64_t>::max();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// The text that `format` makes of `args`, which must have the types that the directives take.
template <typename... Args>
std::string Formatted(const char* format, Args... args) {
    char buffer[4096];
    const std::uint32_t length = K9SysSNPrintf(buffer, sizeof buffer, format, args...);
    EXPECT_EQ(length, std::strlen(buffer)) << "for " << format;
    return buffer;
}

// The same in a buffer of `size` bytes, which the text must fill.
template <std::uint32_t kSize, typename... Args>
std::string Cut(const char* format, Args... args) {
    char buffer[kSize];
    EXPECT_EQ(K9SysSNPrintf(buffer, kSize, format, args...), kSize - 1) << "for " << format;
    return buffer;
}

TEST(FormatterNumbers, IntegerDirectivesTakeTheirWholeRange) {
    EXPECT_EQ(Formatted("%d|%d|%d", 0, INT_MIN, INT_MAX), "0|-2147483648|2147483647");
    EXPECT_EQ(Formatted("%u|%u", 0U, 0xFFFFFFFFU), "0|4294967295");
    EXPECT_EQ(Formatted("%X|%X|%x", 0U, 0xDEADBEEFU, 0xDEADBEEFU), "0|DEADBEEF|deadbeef");
    EXPECT_EQ(Formatted("%I64d|%I64d", kMinI64, kMaxI64),
              "-9223372036854775808|9223372036854775807");
    EXPECT_EQ(Formatted("%lld", kMinI64 + 1), "-9223372036854775807");
    EXPECT_EQ(Formatted("%I64u|%llu", kMaxU64, kMaxU64),
              "18446744073709551615|18446744073709551615");
    EXPECT_EQ(Formatted("%I64X|%llx", kMaxU64, kMaxU64), "FFFFFFFFFFFFFFFF|ffffffffffffffff");
    EXPECT_EQ(Formatted("%P", SIZE_MAX), std::to_string(SIZE_MAX));
}

TEST(FormatterNumbers, CodesAreDecimalAndThoseOfTheFamilyHexadecimal) {
    EXPECT_EQ(Formatted("error %r", 28U), "error 28");
    EXPECT_EQ(Formatted("%R|%R|%R", 0U, 27U, 0x7FFFU), "0|27|32767");
    EXPECT_EQ(Formatted("%R|%R|%R", 0x8000U, 0x8011U, 0xABCDEF01U), "0x8000|0x8011|0xABCDEF01");
}

TEST(FormatterNumbers, FRoundsToItsPrecisionWhichIsSixByItself) {
    EXPECT_EQ(Formatted("%f|%.2f|%.2f|%.0f", 1.5, 60.0, -0.126, 2.6), "1.500000|60.00|-0.13|3");
    EXPECT_EQ(Formatted("%.2000f", 0.5), "0.5" + std::string(1999, '0'));
    const std::string largest = Formatted("%.2f", std::numeric_limits<double>::max());
    EXPECT_EQ(largest.size(), 309U + 3U);
    EXPECT_EQ(largest.substr(0, 10), "1797693134");
}

TEST(FormatterNumbers, FPrintsWhatIsNoNumber) {
    EXPECT_EQ(Formatted("%.2f|%.2f|%05.1f", kInfinity, -kInfinity, kInfinity), "inf|-inf|  inf");
    EXPECT_EQ(Formatted("%f", std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(FormatterNumbers, WidthPadsAndNeverCuts) {
    EXPECT_EQ(Formatted("[%6d][%6u][%6I64d][%6P]", -12, 12U, std::int64_t{-12}, std::size_t{12}),
              "[   -12][    12][   -12][    12]");
    EXPECT_EQ(Formatted("[%8.2f][%8R][%4r]", 1.0, 0x8011U, 5U), "[    1.00][  0x8011][   5]");
    EXPECT_EQ(Formatted("%2d", 12345), "12345");
    EXPECT_EQ(Formatted("[%-6d][%-06d]", -12, 12), "[-12   ][12    ]");
    EXPECT_EQ(Formatted("%06d|%06u|%08.2f|%08X", -12, 12U, -1.5, 0xABU),
              "-00012|000012|-0001.50|000000AB");
}

TEST(FormatterNumbers, FlagsMarkSignsAndPrefixes) {
    EXPECT_EQ(Formatted("%+d|% d|%+d|%+.1f|% .1f", 5, 5, -5, 1.0, 1.0), "+5| 5|-5|+1.0| 1.0");
    EXPECT_EQ(Formatted("%+ d|%+u", 5, 5U), "+5|5");
    EXPECT_EQ(Formatted("%#x|%#X|%#x|%#08x", 0xABU, 0xABU, 0U, 0xABU), "0xab|0XAB|0|0x0000ab");
    EXPECT_EQ(Formatted("%#.0f", 3.0), "3.");
}

TEST(FormatterNumbers, PrecisionIsTheLeastNumberOfDigits) {
    EXPECT_EQ(Formatted("%.4d|%.4u|[%8.4d]|%.2d", -12, 12U, 12, 12345),
              "-0012|0012|[    0012]|12345");
    EXPECT_EQ(Formatted("[%08.4d]", 12), "[    0012]") << "no zero padding";
    EXPECT_EQ(Formatted("[%.0d][%.d]", 0, 0), "[][]");
}

TEST(FormatterNumbers, StarTakesWidthAndPrecision) {
    EXPECT_EQ(Formatted("[%*d][%*d]", 5, 42, -5, 42), "[   42][42   ]");
    EXPECT_EQ(Formatted("%.*f|%*.*f", 1, 2.25, 7, 2, 2.5), "2.2|   2.50");
    EXPECT_EQ(Formatted("%.*f", -1, 0.5), "0.500000");
}

TEST(FormatterTexts, WhatIsNoDirectiveStaysAsItIs) {
    EXPECT_EQ(Formatted("Failed to begin trans;state"), "Failed to begin trans;state");
    EXPECT_EQ(Formatted(""), "");
    EXPECT_EQ(Formatted("100%%, %d%%", 7), "100%, 7%");
}

TEST(FormatterTexts, SIsATextWhoseDirectivesAreNotRead) {
    EXPECT_EQ(Formatted("conn-str %s", "file=a;b=c"), "conn-str file=a;b=c");
    EXPECT_EQ(Formatted("%s", "100%d"), "100%d");
    EXPECT_EQ(Formatted("%s", static_cast<const char*>(nullptr)), "(null)");
    EXPECT_EQ(Formatted("[%5s][%-5s][%05s]", "ab", "ab", "ab"), "[   ab][ab   ][   ab]");
    EXPECT_EQ(Formatted("[%.2s][%4.2s]", "abc", "abc"), "[ab][  ab]");
    const char unterminated[3] = {'a', 'b', 'c'};
    EXPECT_EQ(Formatted("%.*s", 3, static_cast<const char*>(unterminated)), "abc");
}

TEST(FormatterTexts, PIsAnAddressInHexadecimal) {
    EXPECT_EQ(Formatted("%p", reinterpret_cast<void*>(std::uintptr_t{0xAB12})), "0xab12");
    EXPECT_EQ(Formatted("%p", static_cast<void*>(nullptr)), "0x0");
}

TEST(FormatterTexts, DirectivesTakeTheirArgumentsInOrder) {
    EXPECT_EQ(Formatted("%d %I64d %u %s %P %f %llu %R", 1, std::int64_t{-2}, 3U, "four",
                        std::size_t{5}, 6.0, 7ULL, 8U),
              "1 -2 3 four 5 6.000000 7 8");
}

TEST(FormatterTexts, AnUnknownOrUnfinishedDirectiveStandsAndTakesNoArgument) {
    EXPECT_EQ(Formatted("%q %d", 5), "%q 5");
    EXPECT_EQ(Formatted("%-08.3q %d", 5), "%-08.3q 5");
    EXPECT_EQ(Formatted("%*q %d", 5), "%*q 5");
    EXPECT_EQ(Formatted("%n %d", 5), "%n 5");
    EXPECT_EQ(Formatted("%I64s %lls %I32d %ld %d", 5), "%I64s %lls %I32d %ld 5");
    EXPECT_EQ(Formatted("%5%d", 7), "%57");
    for (const char* unfinished : {"100%", "%-5.", "%I6", "%l"}) {
        EXPECT_EQ(Formatted(unfinished), unfinished);
    }
}

TEST(FormatterBuffer, TheTextIsCutToIt) {
    EXPECT_EQ(Cut<5>("%s-%d", "abc", 12345), "abc-");
    EXPECT_EQ(Cut<4>("%d", 123), "123");
    EXPECT_EQ(Cut<1>("%d", 123), "");
    EXPECT_EQ(Cut<8>("%99999999999d", 1), "       ");
    EXPECT_EQ(Cut<8>("%*d", INT_MIN, 1), "1      ");
    EXPECT_EQ(Cut<8>("%.2147483647f", 1.0), "1.00000");
}

TEST(FormatterBuffer, NothingIsWrittenOutsideOfIt) {
    char buffer[2] = {'x', 'y'};
    EXPECT_EQ(K9SysSNPrintf(buffer, 0, "%s %5d", "text", 1), 0U);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(K9SysSNPrintf(buffer, 1, "%d", 123), 0U);
    EXPECT_EQ(buffer[1], 'y');
    EXPECT_EQ(K9SysSNPrintf(nullptr, 10, "text"), 0U);
}

TEST(FormatterBuffer, ANullFormatEmptiesIt) {
    char buffer[4] = "abc";
    EXPECT_EQ(K9SysSNPrintf(buffer, sizeof buffer, nullptr), 0U);
    EXPECT_STREQ(buffer, "");
}

}  // namespace
}  // namespace k9erepl::test
