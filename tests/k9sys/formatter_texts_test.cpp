// Texts, pointers, percent signs, what is no directive, and the end of the buffer.
#include <climits>
#include <cstdint>

#include "k9sys/formatted.h"

namespace k9erepl::test {

TEST(FormatterTexts, PlainTextStaysAsItIs) {
    EXPECT_EQ(Formatted("Failed to begin trans;state"), "Failed to begin trans;state");
}

TEST(FormatterTexts, AnEmptyFormatGivesAnEmptyText) {
    EXPECT_EQ(Formatted(""), "");
}

TEST(FormatterTexts, SIsAText) {
    EXPECT_EQ(Formatted("conn-str %s", "file=a;b=c"), "conn-str file=a;b=c");
}

TEST(FormatterTexts, ANullTextIsNamed) {
    EXPECT_EQ(Formatted("%s", static_cast<const char*>(nullptr)), "(null)");
}

TEST(FormatterTexts, WidthAndMinusPadATextWithBlanks) {
    EXPECT_EQ(Formatted("[%5s][%-5s][%05s]", "ab", "ab", "ab"), "[   ab][ab   ][   ab]");
}

TEST(FormatterTexts, PrecisionCutsAText) {
    EXPECT_EQ(Formatted("[%.2s][%4.2s]", "abc", "abc"), "[ab][  ab]");
}

TEST(FormatterTexts, ATextWithAPrecisionNeedsNoTerminator) {
    const char letters[3] = {'a', 'b', 'c'};
    EXPECT_EQ(Formatted("%.*s", 3, static_cast<const char*>(letters)), "abc");
}

TEST(FormatterTexts, PercentSDoesNotReadDirectivesInTheText) {
    EXPECT_EQ(Formatted("%s", "100%d"), "100%d");
}

TEST(FormatterTexts, PIsAnAddressInHexadecimal) {
    EXPECT_EQ(Formatted("%p", reinterpret_cast<void*>(std::uintptr_t{0xAB12})), "0xab12");
    EXPECT_EQ(Formatted("%p", static_cast<void*>(nullptr)), "0x0");
}

TEST(FormatterTexts, TwoPercentSignsAreOne) {
    EXPECT_EQ(Formatted("100%%, %d%%", 7), "100%, 7%");
}

TEST(FormatterTexts, DirectivesTakeTheirArgumentsInOrder) {
    EXPECT_EQ(Formatted("%d %I64d %u %s %P %f %llu %R", 1, std::int64_t{-2}, 3U, "four",
                        std::size_t{5}, 6.0, 7ULL, 8U),
              "1 -2 3 four 5 6.000000 7 8");
}

TEST(FormatterTexts, AnUnknownDirectiveStandsAndTakesNoArgument) {
    EXPECT_EQ(Formatted("%q %d", 5), "%q 5");
    EXPECT_EQ(Formatted("%-08.3q %d", 5), "%-08.3q 5");
    EXPECT_EQ(Formatted("%*q %d", 5), "%*q 5");
    EXPECT_EQ(Formatted("%n %d", 5), "%n 5");
}

TEST(FormatterTexts, ALengthWithoutAnIntegerLetterIsUnknown) {
    EXPECT_EQ(Formatted("%I64s %lls %I32d %ld %d", 5), "%I64s %lls %I32d %ld 5");
}

TEST(FormatterTexts, AnUnfinishedDirectiveStands) {
    EXPECT_EQ(Formatted("100%"), "100%");
    EXPECT_EQ(Formatted("%-5."), "%-5.");
    EXPECT_EQ(Formatted("%I6"), "%I6");
    EXPECT_EQ(Formatted("%l"), "%l");
}

TEST(FormatterTexts, ADirectiveBehindAnUnknownOneIsRead) {
    EXPECT_EQ(Formatted("%5%d", 7), "%57");
}

TEST(FormatterTexts, TheTextIsCutToTheBuffer) {
    char buffer[5];
    EXPECT_EQ(K9SysSNPrintf(buffer, sizeof buffer, "%s-%d", "abc", 12345), 4U);
    EXPECT_STREQ(buffer, "abc-");
}

TEST(FormatterTexts, ATextThatJustFitsIsWhole) {
    char buffer[4];
    EXPECT_EQ(K9SysSNPrintf(buffer, sizeof buffer, "%d", 123), 3U);
    EXPECT_STREQ(buffer, "123");
}

TEST(FormatterTexts, ABufferOfOneByteHoldsTheTerminator) {
    char buffer[2] = {'x', 'y'};
    EXPECT_EQ(K9SysSNPrintf(buffer, 1, "%d", 123), 0U);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(buffer[1], 'y');
}

TEST(FormatterTexts, WithoutABufferNothingIsWritten) {
    char buffer[1] = {'x'};
    EXPECT_EQ(K9SysSNPrintf(buffer, 0, "%s %5d", "text", 1), 0U);
    EXPECT_EQ(buffer[0], 'x');
    EXPECT_EQ(K9SysSNPrintf(nullptr, 10, "text"), 0U);
}

TEST(FormatterTexts, AHugeWidthIsCutToTheBuffer) {
    char buffer[8];
    EXPECT_EQ(K9SysSNPrintf(buffer, sizeof buffer, "%99999999999d", 1), 7U);
    EXPECT_STREQ(buffer, "       ");
    EXPECT_EQ(K9SysSNPrintf(buffer, sizeof buffer, "%*d", INT_MIN, 1), 7U);
    EXPECT_STREQ(buffer, "1      ");
    EXPECT_EQ(K9SysSNPrintf(buffer, sizeof buffer, "%.2147483647f", 1.0), 7U);
    EXPECT_STREQ(buffer, "1.00000");
}

TEST(FormatterTexts, ANullFormatIsEmpty) {
    char buffer[4] = "abc";
    EXPECT_EQ(K9SysSNPrintf(buffer, sizeof buffer, nullptr), 0U);
    EXPECT_STREQ(buffer, "");
}

}  // namespace k9erepl::test
