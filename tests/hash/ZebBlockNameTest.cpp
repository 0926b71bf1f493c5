#include "hash/ZebBlockName.h"

#include "hash/ZebDataHash.h"
#include "support/BlockBytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string>

namespace {

const std::string s_FirstFourteen = "1-2-3-4-5-6-7-8-9-10-11-12-13-14";
const std::string s_FirstFifteen = s_FirstFourteen + "-15";
const std::string s_Name = s_FirstFifteen + "-16";

const unsigned char* bytesOf(const QByteArray& content)
{
    return reinterpret_cast<const unsigned char*>(content.constData());
}

} // namespace

TEST(ZebBlockName, TextComesBackAsItWas)
{
    for (const std::string& text :
         {s_Name, std::string("0-0-0-0-0-0-0-0-0-0-0-0-0-0-0-0"),
          std::string("0-0-0-0-0-0-0-0-0-0-0-0-0-0-0-4294967295"),
          std::string("4294967295-4294967295-4294967295-4294967295-4294967295-4294967295-"
                      "4294967295-4294967295-4294967295-4294967295-4294967295-4294967295-"
                      "4294967295-4294967295-4294967295-4294967295")}) {
        const std::optional<ZebBlockName> name = ZebBlockName::parse(text);
        ASSERT_TRUE(name.has_value()) << text;
        EXPECT_EQ(name->text(), text);
        std::string whole = "before ";
        name->appendTo(whole);
        EXPECT_EQ(whole, "before " + text);
    }
}

TEST(ZebBlockName, WordsAreTheNumbersOfTheText)
{
    const std::optional<ZebBlockName> name =
        ZebBlockName::parse("7-2-3-4-5-6-7-8-9-10-11-12-13-14-15-4294967295");
    ASSERT_TRUE(name.has_value());
    EXPECT_EQ(name->word(0), 7U);
    for (int i = 1; i < 15; ++i)
        EXPECT_EQ(name->word(i), static_cast<quint32>(i + 1));
    EXPECT_EQ(name->word(15), 4294967295U);
}

TEST(ZebBlockName, EachNumberIsFourBytesOfTheDigestLowestFirst)
{
    const std::optional<ZebBlockName> name =
        ZebBlockName::parse("67305985-0-0-0-0-0-0-0-0-0-0-0-0-0-0-4278190080");
    ASSERT_TRUE(name.has_value());
    std::array<unsigned char, ZebBlockName::s_Bytes> digest = {1, 2, 3, 4};
    digest[63] = 0xFF;
    EXPECT_TRUE(name->isOf(digest.data()));
    EXPECT_TRUE(std::equal(digest.begin(), digest.end(), name->digest()));
    for (unsigned char& byte : digest) {
        byte ^= 0x80;
        EXPECT_FALSE(name->isOf(digest.data())) << &byte - digest.data();
        byte ^= 0x80;
    }
}

TEST(ZebBlockName, NeedsExactlySixteenNumbers)
{
    for (const std::string& text :
         {std::string(), std::string("1"), s_FirstFifteen, s_Name + "-17", s_Name + s_Name,
          // No number where one is required.
          std::string("-"), std::string("---------------"), s_Name + "-", "-" + s_Name,
          s_FirstFifteen + "-", std::string("-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"),
          std::string("1--3-4-5-6-7-8-9-10-11-12-13-14-15-16")})
        EXPECT_FALSE(ZebBlockName::parse(text).has_value()) << text;
}

TEST(ZebBlockName, NumbersArePlainDecimalsThatFit32Bits)
{
    for (const std::string& bad :
         {std::string("01"), std::string("00"), std::string("016"), std::string("4294967296"),
          std::string("99999999999999999999"), std::string("x"), std::string("1x"),
          std::string("0x1"), std::string("1e1"), std::string("1.0"), std::string("+1"),
          std::string(" 1"), std::string("1 "), std::string("1\n"), std::string("1\0", 2)}) {
        const std::string shown = ::testing::PrintToString(bad);
        EXPECT_FALSE(ZebBlockName::parse(bad + s_Name.substr(1)).has_value()) << shown;
        EXPECT_FALSE(ZebBlockName::parse(s_FirstFourteen + "-" + bad + "-16").has_value()) << shown;
        EXPECT_FALSE(ZebBlockName::parse(s_FirstFifteen + "-" + bad).has_value()) << shown;
    }
    EXPECT_TRUE(ZebBlockName::parse("0" + s_Name.substr(1)).has_value());
}

TEST(ZebBlockName, RecognisesTheBytesOfItsBlock)
{
    const QByteArray content("some bytes");
    const ZebBlockName name = parsedNameOf(content);
    EXPECT_EQ(name.text(), blockNameOf(content));
    EXPECT_TRUE(name.isOf(ZebDataHash(content, ZebDataHash::Hash512).data()));
    EXPECT_TRUE(name.isDigestOf(bytesOf(content), content.size()));
    EXPECT_FALSE(name.isDigestOf(bytesOf(content), content.size() - 1));
    EXPECT_FALSE(name.isDigestOf(bytesOf("some bytez"), content.size()));
}

TEST(ZebBlockName, RecognisesTheEmptyBlock)
{
    const QByteArray content("some bytes");
    const ZebBlockName name = parsedNameOf(QByteArray());
    EXPECT_EQ(name.text(), blockNameOf(QByteArray()));
    EXPECT_TRUE(name.isDigestOf(bytesOf(content), 0));
    EXPECT_FALSE(name.isDigestOf(bytesOf(content), 1));
    EXPECT_FALSE(parsedNameOf(content).isDigestOf(bytesOf(content), 0));
}
