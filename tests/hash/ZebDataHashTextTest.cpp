#include "hash/ZebDataHash.h"

#include "hash/ZebHashManager.h"
#include "support/Fatal.h"
#include "support/HashInside.h"
#include "support/MessageCapture.h"

#include <QLocale>
#include <QStringList>
#include <QTextStream>
#include <QVector>
#include <QtEndian>

#include <gtest/gtest.h>

#include <random>
#include <string>

using HashInside::leadingText;
using HashInside::sizeField;

namespace {

constexpr int s_Widths[] = {32, 64, 128};

using Random = std::mt19937;

int below(Random& random, int bound)
{
    return std::uniform_int_distribution<int>(0, bound - 1)(random);
}

ZebDataHash fromDigest(const QByteArray& digest)
{
    QByteArray copy = digest;
    return ZebDataHash(static_cast<ZebDataHash::Size>(digest.size()),
                       reinterpret_cast<unsigned char*>(copy.data()));
}

// Words of every number of digits, so that every width of a group occurs.
quint32 randomWord(Random& random)
{
    static const quint32 s_Edges[] = {0,         1,          9,          10,         99,
                                      100,       999999999,  1000000000, 2147483647, 2147483648,
                                      429496729, 4294967294, 4294967295};
    if (below(random, 3) == 0)
        return s_Edges[below(random, static_cast<int>(std::size(s_Edges)))];
    return static_cast<quint32>(random()) >> below(random, 32);
}

QByteArray randomDigest(Random& random, int width)
{
    QByteArray digest(width, '\0');
    for (int offset = 0; offset < width; offset += 4)
        qToLittleEndian<quint32>(randomWord(random), digest.data() + offset);
    return digest;
}

// The text form, made independently of the library: Qt's own stream, word by word.
QString streamedText(const QByteArray& digest)
{
    QString text;
    {
        QTextStream stream(&text, QIODevice::ReadWrite);
        for (int offset = 0; offset < digest.size(); offset += 4)
            stream << qFromLittleEndian<quint32>(digest.constData() + offset) << "-";
    }
    text.chop(1);
    return text;
}

struct Parsed
{
    int m_Size;
    QByteArray m_Data;
    QStringList m_Lines;
};

// The meaning of a text, independently of the library: Qt's own split and conversion.
Parsed splitDigest(const QString& text, int sizeBefore)
{
    const QStringList parts =
        text.split(QStringLiteral("-"), Qt::SkipEmptyParts, Qt::CaseSensitive);
    if (parts.isEmpty())
        return {sizeBefore, {}, {}};
    const int width = 4 * parts.size();
    if (width != 32 && width != 64 && width != 128)
        return {sizeBefore, {}, {QStringLiteral("Unknown Hash Bit Size %1").arg(width)}};
    QByteArray digest(width, '\0');
    for (int i = 0; i < parts.size(); ++i)
        qToLittleEndian<quint32>(parts[i].toUInt(nullptr, 10), digest.data() + 4 * i);
    return {width, digest, {}};
}

std::string printable(const QString& text)
{
    return text.toUtf8().toPercentEncoding().toStdString();
}

void expectParsedAsSplit(const QString& text, const ZebDataHash& before)
{
    const Parsed wanted = splitDigest(text, before.size());
    const MessageCapture messages;
    ZebDataHash hash(before);
    hash.fromString(text);
    EXPECT_EQ(static_cast<int>(hash.size()), wanted.m_Size) << printable(text);
    EXPECT_EQ(HashInside::digest(hash).toHex(), wanted.m_Data.toHex()) << printable(text);
    EXPECT_EQ(messages.debugLines(), wanted.m_Lines) << printable(text);
    EXPECT_EQ(messages.messages().size(), wanted.m_Lines.size()) << printable(text);
}

// Parts that might pass for a number.
// style: long function, one table
const QVector<QString>& nastyParts()
{
    static const QVector<QString> s_Parts = {
        "0",
        "00",
        "5",
        "05",
        "0000000005",
        "00000000000000000005",
        "4294967295",
        "04294967295",
        "000000000000000000004294967295",
        "4294967296",
        "4294967297",
        "9999999999",
        "99999999999",
        "18446744073709551615",
        "18446744073709551616",
        "18446744073709551621",
        "+5",
        "++5",
        "+",
        "5+",
        " 5",
        "5 ",
        "\t5",
        "5\n",
        "  5\r\n",
        "+ 5",
        " +5",
        " ",
        "5 5",
        "1,000",
        "1.000",
        "1.",
        "1.0",
        "1'000",
        "1e3",
        "0x10",
        "0b1",
        "010",
        "ff",
        "nan",
        "inf",
        "abc",
        "12a",
        "a12",
        "5/",
        "5:",
        "/",
        ":",
        QString("5") + QChar(0),
        QChar(0) + QString("5"),
        QString(QChar(0)),
        QString::fromUtf8("\u0665"),
        QString::fromUtf8("1\u0665"),
        QString::fromUtf8("\uff15"),
        QString::fromUtf8("\u096b"),
        QString::fromUtf8("\U0001d7d3"),
        QString::fromUtf8("\u22125"),
        QString::fromUtf8("\u20105"),
        QString::fromUtf8("\uff0b5"),
        QString::fromUtf8("\u00a05"),
        QString::fromUtf8("5\u2009"),
        QString::fromUtf8("\u200b5"),
        QString::fromUtf8("\ufeff5"),
        QString::fromUtf8("\u00b2"),
        QString::fromUtf8("\u2167"),
        QString(QChar(0xd800)),
        QString(QChar(0xdc35)) + "5",
        QString(1000, '0') + "7",
        QString(1000, '7'),
    };
    return s_Parts;
}

QString randomPart(Random& random)
{
    switch (below(random, 4)) {
    case 0:
        return nastyParts()[below(random, nastyParts().size())];
    case 1: {
        static const QString s_Alphabet = QString::fromUtf8("0123456789+ .\tax\u0663\uff19");
        QString part;
        for (int length = below(random, 14); length > 0; --length)
            part.append(s_Alphabet.at(below(random, s_Alphabet.size())));
        return part;
    }
    case 2:
        return QString::number(static_cast<quint64>(random()) << below(random, 8));
    default:
        return QString::number(randomWord(random));
    }
}

} // namespace

// toString

TEST(ZebDataHashText, TextIsWhatQtsStreamWrites)
{
    Random random(1);
    for (const int width : s_Widths) {
        for (int i = 0; i < 2000; ++i) {
            const QByteArray digest = randomDigest(random, width);
            ASSERT_EQ(fromDigest(digest).toString(), streamedText(digest))
                << digest.toHex().toStdString();
        }
    }
}

TEST(ZebDataHashText, WordsAreLittleEndianAndUnsigned)
{
    QByteArray digest(32, '\0');
    digest[0] = '\x01';
    digest[5] = '\x01';
    digest[10] = '\x01';
    digest[15] = '\x01';
    digest[19] = '\x80';
    digest.replace(20, 4, "\xff\xff\xff\xff");
    digest.replace(24, 4, "\x78\x56\x34\x12");
    EXPECT_EQ(fromDigest(digest).toString(),
              "1-256-65536-16777216-2147483648-4294967295-305419896-0");
}

TEST(ZebDataHashText, GroupsAreNotPadded)
{
    EXPECT_EQ(fromDigest(QByteArray(32, '\0')).toString(), "0-0-0-0-0-0-0-0");
    for (const int width : s_Widths) {
        const QString text = fromDigest(QByteArray(width, '\xff')).toString();
        EXPECT_EQ(text.split("-").size(), width / 4);
        EXPECT_EQ(text.count("4294967295"), width / 4);
        EXPECT_EQ(text.size(), width / 4 * 11 - 1);
    }
}

TEST(ZebDataHashText, TextsHave8And16And32Groups)
{
    for (const int width : s_Widths) {
        const ZebDataHash hash(QByteArray("content"), static_cast<ZebDataHash::Size>(width));
        const QString text = hash.toString();
        EXPECT_EQ(text.count('-'), width / 4 - 1);
        const ZebDataHash again(text);
        EXPECT_TRUE(again == hash);
        EXPECT_EQ(again.size(), hash.size());
    }
}

TEST(ZebDataHashText, TheLocaleHasNoEffect)
{
    const QLocale before;
    const ZebDataHash hash(QByteArray("content"), ZebDataHash::Hash512);
    const QString wanted = hash.toString();
    for (const QLocale::Language language : {QLocale::German, QLocale::Persian, QLocale::Hindi}) {
        QLocale::setDefault(QLocale(language));
        EXPECT_EQ(hash.toString(), wanted);
        EXPECT_TRUE(ZebDataHash(wanted) == hash);
    }
    QLocale::setDefault(before);
}

TEST(ZebDataHashText, TextChangesNothingAndLogsNothing)
{
    const MessageCapture messages;
    ZebDataHash hash(QByteArray("content"), ZebDataHash::Hash512);
    const unsigned char* const bytes = hash.data();
    const QString text = hash.toString();
    EXPECT_EQ(hash.toString(), text);
    EXPECT_EQ(hash.data(), bytes);
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataHashText, ASizeBelowOneIsFatal)
{
    ZebDataHash hash(QByteArray("content"), ZebDataHash::Hash256);
    sizeField(hash) = static_cast<ZebDataHash::Size>(0);
    EXPECT_FATAL(hash.toString(), "m_Size is Zero or less");
    sizeField(hash) = static_cast<ZebDataHash::Size>(-1);
    EXPECT_FATAL(hash.toString(), "m_Size is Zero or less");
}

TEST(ZebDataHashText, TheSizeIsCheckedBeforeTheLength)
{
    ZebDataHash hash;
    sizeField(hash) = static_cast<ZebDataHash::Size>(0);
    EXPECT_FATAL(hash.toString(), "m_Size is Zero or less");
    sizeField(hash) = static_cast<ZebDataHash::Size>(-32);
    EXPECT_FATAL(hash.toString(), "m_Size is Zero or less");
}

TEST(ZebDataHashText, AWrongLengthIsFatal)
{
    EXPECT_FATAL(ZebDataHash().toString(), "Size of data is incorrect is 0, should be 32");
    ZebDataHash hash(QByteArray("content"), ZebDataHash::Hash512);
    HashInside::digest(hash).chop(1);
    EXPECT_FATAL(hash.toString(), "Size of data is incorrect is 63, should be 64");
    HashInside::digest(hash).append("ab");
    EXPECT_FATAL(hash.toString(), "Size of data is incorrect is 65, should be 64");
}

TEST(ZebDataHashText, LeadingTextIsTheBeginningOfTheText)
{
    const QChar untouched('#');
    Random random(2);
    for (int width = 4; width <= 252; width += 4) {
        const ZebDataHash hash = fromDigest(randomDigest(random, width));
        const QString text = hash.toString();
        for (int length = 0; length <= text.size() + 12; ++length) {
            QVector<QChar> out(length + 1, untouched);
            const int written = leadingText(hash, out.data(), length);
            const QString wanted = text.left(length);
            ASSERT_EQ(written, wanted.size()) << width << " " << length;
            ASSERT_EQ(QString(out.constData(), written), wanted) << width << " " << length;
            for (int i = written; i < out.size(); ++i)
                ASSERT_EQ(out[i], untouched) << width << " " << length;
        }
    }
}

TEST(ZebDataHashText, LeadingTextOfShortAndLongGroupsIsTheBeginningOfTheText)
{
    for (const char byte : {'\0', '\x01', '\xff'}) {
        for (const int width : s_Widths) {
            const ZebDataHash hash = fromDigest(QByteArray(width, byte));
            const QString text = hash.toString();
            QVector<QChar> out(text.size());
            for (int length = 0; length <= text.size(); ++length) {
                ASSERT_EQ(leadingText(hash, out.data(), length), length);
                ASSERT_EQ(QString(out.constData(), length), text.left(length));
            }
        }
    }
}

TEST(ZebDataHashText, LeadingTextIsFatalWhereTheTextIs)
{
    QChar out[4];
    ZebDataHash hash;
    EXPECT_FATAL(leadingText(hash, out, 4), "Size of data is incorrect is 0, should be 32");
    EXPECT_FATAL(leadingText(hash, out, 0), "Size of data is incorrect is 0, should be 32");
    sizeField(hash) = static_cast<ZebDataHash::Size>(0);
    EXPECT_FATAL(leadingText(hash, out, 4), "m_Size is Zero or less");
}

// fromString

TEST(ZebDataHashText, EveryTextOfADigestIsParsed)
{
    Random random(3);
    for (const int width : s_Widths) {
        for (int i = 0; i < 2000; ++i) {
            const QByteArray digest = randomDigest(random, width);
            const ZebDataHash hash(streamedText(digest));
            ASSERT_EQ(static_cast<int>(hash.size()), width);
            ASSERT_EQ(HashInside::digest(hash), digest);
        }
    }
}

TEST(ZebDataHashText, NumbersAreParsedAsByQt)
{
    const ZebDataHash before(QByteArray("before"), ZebDataHash::Hash512);
    for (const QString& part : nastyParts()) {
        for (const int position : {0, 3, 7}) {
            QStringList parts{"1", "2", "3", "4", "5", "6", "7", "8"};
            parts[position] = part;
            expectParsedAsSplit(parts.join("-"), before);
        }
    }
}

TEST(ZebDataHashText, RandomTextsAreParsedAsByQt)
{
    static const int s_Counts[] = {0, 1, 7, 8, 9, 15, 16, 17, 31, 32, 33, 64};
    static const QString s_Joints[] = {"-", "-", "-", "-", "--", "---"};
    const ZebDataHash before[] = {ZebDataHash(),
                                  ZebDataHash(QByteArray("before"), ZebDataHash::Hash512),
                                  ZebDataHash(QByteArray("before"), ZebDataHash::Hash1024)};
    Random random(4);
    for (int i = 0; i < 20000; ++i) {
        // Mostly accepted widths, since the others only fail.
        const int count = below(random, 3) != 0
                              ? 8 << below(random, 3)
                              : s_Counts[below(random, static_cast<int>(std::size(s_Counts)))];
        QString text = below(random, 8) == 0 ? QString("-") : QString();
        for (int part = 0; part < count; ++part) {
            if (part != 0)
                text += s_Joints[below(random, static_cast<int>(std::size(s_Joints)))];
            text += randomPart(random);
        }
        if (below(random, 8) == 0)
            text += "-";
        expectParsedAsSplit(text, before[below(random, 3)]);
        if (testing::Test::HasFailure())
            return;
    }
}

TEST(ZebDataHashText, EmptyPartsAreSkipped)
{
    QByteArray wanted;
    for (char i = 1; i <= 8; ++i)
        wanted.append(i).append(QByteArray(3, '\0'));
    for (const char* text : {"1-2-3-4-5-6-7-8", "-1-2-3-4-5-6-7-8", "1-2-3-4-5-6-7-8-",
                             "1--2---3-4-5-6-7-8", "--1-2-3-4----5-6-7-8--"})
        EXPECT_EQ(HashInside::digest(ZebDataHash(QString(text))), wanted) << text;
}

TEST(ZebDataHashText, ASignMakesNoNegativeNumber)
{
    // The sign is the separator, so no part contains it.
    const ZebDataHash hash(QString("-1--1--1--1--1--1--1--1"));
    EXPECT_EQ(hash.toString(), "1-1-1-1-1-1-1-1");
}

TEST(ZebDataHashText, APartThatIsNotANumberIsZeroAndNoError)
{
    const MessageCapture messages;
    const ZebDataHash hash(QString("1-two-3-0x4-4294967296-99999999999-7.0-8"));
    EXPECT_EQ(hash.size(), ZebDataHash::Hash256);
    EXPECT_EQ(hash.toString(), "1-0-3-0-0-0-0-8");
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataHashText, SignsAndBlanksThatQtAcceptsAreAccepted)
{
    EXPECT_EQ(ZebDataHash(QString("+5- 6-7 -\t8\n-0009-00000000000010-+-1 1")).toString(),
              "5-6-7-8-9-10-0-0");
}

TEST(ZebDataHashText, ATextWithoutPartsLeavesTheSizeAndNoDigest)
{
    const MessageCapture messages;
    for (const char* text : {"", "-", "-----", "-------------------------------"}) {
        ZebDataHash hash(QByteArray("before"), ZebDataHash::Hash512);
        hash.fromString(text);
        EXPECT_EQ(hash.size(), ZebDataHash::Hash512) << text;
        EXPECT_TRUE(HashInside::digest(hash).isEmpty()) << text;
        const ZebDataHash built{QString(text)};
        EXPECT_EQ(built.size(), ZebDataHash::Hash256) << text;
        EXPECT_TRUE(built == ZebDataHash()) << text;
    }
    ZebDataHash hash(QByteArray("before"), ZebDataHash::Hash512);
    hash.fromString(QString());
    EXPECT_TRUE(HashInside::digest(hash).isEmpty());
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebDataHashText, AnUnknownWidthLeavesTheSizeAndNoDigest)
{
    for (const int groups : {1, 2, 7, 9, 15, 17, 24, 31, 33, 64, 128, 256}) {
        const MessageCapture messages;
        QStringList parts;
        for (int i = 0; i < groups; ++i)
            parts.append("1");
        ZebDataHash hash(QByteArray("before"), ZebDataHash::Hash1024);
        hash.setUserId(4);
        hash.fromString(parts.join("-"));
        EXPECT_EQ(hash.size(), ZebDataHash::Hash1024) << groups;
        EXPECT_TRUE(HashInside::digest(hash).isEmpty()) << groups;
        EXPECT_EQ(hash.userId(), 4) << groups;
        // The message contains a width in bytes, although it says bits.
        ASSERT_EQ(messages.messages().size(), 1) << groups;
        EXPECT_EQ(messages.messages().first().m_Text,
                  "Unknown Hash Bit Size " + QString::number(4 * groups));
        EXPECT_EQ(messages.messages().first().m_Type, QtDebugMsg);
        EXPECT_FALSE(messages.messages().first().m_HasContext);
    }
}

TEST(ZebDataHashText, AHashOfAnUnknownWidthHasNoText)
{
    const MessageCapture messages;
    EXPECT_FATAL(ZebDataHash(QString("1-2-3")).toString(),
                 "Size of data is incorrect is 0, should be 32");
    ZebDataHash hash(QByteArray("before"), ZebDataHash::Hash512);
    hash.fromString("1-2-3");
    EXPECT_FATAL(hash.toString(), "Size of data is incorrect is 0, should be 64");
}

TEST(ZebDataHashText, ParsingReplacesDigestAndSizeOnly)
{
    const ZebDataHash wanted(QByteArray("wanted"), ZebDataHash::Hash256);
    ZebDataHash hash(QByteArray("before"), ZebDataHash::Hash1024);
    hash.setUserId(4);
    hash.setDontCache(true);
    hash.setPreloading(true);
    const ZebDataHash copy(hash);
    hash.fromString(wanted.toString());
    EXPECT_TRUE(hash == wanted);
    EXPECT_EQ(hash.userId(), 4);
    EXPECT_TRUE(hash.isDontCache());
    EXPECT_TRUE(hash.isPreloading());
    EXPECT_TRUE(copy == ZebDataHash(QByteArray("before"), ZebDataHash::Hash1024));
}
