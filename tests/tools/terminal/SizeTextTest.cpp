#include "tools/terminal/SizeText.h"

#include <gtest/gtest.h>

#include <limits>

namespace {

constexpr qint64 s_Kibi = 1024;
constexpr qint64 s_Largest = std::numeric_limits<qint64>::max();

} // namespace

TEST(SizeText, ParsesNumbersWithoutUnitAsBytes)
{
    EXPECT_EQ(SizeText::parse("0"), 0);
    EXPECT_EQ(SizeText::parse("1"), 1);
    EXPECT_EQ(SizeText::parse("007"), 7);
    EXPECT_EQ(SizeText::parse("9223372036854775807"), s_Largest);
}

TEST(SizeText, UnitsArePowersOf1024)
{
    EXPECT_EQ(SizeText::parse("3K"), 3 * s_Kibi);
    EXPECT_EQ(SizeText::parse("3M"), 3 * s_Kibi * s_Kibi);
    EXPECT_EQ(SizeText::parse("3G"), 3 * s_Kibi * s_Kibi * s_Kibi);
    EXPECT_EQ(SizeText::parse("3T"), 3 * s_Kibi * s_Kibi * s_Kibi * s_Kibi);
    EXPECT_EQ(SizeText::parse("0T"), 0);
}

TEST(SizeText, UnitsMayBeWrittenLongAndInAnyCase)
{
    for (const char* const text : {"2k", "2KiB", "2kib", "2KIB", "2kIb"})
        EXPECT_EQ(SizeText::parse(text), 2 * s_Kibi) << text;
    EXPECT_EQ(SizeText::parse("2mib"), 2 * s_Kibi * s_Kibi);
    EXPECT_EQ(SizeText::parse("2GiB"), 2 * s_Kibi * s_Kibi * s_Kibi);
    EXPECT_EQ(SizeText::parse("2tiB"), 2 * s_Kibi * s_Kibi * s_Kibi * s_Kibi);
}

TEST(SizeText, RefusesEverythingElse)
{
    for (const char* const text : {"",    " ",   "K",  "KiB",  "-1",  "+1",  "-0",  "1.5K",
                                   "1,5", "1 K", " 1", "1 ",   "1KB", "1B",  "1Ki", "1KiBs",
                                   "1KK", "1P",  "1E", "0x10", "1e3", "ten", "1\n", "\xC2\xB2"}) {
        EXPECT_EQ(SizeText::parse(text), std::nullopt) << "'" << text << "'";
    }
    EXPECT_EQ(SizeText::parse(std::string("1\0", 2)), std::nullopt);
}

TEST(SizeText, RefusesWhat63BitsDoNotHold)
{
    EXPECT_EQ(SizeText::parse("9223372036854775808"), std::nullopt);
    EXPECT_EQ(SizeText::parse("18446744073709551616"), std::nullopt);
    EXPECT_EQ(SizeText::parse("99999999999999999999999999"), std::nullopt);
    EXPECT_EQ(SizeText::parse("8388607T"), 8388607 * s_Kibi * s_Kibi * s_Kibi * s_Kibi);
    EXPECT_EQ(SizeText::parse("8388608T"), std::nullopt);
    EXPECT_EQ(SizeText::parse("9007199254740991K"), 9007199254740991 * s_Kibi);
    EXPECT_EQ(SizeText::parse("9007199254740992K"), std::nullopt);
}

TEST(SizeText, PrintsWithOneDecimalUnlessExact)
{
    EXPECT_EQ(SizeText::print(0), "0 bytes");
    EXPECT_EQ(SizeText::print(1), "1 byte");
    EXPECT_EQ(SizeText::print(1023), "1023 bytes");
    EXPECT_EQ(SizeText::print(1024), "1 KiB");
    EXPECT_EQ(SizeText::print(1025), "1.0 KiB");
    EXPECT_EQ(SizeText::print(1536), "1.5 KiB");
    EXPECT_EQ(SizeText::print(256 * s_Kibi), "256 KiB");
    EXPECT_EQ(SizeText::print(3 * s_Kibi * s_Kibi * s_Kibi / 2), "1.5 GiB");
    EXPECT_EQ(SizeText::print(s_Largest), "8.0 EiB");
}

TEST(SizeText, PrintsInTheNextUnitWhatRoundsUpToIt)
{
    EXPECT_EQ(SizeText::print(s_Kibi * s_Kibi - 1), "1.0 MiB");
    EXPECT_EQ(SizeText::print(1023 * s_Kibi + 900), "1023.9 KiB");
}

TEST(SizeText, GroupsDigitsByThree)
{
    EXPECT_EQ(SizeText::grouped(0), "0");
    EXPECT_EQ(SizeText::grouped(999), "999");
    EXPECT_EQ(SizeText::grouped(1000), "1,000");
    EXPECT_EQ(SizeText::grouped(1234567), "1,234,567");
    EXPECT_EQ(SizeText::grouped(-123), "-123");
    EXPECT_EQ(SizeText::grouped(-1234), "-1,234");
}
