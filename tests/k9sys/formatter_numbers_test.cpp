// Directives that take numbers: what each prints, and what flags, width and precision do to it.
#include <cstdint>
#include <limits>

#include "k9sys/formatted.h"

namespace k9erepl::test {

namespace {

constexpr std::int32_t kMinInt = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMaxInt = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t kMinI64 = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMaxI64 = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMaxU64 = std::numeric_limits<std::uint64_t>::max();

}  // namespace

TEST(FormatterNumbers, DIsASigned32BitDecimal) {
    EXPECT_EQ(Formatted("%d|%d|%d", 0, kMinInt, kMaxInt), "0|-2147483648|2147483647");
}

TEST(FormatterNumbers, UIsAnUnsigned32BitDecimal) {
    EXPECT_EQ(Formatted("%u|%u", 0U, 0xFFFFFFFFU), "0|4294967295");
}

TEST(FormatterNumbers, CapitalXIsHexadecimalInCapitals) {
    EXPECT_EQ(Formatted("%X|%X", 0U, 0xDEADBEEFU), "0|DEADBEEF");
}

TEST(FormatterNumbers, SmallXIsHexadecimalInSmallLetters) {
    EXPECT_EQ(Formatted("%x", 0xDEADBEEFU), "deadbeef");
}

TEST(FormatterNumbers, I64dIsASigned64BitDecimal) {
    EXPECT_EQ(Formatted("%I64d|%I64d", kMinI64, kMaxI64),
              "-9223372036854775808|9223372036854775807");
}

TEST(FormatterNumbers, I64uIsAnUnsigned64BitDecimal) {
    EXPECT_EQ(Formatted("%I64u", kMaxU64), "18446744073709551615");
}

TEST(FormatterNumbers, LluIsAnUnsigned64BitDecimal) {
    EXPECT_EQ(Formatted("%llu", kMaxU64), "18446744073709551615");
}

TEST(FormatterNumbers, LldIsASigned64BitDecimal) {
    EXPECT_EQ(Formatted("%lld", kMinI64 + 1), "-9223372036854775807");
}

TEST(FormatterNumbers, HexadecimalTakes64BitsWithEitherPrefix) {
    EXPECT_EQ(Formatted("%I64X|%llx", kMaxU64, kMaxU64), "FFFFFFFFFFFFFFFF|ffffffffffffffff");
}

TEST(FormatterNumbers, PIsAsWideAsAPointer) {
    EXPECT_EQ(Formatted("%P", std::numeric_limits<std::size_t>::max()),
              std::to_string(std::numeric_limits<std::size_t>::max()));
}

TEST(FormatterNumbers, RIsTheDecimalNumberOfASystemError) {
    EXPECT_EQ(Formatted("error %r", 28U), "error 28");
}

TEST(FormatterNumbers, CapitalRIsDecimalBelow0x8000) {
    EXPECT_EQ(Formatted("%R|%R|%R", 0U, 27U, 0x7FFFU), "0|27|32767");
}

TEST(FormatterNumbers, CapitalRIsHexadecimalFrom0x8000) {
    EXPECT_EQ(Formatted("%R|%R|%R", 0x8000U, 0x8011U, 0xABCDEF01U), "0x8000|0x8011|0xABCDEF01");
}

TEST(FormatterNumbers, FHasSixDecimalsByItself) {
    EXPECT_EQ(Formatted("%f", 1.5), "1.500000");
}

TEST(FormatterNumbers, FRoundsToItsPrecision) {
    EXPECT_EQ(Formatted("%.2f|%.2f|%.0f", 60.0, -0.126, 2.6), "60.00|-0.13|3");
}

TEST(FormatterNumbers, FTakesTheLargestDouble) {
    const std::string text = Formatted("%.2f", std::numeric_limits<double>::max());
    EXPECT_EQ(text.size(), 309U + 3U);
    EXPECT_EQ(text.substr(0, 10), "1797693134");
}

TEST(FormatterNumbers, FWithAHugePrecisionEndsInZeros) {
    const std::string text = Formatted("%.2000f", 0.5);
    EXPECT_EQ(text, "0.5" + std::string(1999, '0'));
}

TEST(FormatterNumbers, FPrintsWhatIsNoNumber) {
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(Formatted("%.2f|%.2f|%05.1f", infinity, -infinity, infinity), "inf|-inf|  inf");
    EXPECT_EQ(Formatted("%f", std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(FormatterNumbers, WidthPadsOnTheLeft) {
    EXPECT_EQ(Formatted("[%6d][%6u][%6I64d][%6P]", -12, 12U, std::int64_t{-12}, std::size_t{12}),
              "[   -12][    12][   -12][    12]");
    EXPECT_EQ(Formatted("[%8.2f][%8R][%4r]", 1.0, 0x8011U, 5U), "[    1.00][  0x8011][   5]");
}

TEST(FormatterNumbers, WidthNeverCuts) {
    EXPECT_EQ(Formatted("%2d", 12345), "12345");
}

TEST(FormatterNumbers, MinusPadsOnTheRight) {
    EXPECT_EQ(Formatted("[%-6d][%-06d]", -12, 12), "[-12   ][12    ]");
}

TEST(FormatterNumbers, ZeroPadsBehindTheSign) {
    EXPECT_EQ(Formatted("%06d|%06u|%08.2f|%08X", -12, 12U, -1.5, 0xABU),
              "-00012|000012|-0001.50|000000AB");
}

TEST(FormatterNumbers, PlusAndBlankMarkPositiveNumbers) {
    EXPECT_EQ(Formatted("%+d|% d|%+d|%+.1f|% .1f", 5, 5, -5, 1.0, 1.0), "+5| 5|-5|+1.0| 1.0");
    EXPECT_EQ(Formatted("%+ d|%+u", 5, 5U), "+5|5");
}

TEST(FormatterNumbers, NumberSignPutsAPrefixBeforeHexadecimal) {
    EXPECT_EQ(Formatted("%#x|%#X|%#x|%#08x", 0xABU, 0xABU, 0U, 0xABU), "0xab|0XAB|0|0x0000ab");
}

TEST(FormatterNumbers, NumberSignKeepsThePointOfADouble) {
    EXPECT_EQ(Formatted("%#.0f", 3.0), "3.");
}

TEST(FormatterNumbers, PrecisionIsTheLeastNumberOfDigits) {
    EXPECT_EQ(Formatted("%.4d|%.4u|[%8.4d]|%.2d", -12, 12U, 12, 12345),
              "-0012|0012|[    0012]|12345");
}

TEST(FormatterNumbers, PrecisionSwitchesZeroPaddingOff) {
    EXPECT_EQ(Formatted("[%08.4d]", 12), "[    0012]");
}

TEST(FormatterNumbers, PrecisionZeroPrintsNoZero) {
    EXPECT_EQ(Formatted("[%.0d][%.d]", 0, 0), "[][]");
}

TEST(FormatterNumbers, StarTakesTheWidth) {
    EXPECT_EQ(Formatted("[%*d]", 5, 42), "[   42]");
}

TEST(FormatterNumbers, ANegativeWidthArgumentPadsOnTheRight) {
    EXPECT_EQ(Formatted("[%*d]", -5, 42), "[42   ]");
}

TEST(FormatterNumbers, StarTakesThePrecision) {
    EXPECT_EQ(Formatted("%.*f|%*.*f", 1, 2.25, 7, 2, 2.5), "2.2|   2.50");
}

TEST(FormatterNumbers, ANegativePrecisionArgumentIsNone) {
    EXPECT_EQ(Formatted("%.*f", -1, 0.5), "0.500000");
}

}  // namespace k9erepl::test
