#include "io/ZebBlockPlace.h"

#include "hash/ZebBlockName.h"
#include "hash/ZebDataHash.h"
#include "support/BlockFiles.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>

namespace {

constexpr int s_NameWords = 16;

// The name of a block whose digest begins with these words.
std::string nameFrom(const std::string& firstWords)
{
    std::string text = firstWords;
    int words = 1;
    for (const char character : firstWords)
        words += character == '-' ? 1 : 0;
    for (; words < s_NameWords; ++words)
        text += "-" + std::to_string(words);
    return text;
}

ZebBlockPlace placeOf(const std::string& text, int roots, int buckets)
{
    const std::optional<ZebBlockName> name = ZebBlockName::parse(text);
    EXPECT_TRUE(name.has_value()) << text;
    return ZebBlockPlace::of(name.value_or(ZebBlockName()), roots, buckets);
}

// The rule once more, from the characters of the text.
int rootByTheText(const std::string& text, int roots)
{
    int sum = 0;
    for (const char character : text.substr(0, 4))
        sum += character == '-' ? -1 : character - '0';
    const int remainder = sum % roots;
    return remainder < 0 ? -1 : remainder;
}

int bucketOf(const QByteArray& digest, int buckets)
{
    return ZebBlockPlace::bucketOf(reinterpret_cast<const unsigned char*>(digest.constData()),
                                   digest.size(), buckets);
}

} // namespace

// The root

TEST(ZebBlockPlace, TheRootIsTheSumOfFourDigitsModuloTheRoots)
{
    const struct
    {
        const char* m_Words;
        int m_Roots;
        int m_Root;
    } vectors[] = {
        {"1234567", 3, (1 + 2 + 3 + 4) % 3},
        {"1234567", 11, 10},
        {"9999", 100, 36},
        {"9999", 7, 1},
        {"4294967295", 20, 4 + 2 + 9 + 4},
        {"1000000000", 2, 1},
        {"1234567", 1, 0},
    };
    for (const auto& vector : vectors)
        EXPECT_EQ(placeOf(nameFrom(vector.m_Words), vector.m_Roots, 10).m_Root, vector.m_Root)
            << vector.m_Words << ", " << vector.m_Roots;
}

TEST(ZebBlockPlace, ADashCountsAsMinusOne)
{
    EXPECT_EQ(placeOf(nameFrom("123-4"), 100, 10).m_Root, 1 + 2 + 3 - 1);
    EXPECT_EQ(placeOf(nameFrom("12-34"), 100, 10).m_Root, 1 + 2 - 1 + 3);
    EXPECT_EQ(placeOf(nameFrom("7-30"), 100, 10).m_Root, 7 - 1 + 3 + 0);
    EXPECT_EQ(placeOf(nameFrom("1-2-3"), 100, 10).m_Root, 1 - 1 + 2 - 1);
    EXPECT_EQ(placeOf(nameFrom("100-1"), 100, 10).m_Root, 0);
}

TEST(ZebBlockPlace, ANegativeSumLeadsToARootOnlyWhereItDivides)
{
    const struct
    {
        const char* m_Words;
        int m_Roots;
        int m_Root;
    } vectors[] = {
        {"0-0-0", 1, 0},  {"0-0-0", 2, 0},  {"0-0-0", 3, -1}, {"0-0-0", 4, -1}, {"1-0-0", 1, 0},
        {"1-0-0", 2, -1}, {"0-1-0", 2, -1}, {"0-1-0", 1, 0},  {"0-10", 2, 0},
    };
    for (const auto& vector : vectors)
        EXPECT_EQ(placeOf(nameFrom(vector.m_Words), vector.m_Roots, 10).m_Root, vector.m_Root)
            << vector.m_Words << ", " << vector.m_Roots;
    const QString dashes = "----";
    EXPECT_LT(ZebBlockPlace::rootOf(dashes.constData(), 3), 0);
    EXPECT_EQ(ZebBlockPlace::rootOf(dashes.constData(), 2), 0);
}

TEST(ZebBlockPlace, OnlyFourCharactersDecideTheRoot)
{
    const QString text = "1234999";
    EXPECT_EQ(ZebBlockPlace::rootOf(text.constData(), 100), 10);
    EXPECT_EQ(ZebBlockPlace::rootOf(text.constData() + 3, 100), 4 + 9 + 9 + 9);
}

// The bucket

TEST(ZebBlockPlace, TheBucketIsTheFirstWordUnsignedModuloTheBuckets)
{
    const struct
    {
        const char* m_Word;
        int m_Buckets;
        int m_Bucket;
    } vectors[] = {
        {"0", 10, 0},
        {"1234567", 10, 7},
        {"1234567", 1000, 567},
        {"1234567", 1, 0},
        {"4294967295", 10, 5},
        {"4294967295", 0x7FFFFFFF, 1},
        {"2147483648", 1000, 648},
    };
    for (const auto& vector : vectors)
        EXPECT_EQ(placeOf(nameFrom(vector.m_Word), 1, vector.m_Buckets).m_Bucket, vector.m_Bucket)
            << vector.m_Word << ", " << vector.m_Buckets;
}

TEST(ZebBlockPlace, BytesThatADigestDoesNotHaveCountAsZero)
{
    EXPECT_EQ(bucketOf(QByteArray::fromHex("010203"), 1 << 30), 0x030201);
    EXPECT_EQ(bucketOf(QByteArray::fromHex("0102"), 1 << 30), 0x0201);
    EXPECT_EQ(bucketOf(QByteArray::fromHex("01020304"), 1 << 30), 0x04030201);
    EXPECT_EQ(bucketOf(QByteArray::fromHex("0102030405"), 1 << 30), 0x04030201);
    EXPECT_EQ(bucketOf(QByteArray("x").left(0), 10), 0);
}

// Both, and the directory

TEST(ZebBlockPlace, AgreesWithTheRulesOnRandomDigests)
{
    std::mt19937 random(20261122);
    int withoutRoot = 0;
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        for (int word = 0; word < s_NameWords; ++word) {
            // Of every length: short words bring dashes to the beginning.
            const quint32 value = static_cast<quint32>(random()) >> (random() % 32);
            text += (word == 0 ? "" : "-") + std::to_string(value);
        }
        const ZebDataHash hash(QString::fromStdString(text));
        for (const int roots : {1, 2, 3, 7}) {
            for (const int buckets : {1, 10, 1000}) {
                const ZebBlockPlace place = placeOf(text, roots, buckets);
                ASSERT_EQ(place.m_Root, rootByTheText(text, roots)) << text;
                ASSERT_EQ(BlockFiles::bucketOf(hash, "/cache", "sub", buckets),
                          "/cache/sub/" + QString::number(place.m_Bucket))
                    << text;
                withoutRoot += place.m_Root < 0 ? 1 : 0;
            }
        }
    }
    EXPECT_GT(withoutRoot, 0) << "the oddest names are among them";
}

TEST(ZebBlockPlace, TheDirectoryJoinsItsPartsAsTheyAre)
{
    EXPECT_EQ(ZebBlockPlace::directory("/a/root", "Sub", 3), "/a/root/Sub/3/");
    EXPECT_EQ(ZebBlockPlace::directory("/a/root", QString(), 3), "/a/root//3/");
    EXPECT_EQ(ZebBlockPlace::directory("rel/../root/", "x/./y", 10), "rel/../root//x/./y/10/");
    EXPECT_EQ(ZebBlockPlace::directory(QString(), QString(), 0), "//0/");
    EXPECT_EQ(ZebBlockPlace::directory("/%1", "%2", 7), "/%1/%2/7/");
}
