#include "hash/ZebHashText.h"

#include <QByteArray>
#include <QVector>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace {

QByteArray bytesBy(int count, const std::function<int(int)>& byteAt)
{
    QByteArray bytes(count, '\0');
    for (int i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(byteAt(i) & 0xFF);
    return bytes;
}

const unsigned char* pointerTo(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

QString textOf(const QByteArray& digest)
{
    return ZebHashText::toText(pointerTo(digest), digest.size());
}

QByteArray digestOf(const QString& text)
{
    unsigned char digest[32 * ZebHashText::s_WordBytes];
    const int words = ZebHashText::readDigest(text, digest, 32);
    return QByteArray(reinterpret_cast<const char*>(digest), words * ZebHashText::s_WordBytes);
}

struct Vector
{
    QByteArray m_Digest;
    QString m_Text;
};

// Computed by a Python script: '-'.join(str(int.from_bytes(d[i:i+4], 'little')) ...).
const std::vector<Vector>& vectors()
{
    static const std::vector<Vector> vectors = {
        {bytesBy(32, [](int i) { return 255 - i; }),
         QStringLiteral("4244504319-4177132283-4109760247-4042388211-3975016175-3907644139-"
                        "3840272103-3772900067")},
        {bytesBy(64, [](int i) { return i * 37 + 11; }),
         QStringLiteral("2052403211-250201247-2726123571-907144391-3399843931-1580799215-"
                        "4073564291-2254519319-452317355-2928239679-1109260499-3601960039-"
                        "1782915323-4275680399-2456635427-637656247")},
        {bytesBy(64, [](int i) { return (i * i + 3) % 251; }),
         QStringLiteral("201786371-874978323-2087146563-3838291091-1900816648-518832536-"
                        "3870391885-3549846306-3768277015-314602796-1594536545-3429831862-"
                        "1593086256-278803397-3714642047-3478311513")},
        {bytesBy(128, [](int i) { return i * 5; }),
         QStringLiteral("252314880-589175060-926035240-1262895420-1599755600-1936615780-"
                        "2273475960-2610336140-2947196320-3284056500-3620916680-3957776860-"
                        "4294637040-319686916-656547096-993407276-1330267456-1667127636-"
                        "2003987816-2340847996-2677708176-3014568356-3351428536-3688288716-"
                        "4025148896-67041780-387058952-723919132-1060779312-1397639492-"
                        "1734499672-2071359852")},
    };
    return vectors;
}

} // namespace

TEST(ZebHashText, BothDirectionsMatchTheVectors)
{
    for (const Vector& vector : vectors()) {
        EXPECT_EQ(textOf(vector.m_Digest), vector.m_Text);
        EXPECT_EQ(digestOf(vector.m_Text).toHex(), vector.m_Digest.toHex());
    }
}

TEST(ZebHashText, AWordIsLittleEndianAndEndsWithTheDigest)
{
    const unsigned char bytes[6] = {0x78, 0x56, 0x34, 0x92, 0x01, 0xff};
    EXPECT_EQ(ZebHashText::wordAt(bytes, 6, 0), 0x92345678U);
    EXPECT_EQ(ZebHashText::wordAt(bytes, 6, 4), 0xff01U);
    EXPECT_EQ(ZebHashText::wordAt(bytes, 5, 4), 0x01U);
    EXPECT_EQ(ZebHashText::wordAt(bytes, 6, 1), 0x01923456U);
}

TEST(ZebHashText, BytesAfterTheEndOfADigestCountAsZero)
{
    EXPECT_EQ(textOf(QByteArray("\x01\x00\x00\x00\x02", 5)), QStringLiteral("1-2"));
    EXPECT_EQ(textOf(QByteArray("\x03", 1)), QStringLiteral("3"));
}

TEST(ZebHashText, LeadingTextIsCutAtAnyCharacter)
{
    for (const Vector& vector : vectors()) {
        for (int length = 0; length <= vector.m_Text.size() + 5; ++length) {
            QVector<QChar> out(length + 1, QLatin1Char('#'));
            const int written = ZebHashText::writeLeading(
                pointerTo(vector.m_Digest), vector.m_Digest.size(), out.data(), length);
            const QString expected = vector.m_Text.left(length);
            ASSERT_EQ(QString(out.constData(), written), expected);
            ASSERT_EQ(out.at(written), QLatin1Char('#'));
        }
    }
}

TEST(ZebHashText, TextOfABlockIsWrittenWithoutATerminator)
{
    const Vector& vector = vectors().at(1);
    std::vector<char> out(ZebHashText::s_MaxBlockCharacters + 1, '#');
    char* const end = ZebHashText::writeBlockText(pointerTo(vector.m_Digest), out.data());
    EXPECT_EQ(std::string(out.data(), end), vector.m_Text.toStdString());
    EXPECT_EQ(*end, '#');
}

TEST(ZebHashText, TheLongestTextOfABlockFillsItsBuffer)
{
    const QByteArray digest(64, '\xff');
    std::vector<char> out(ZebHashText::s_MaxBlockCharacters + 1, '#');
    char* const end = ZebHashText::writeBlockText(pointerTo(digest), out.data());
    EXPECT_EQ(end - out.data(), ZebHashText::s_MaxBlockCharacters);
    EXPECT_EQ(textOf(digest).size(), ZebHashText::s_MaxBlockCharacters);
}

TEST(ZebHashText, EmptyWordsAreSkipped)
{
    EXPECT_EQ(textOf(digestOf(QStringLiteral("--1-22---333-"))), QStringLiteral("1-22-333"));
    EXPECT_TRUE(digestOf(QString()).isEmpty());
    EXPECT_TRUE(digestOf(QStringLiteral("---")).isEmpty());
}

TEST(ZebHashText, WordsAfterTheLastWantedAreCountedAndNotWritten)
{
    unsigned char out[3 * ZebHashText::s_WordBytes];
    std::fill(std::begin(out), std::end(out), static_cast<unsigned char>('#'));
    EXPECT_EQ(ZebHashText::readDigest(QStringLiteral("1-2-3-4-x"), out, 2), 5);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(out), sizeof out),
              QByteArray("\1\0\0\0\2\0\0\0####", sizeof out));
}

TEST(ZebHashText, AWordThatIsNoNumberOf32BitsCountsAsZero)
{
    EXPECT_EQ(textOf(digestOf(QStringLiteral("4294967295-4294967296-9999999999-99999999999"))),
              QStringLiteral("4294967295-0-0-0"));
    EXPECT_EQ(textOf(digestOf(QStringLiteral("x-1x-0x1-1.0"))), QStringLiteral("0-0-0-0"));
    EXPECT_EQ(textOf(digestOf(QStringLiteral("007-0000000000012-+5- 6 "))),
              QStringLiteral("7-12-5-6"));
}

TEST(ZebHashText, TheDashesAloneMakeANameABlockFileName)
{
    EXPECT_TRUE(ZebHashText::isBlockFileName(vectors().at(1).m_Text));
    EXPECT_TRUE(ZebHashText::isBlockFileName(QString(15, QLatin1Char('-'))));
    EXPECT_TRUE(
        ZebHashText::isBlockFileName(QStringLiteral("a-b-c-d-e-f-g-h-i-j-k-l-m-n-o-p.txt")));
    EXPECT_FALSE(ZebHashText::isBlockFileName(vectors().at(0).m_Text));
    EXPECT_FALSE(ZebHashText::isBlockFileName(vectors().at(3).m_Text));
    EXPECT_FALSE(ZebHashText::isBlockFileName(QString(14, QLatin1Char('-'))));
    EXPECT_FALSE(ZebHashText::isBlockFileName(QString(16, QLatin1Char('-'))));
    EXPECT_FALSE(ZebHashText::isBlockFileName(QString()));
}
