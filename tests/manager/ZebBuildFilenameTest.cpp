#include "manager/ZebBuildFilename.h"

#include "hash/ZebDataHash.h"
#include "support/Fatal.h"
#include "support/MessageCapture.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QHash>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

const QString s_Root = QStringLiteral("/a/root");

// A digest that begins with these words, in the byte order of the file format, and goes on in 9s.
ZebDataHash hashOf(const std::vector<quint32>& words, int size = ZebDataHash::Hash512)
{
    QByteArray digest(size, '\x09');
    for (size_t i = 0; i < words.size(); ++i) {
        for (size_t byte = 0; byte < 4; ++byte)
            digest[static_cast<int>(4 * i + byte)] = static_cast<char>(words[i] >> (8 * byte));
    }
    return ZebDataHash(static_cast<ZebDataHash::Size>(size),
                       reinterpret_cast<unsigned char*>(digest.data()));
}

QString bucketOf(const ZebDataHash& hash, int bucketCount)
{
    QString directory;
    QString fileName;
    EXPECT_TRUE(
        ZebBuildFilename(&hash, s_Root, QStringLiteral("S"), bucketCount, directory, fileName));
    const QString beginning = s_Root + QDir::separator() + QLatin1Char('S') + QDir::separator();
    EXPECT_TRUE(directory.startsWith(beginning)) << directory.toStdString();
    EXPECT_TRUE(directory.endsWith(QDir::separator())) << directory.toStdString();
    return directory.mid(beginning.size(), directory.size() - beginning.size() - 1);
}

} // namespace

TEST(ZebBuildFilename, ANullHashIsLoggedAndChangesNoResult)
{
    const MessageCapture messages;
    QString directory = QStringLiteral("before");
    QString fileName = QStringLiteral("as well");
    EXPECT_FALSE(ZebBuildFilename(nullptr, s_Root, QString(), 10, directory, fileName));
    EXPECT_EQ(directory, QStringLiteral("before"));
    EXPECT_EQ(fileName, QStringLiteral("as well"));
    EXPECT_EQ(messages.debugLines(),
              QStringList(QStringLiteral("Null Hash Passed to Filename Builder")));
    EXPECT_FALSE(messages.messages().at(0).m_HasContext);
}

TEST(ZebBuildFilename, JoinsRootSubCacheAndBucketAndEndsInASeparator)
{
    const MessageCapture messages;
    const ZebDataHash hash = hashOf({123});
    QString directory = QStringLiteral("before");
    QString fileName = QStringLiteral("before");
    EXPECT_TRUE(ZebBuildFilename(&hash, s_Root, QStringLiteral("Sub"), 10, directory, fileName));
    EXPECT_EQ(directory, QStringLiteral("/a/root/Sub/3/"));
    EXPECT_EQ(fileName, hash.toString());
    EXPECT_TRUE(messages.messages().isEmpty());
}

TEST(ZebBuildFilename, AnEmptySubCacheLeavesTwoSeparators)
{
    const ZebDataHash hash = hashOf({123});
    QString directory;
    QString fileName;
    EXPECT_TRUE(ZebBuildFilename(&hash, s_Root, QString(), 10, directory, fileName));
    EXPECT_EQ(directory, QStringLiteral("/a/root//3/"));
}

TEST(ZebBuildFilename, PathsAreNotNormalised)
{
    const ZebDataHash hash = hashOf({123});
    QString directory;
    QString fileName;
    EXPECT_TRUE(ZebBuildFilename(&hash, QStringLiteral("rel/../root/"), QStringLiteral("x/./y"), 10,
                                 directory, fileName));
    EXPECT_EQ(directory, QStringLiteral("rel/../root//x/./y/3/"));
    EXPECT_TRUE(ZebBuildFilename(&hash, QString(), QString(), 10, directory, fileName));
    EXPECT_EQ(directory, QStringLiteral("//3/"));
}

TEST(ZebBuildFilename, PlaceMarkersInTheNamesStayAsTheyAre)
{
    const ZebDataHash hash = hashOf({123});
    QString directory;
    QString fileName;
    EXPECT_TRUE(ZebBuildFilename(&hash, QStringLiteral("/%1"), QStringLiteral("%2"), 10, directory,
                                 fileName));
    EXPECT_EQ(directory, QStringLiteral("/%1/%2/3/"));
}

TEST(ZebBuildFilename, TheBucketIsTheFirstWordUnsignedModuloTheCount)
{
    EXPECT_EQ(bucketOf(hashOf({0}), 10), QStringLiteral("0"));
    EXPECT_EQ(bucketOf(hashOf({1234567}), 10), QStringLiteral("7"));
    EXPECT_EQ(bucketOf(hashOf({1234567}), 1000), QStringLiteral("567"));
    EXPECT_EQ(bucketOf(hashOf({1000003}), 1000), QStringLiteral("3"));
    EXPECT_EQ(bucketOf(hashOf({1234567}), 1), QStringLiteral("0"));
    // As a signed word this one would be -1.
    EXPECT_EQ(bucketOf(hashOf({0xFFFFFFFF}), 10), QStringLiteral("5"));
    EXPECT_EQ(bucketOf(hashOf({0x80000000}), 1000), QStringLiteral("648"));
    EXPECT_EQ(bucketOf(hashOf({0xFFFFFFFF}), 0x7FFFFFFF), QStringLiteral("1"));
}

TEST(ZebBuildFilename, OnlyTheFirstWordDecidesTheBucket)
{
    EXPECT_EQ(bucketOf(hashOf({42, 1}), 20), bucketOf(hashOf({42, 0xFFFFFFFF}), 20));
    EXPECT_NE(bucketOf(hashOf({42, 1}), 20), bucketOf(hashOf({43, 1}), 20));
}

TEST(ZebBuildFilename, EveryLengthOfDigestHasItsPlace)
{
    for (const int size : {4, 32, 64, 128, 252}) {
        const ZebDataHash hash = hashOf({4000000123}, size);
        QString directory;
        QString fileName;
        EXPECT_TRUE(ZebBuildFilename(&hash, s_Root, QStringLiteral("S"), 100, directory, fileName));
        EXPECT_EQ(directory, QStringLiteral("/a/root/S/23/")) << size;
        EXPECT_EQ(fileName, hash.toString()) << size;
        EXPECT_EQ(fileName.count(QLatin1Char('-')), size / 4 - 1) << size;
    }
}

TEST(ZebBuildFilename, HashesOfEqualFirstWordShareTheirBucketAndDifferInTheirName)
{
    const ZebDataHash one = hashOf({987654321, 1});
    const ZebDataHash other = hashOf({987654321, 2});
    QString directory;
    QString otherDirectory;
    QString fileName;
    QString otherFileName;
    ASSERT_TRUE(ZebBuildFilename(&one, s_Root, QString(), 17, directory, fileName));
    ASSERT_TRUE(ZebBuildFilename(&other, s_Root, QString(), 17, otherDirectory, otherFileName));
    EXPECT_EQ(directory, otherDirectory);
    EXPECT_NE(fileName, otherFileName);
}

TEST(ZebBuildFilename, AHashWithoutADigestEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const ZebDataHash hash;
            QString directory;
            QString fileName;
            ZebBuildFilename(&hash, s_Root, QString(), 10, directory, fileName);
        },
        "Size of data is incorrect is 0, should be 32");
}

TEST(ZebBuildFilename, NothingIsCreatedOnDisk)
{
    const QTemporaryDir root;
    const ZebDataHash hash = hashOf({123});
    QString directory;
    QString fileName;
    ASSERT_TRUE(ZebBuildFilename(&hash, root.path(), QStringLiteral("S"), 10, directory, fileName));
    EXPECT_TRUE(QDir(root.path()).isEmpty());
}

// A tree of one file for each of many random contents.
class ZebBuildFilenameTree : public ::testing::Test
{
protected:
    static constexpr int s_Contents = 1000;
    static constexpr int s_Buckets = 10;
    static constexpr int s_ContentBytes = 256 * 1024;

    void SetUp() override
    {
        std::mt19937_64 random(4711);
        QByteArray content(s_ContentBytes, '\0');
        for (int i = 0; i < s_Contents; ++i) {
            for (int at = 0; at < s_ContentBytes; at += 8) {
                const quint64 word = random();
                std::memcpy(content.data() + at, &word, sizeof word);
            }
            const ZebDataHash hash(content, ZebDataHash::Hash512);
            QString directory;
            QString fileName;
            ASSERT_TRUE(ZebBuildFilename(&hash, m_Root.path(), QStringLiteral("SubCache"),
                                         s_Buckets, directory, fileName));
            ASSERT_TRUE(QDir().mkpath(directory));
            QFile file(directory + fileName);
            ASSERT_FALSE(file.exists());
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            ASSERT_EQ(file.write(content.left(16)), 16);
            m_Samples.insert(fileName, content.left(16));
        }
    }

    QString subCachePath() const { return m_Root.path() + QStringLiteral("/SubCache"); }

    QTemporaryDir m_Root;
    QHash<QString, QByteArray> m_Samples;
};

TEST_F(ZebBuildFilenameTree, FilesSpreadEvenlyOverAllBuckets)
{
    EXPECT_EQ(QDir(m_Root.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
              QStringList(QStringLiteral("SubCache")));
    const QStringList buckets =
        QDir(subCachePath()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries, QDir::Name);
    QStringList expected;
    for (int bucket = 0; bucket < s_Buckets; ++bucket)
        expected.append(QString::number(bucket));
    ASSERT_EQ(buckets, expected);

    constexpr double mean = double(s_Contents) / s_Buckets;
    double squares = 0;
    int files = 0;
    for (const QString& bucket : buckets) {
        const int count = QDir(subCachePath() + QLatin1Char('/') + bucket)
                              .entryList(QDir::NoDotAndDotDot | QDir::AllEntries)
                              .size();
        files += count;
        squares += (count - mean) * (count - mean);
    }
    EXPECT_EQ(files, s_Contents);
    const double deviation = std::sqrt(squares / (s_Buckets - 1));
    EXPECT_LE(deviation / s_Contents, 0.05);
    // Random contents do not fill buckets in turn.
    EXPECT_GT(deviation, 0.0);
}

TEST_F(ZebBuildFilenameTree, AListingOfTheTreeYieldsTheHashes)
{
    const MessageCapture messages;
    int files = 0;
    QDirIterator walk(m_Root.path(), QDir::Files, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        ++files;
        const ZebDataHash hash(walk.fileName());
        QString directory;
        QString fileName;
        ASSERT_TRUE(ZebBuildFilename(&hash, m_Root.path(), QStringLiteral("SubCache"), s_Buckets,
                                     directory, fileName));
        ASSERT_EQ(directory + fileName, path);
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        ASSERT_TRUE(m_Samples.contains(fileName));
        ASSERT_EQ(file.readAll(), m_Samples.value(fileName));
    }
    EXPECT_EQ(files, s_Contents);
    EXPECT_TRUE(messages.messages().isEmpty());
}
