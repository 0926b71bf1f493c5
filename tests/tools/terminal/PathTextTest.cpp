#include "tools/terminal/PathText.h"

#include <gtest/gtest.h>

TEST(PathText, OrdinaryNamesStayAsTheyAre)
{
    EXPECT_EQ(PathText::printable("/usr/share/a b\\c"), "/usr/share/a b\\c");
    const std::string umlauts = "gr\xC3\xB6\xC3\x9F"
                                "e \xE2\x82\xAC \xF0\x9F\x93\x81";
    EXPECT_EQ(PathText::printable(umlauts), umlauts);
}

TEST(PathText, AnEmptyPathShows)
{
    EXPECT_EQ(PathText::printable(""), "''");
}

TEST(PathText, ControlCharactersAreEscaped)
{
    EXPECT_EQ(PathText::printable("a\nb\tc\x1B[2Jd\x7F"), "a\\x0ab\\x09c\\x1b[2Jd\\x7f");
    // U+009B starts a terminal sequence as well as ESC [ does.
    EXPECT_EQ(PathText::printable("\xC2\x9B"
                                  "2J"),
              "\\xc2\\x9b2J");
    EXPECT_EQ(PathText::printable("\xC2\xA0"), "\xC2\xA0");
}

TEST(PathText, BytesThatAreNoUtf8AreEscaped)
{
    EXPECT_EQ(PathText::printable("a\xFFz"), "a\\xffz");
    EXPECT_EQ(PathText::printable("\x80"), "\\x80");
    // Cut off, overlong, a surrogate, beyond the last code point.
    EXPECT_EQ(PathText::printable("x\xC3"), "x\\xc3");
    EXPECT_EQ(PathText::printable("\xE2\x82x"), "\\xe2\\x82x");
    EXPECT_EQ(PathText::printable("\xC0\xAF"), "\\xc0\\xaf");
    EXPECT_EQ(PathText::printable("\xE0\x80\xAF"), "\\xe0\\x80\\xaf");
    EXPECT_EQ(PathText::printable("\xF0\x8F\xBF\xBF"), "\\xf0\\x8f\\xbf\\xbf");
    EXPECT_EQ(PathText::printable("\xED\xA0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(PathText::printable("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}
