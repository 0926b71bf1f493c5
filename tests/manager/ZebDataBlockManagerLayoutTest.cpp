#include "manager/ZebDataBlockManager.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebBuildFilename.h"
#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/PrivateAccess.h"
#include "support/TemporaryStore.h"

#include <QDir>

#include <gtest/gtest.h>

#include <random>
#include <vector>

ZEBTDX_ACCESS(IndexOfTextTag, ZebDataBlockManager, int (ZebDataBlockManager::*)(const QString&),
              cacheIndex)
ZEBTDX_ACCESS(IndexOfHashTag, ZebDataBlockManager, int (ZebDataBlockManager::*)(const ZebDataHash*),
              cacheIndex)
ZEBTDX_ACCESS(CacheRootsTag, ZebDataBlockManager, QStringList ZebDataBlockManager::*, m_CacheRoots)
ZEBTDX_ACCESS(SubCacheTag, ZebDataBlockManager, QString ZebDataBlockManager::*, m_SubCache)

namespace {

using Words = std::vector<quint32>;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

int indexOf(const QString& text)
{
    return (manager().*privateMember(IndexOfTextTag()))(text);
}

int indexOf(const ZebDataHash* hash)
{
    return (manager().*privateMember(IndexOfHashTag()))(hash);
}

ZebDataHash hashOf(const Words& words)
{
    QByteArray digest;
    for (const quint32 word : words) {
        for (int byte = 0; byte < 4; ++byte)
            digest.append(static_cast<char>(word >> (8 * byte)));
    }
    return ZebDataHash(static_cast<ZebDataHash::Size>(digest.size()),
                       reinterpret_cast<unsigned char*>(digest.data()));
}

Words padded(Words words, size_t count)
{
    words.resize(count, 5);
    return words;
}

// What decides the root, reckoned from the text alone.
int digitSum(const QString& text)
{
    int sum = 0;
    for (int i = 0; i < 4; ++i) {
        const int value = QStringLiteral("0123456789").indexOf(text.at(i));
        sum += value;
    }
    return sum;
}

TemporaryStore::Options withRoots(int roots)
{
    TemporaryStore::Options options;
    options.m_Roots = roots;
    return options;
}

} // namespace

TEST(ZebDataBlockManagerLayout, TheRootIsTheDigitSumOfTheFirstFourDigitsModuloTheRoots)
{
    const QString text = QStringLiteral("1234567890-1-2-3");
    for (int roots = 1; roots <= 12; ++roots) {
        const TemporaryStore store(withRoots(roots));
        EXPECT_EQ(indexOf(text), 10 % roots) << roots;
        EXPECT_EQ(indexOf(QStringLiteral("9999-0")), 36 % roots) << roots;
        EXPECT_EQ(indexOf(QStringLiteral("1000-99")), 1 % roots) << roots;
    }
    const TemporaryStore two(withRoots(2));
    EXPECT_EQ(indexOf(text), 0);
}

TEST(ZebDataBlockManagerLayout, ATextOfFourCharactersIsLongEnough)
{
    const TemporaryStore store(withRoots(3));
    EXPECT_EQ(indexOf(QStringLiteral("1234")), 1);
    EXPECT_EQ(indexOf(QStringLiteral("0000")), 0);
    EXPECT_EQ(indexOf(QStringLiteral("12-4")), 0);
}

TEST(ZebDataBlockManagerLayout, OnlyTheFirstFourCharactersDecide)
{
    const TemporaryStore store(withRoots(7));
    EXPECT_EQ(indexOf(QStringLiteral("1234")), 3);
    EXPECT_EQ(indexOf(QStringLiteral("12349999-8")), 3);
    EXPECT_EQ(indexOf(QStringLiteral("1234 and whatever follows")), 3);
}

TEST(ZebDataBlockManagerLayout, ACharacterThatIsNoDigitCountsAsMinusOne)
{
    const TemporaryStore store(withRoots(10));
    EXPECT_EQ(indexOf(QStringLiteral("123-9")), 5);
    EXPECT_EQ(indexOf(QStringLiteral("12-34")), 5);
    EXPECT_EQ(indexOf(QStringLiteral("7-8-9")), 13 % 10);
    EXPECT_EQ(indexOf(QStringLiteral("9x?z")), 6);
    // Digits of other scripts are digits to Qt.
    const QString arabic = QString(QChar(0x0663)) + QStringLiteral("000");
    EXPECT_EQ(indexOf(arabic), 3);
}

TEST(ZebDataBlockManagerLayout, ANegativeDigitSumThatDividesLeadsToTheFirstRoot)
{
    {
        const TemporaryStore one(withRoots(1));
        EXPECT_EQ(indexOf(QStringLiteral("0-0-0")), 0);
        EXPECT_EQ(indexOf(QStringLiteral("0-1-0")), 0);
        EXPECT_EQ(indexOf(QStringLiteral("----")), 0);
    }
    const TemporaryStore two(withRoots(2));
    EXPECT_EQ(indexOf(QStringLiteral("0-0-0")), 0);
    EXPECT_EQ(indexOf(QStringLiteral("----")), 0);
    const ZebDataHash hash = hashOf(padded({0, 0}, 16));
    EXPECT_EQ(indexOf(&hash), 0);
}

TEST(ZebDataBlockManagerLayout, TheHashFormGivesWhatItsTextGives)
{
    std::mt19937 random(99);
    for (const int roots : {1, 2, 3, 10, 37}) {
        const TemporaryStore store(withRoots(roots));
        for (const int bytes : {32, 64, 128, 4, 8, 12, 48, 100, 252}) {
            for (int round = 0; round < 60; ++round) {
                Words words(static_cast<size_t>(bytes / 4));
                for (quint32& word : words)
                    word = static_cast<quint32>(random());
                // A word of four digits at least, so that there is a root in any case.
                words[0] = qMax(words[0] >> (random() % 20), 1000U);
                const ZebDataHash hash = hashOf(words);
                const QString text = hash.toString();
                const int expected = digitSum(text) % roots;
                ASSERT_EQ(indexOf(text), expected) << text.toStdString();
                ASSERT_EQ(indexOf(&hash), expected) << text.toStdString();
            }
        }
    }
}

TEST(ZebDataBlockManagerLayout, TheHashFormGivesWhatItsTextGivesForFirstWordsOfFewDigits)
{
    const Words firsts = {0, 1, 2, 7, 9, 10, 12, 99, 100, 123, 999, 1000, 1234};
    const Words seconds = {0, 1, 5, 9, 10, 99, 1000, 4294967295U};
    const Words thirds = {0, 3, 42, 987654};
    int compared = 0;
    for (const int roots : {1, 2, 3, 5, 40}) {
        const TemporaryStore store(withRoots(roots));
        for (const quint32 first : firsts) {
            for (const quint32 second : seconds) {
                for (const quint32 third : thirds) {
                    for (const size_t count : {3U, 8U, 16U, 32U, 63U}) {
                        const ZebDataHash hash = hashOf(padded({first, second, third}, count));
                        const QString text = hash.toString();
                        const int expected = digitSum(text) % roots;
                        if (expected < 0)
                            continue;
                        ASSERT_EQ(indexOf(text), expected) << text.toStdString();
                        ASSERT_EQ(indexOf(&hash), expected) << text.toStdString();
                        ++compared;
                    }
                }
            }
        }
    }
    EXPECT_GT(compared, 10000);
}

TEST(ZebDataBlockManagerLayout, ANegativeIndexEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(2));
            indexOf(QStringLiteral("0-1-2"));
        },
        "Cannot find suitable cache reading thread -1 for 0-1-2");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(3));
            indexOf(QStringLiteral("0-0-17"));
        },
        "Cannot find suitable cache reading thread -2 for 0-0-17");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(40));
            indexOf(QStringLiteral("----"));
        },
        "Cannot find suitable cache reading thread -4 for ----");
}

TEST(ZebDataBlockManagerLayout, ANegativeIndexOfAHashEndsTheProcessWithItsWholeText)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(2));
            const ZebDataHash hash = hashOf(padded({1, 0}, 8));
            indexOf(&hash);
        },
        "Cannot find suitable cache reading thread -1 for 1-0-5-5-5-5-5-5");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(3));
            const ZebDataHash hash = hashOf(padded({0, 0}, 8));
            indexOf(&hash);
        },
        "Cannot find suitable cache reading thread -2 for 0-0-5-5-5-5-5-5");
}

TEST(ZebDataBlockManagerLayout, ATextUnderFourCharactersEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            indexOf(QStringLiteral("123"));
        },
        "Hash String is too Short 123");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            indexOf(QString());
        },
        "Hash String is too Short ");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const ZebDataHash hash = hashOf({12});
            indexOf(&hash);
        },
        "Hash String is too Short 12");
}

TEST(ZebDataBlockManagerLayout, AShortTextIsTestedBeforeItsDigits)
{
    // One more character, and the same text would end for want of a root.
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(2));
            indexOf(QStringLiteral("0-1"));
        },
        "Hash String is too Short 0-1");
}

TEST(ZebDataBlockManagerLayout, AStoreWithoutRootsHasNoIndex)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(0));
            indexOf(QStringLiteral("1234"));
        },
        "Number of cache paths is zero");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(0));
            const ZebDataHash hash = hashOf(padded({1234}, 8));
            indexOf(&hash);
        },
        "Number of cache paths is zero");
    // The missing roots come before the missing characters.
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(0));
            const ZebDataHash hash = hashOf({1});
            indexOf(&hash);
        },
        "Number of cache paths is zero");
}

TEST(ZebDataBlockManagerLayout, TheTextFormLooksForRootsThenLengthThenSetUp)
{
    // Nothing is set up here, and yet that is the last thing to be found out.
    EXPECT_FATAL(indexOf(QStringLiteral("12")), "Number of cache paths is zero");
    EXPECT_FATAL(
        {
            manager().*privateMember(CacheRootsTag()) = QStringList(QStringLiteral("/root"));
            indexOf(QStringLiteral("12"));
        },
        "Hash String is too Short 12");
    EXPECT_FATAL(
        {
            manager().*privateMember(CacheRootsTag()) = QStringList(QStringLiteral("/root"));
            indexOf(QStringLiteral("0-1-"));
        },
        "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockManagerLayout, TheHashFormLooksForSetUpFirst)
{
    EXPECT_FATAL(indexOf(static_cast<const ZebDataHash*>(nullptr)),
                 "Data Block Manager Not Initialized. Aborting");
    EXPECT_FATAL(
        {
            const ZebDataHash hash = hashOf({1});
            indexOf(&hash);
        },
        "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockManagerLayout, ANullHashHasNoRoot)
{
    {
        const TemporaryStore store;
        EXPECT_EQ(indexOf(static_cast<const ZebDataHash*>(nullptr)), -1);
    }
    const TemporaryStore rootless(withRoots(0));
    EXPECT_EQ(indexOf(static_cast<const ZebDataHash*>(nullptr)), -1);
}

TEST(ZebDataBlockManagerLayout, AHashWithoutADigestEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const ZebDataHash hash;
            indexOf(&hash);
        },
        "Size of data is incorrect is 0, should be 32");
}

TEST(ZebDataBlockManagerLayout, HashesOfEqualFirstWordShareRootAndBucket)
{
    const TemporaryStore store(withRoots(5));
    const ZebDataHash one = hashOf(padded({1234, 1}, 16));
    const ZebDataHash other = hashOf(padded({1234, 2}, 16));
    EXPECT_EQ(indexOf(&one), indexOf(&other));
    const QString path = manager().getBlockDestination(QString(), one.toString());
    const QString otherPath = manager().getBlockDestination(QString(), other.toString());
    EXPECT_EQ(path.left(path.lastIndexOf(QDir::separator())),
              otherPath.left(otherPath.lastIndexOf(QDir::separator())));
    EXPECT_NE(path, otherPath);
}

TEST(ZebDataBlockManagerLayout, TheDestinationJoinsRootSubCacheBucketAndName)
{
    TemporaryStore::Options options;
    options.m_Roots = 3;
    options.m_Buckets = 20;
    const TemporaryStore store(options);
    // Digit sums of 10 and 30, and 9 as the remainder of both words by 20.
    const QString text = hashOf(padded({123456789}, 16)).toString();
    const QString first = hashOf(padded({6789}, 16)).toString();
    EXPECT_EQ(manager().getBlockDestination(QStringLiteral("Sub"), text),
              store.roots().at(10 % 3) + QStringLiteral("/Sub/9/") + text);
    EXPECT_EQ(manager().getBlockDestination(QString(), first),
              store.roots().at(30 % 3) + QStringLiteral("//9/") + first);
}

TEST(ZebDataBlockManagerLayout, TheDestinationDoesNotDependOnTheCurrentSubCache)
{
    const TemporaryStore store;
    const QString text = hashOf(padded({1234}, 16)).toString();
    const QString before = manager().getBlockDestination(QStringLiteral("Named"), text);
    QString& current = manager().*privateMember(SubCacheTag());
    EXPECT_TRUE(current.isEmpty());
    current = QStringLiteral("Current");
    EXPECT_EQ(manager().getBlockDestination(QStringLiteral("Named"), text), before);
    EXPECT_EQ(manager().getBlockDestination(QString(), text),
              store.roots().at(0) + QStringLiteral("//4/") + text);
    current.clear();
}

TEST(ZebDataBlockManagerLayout, TheDestinationIsWhereTheFilenameBuilderSays)
{
    std::mt19937 random(5);
    const TemporaryStore store(withRoots(4));
    for (int round = 0; round < 200; ++round) {
        Words words(16);
        for (quint32& word : words)
            word = static_cast<quint32>(random()) | 0x1000U;
        const ZebDataHash hash = hashOf(words);
        QString directory;
        QString fileName;
        ASSERT_TRUE(ZebBuildFilename(&hash, store.roots().at(indexOf(&hash)), QStringLiteral("S"),
                                     manager().numBuckets(), directory, fileName));
        ASSERT_EQ(manager().getBlockDestination(QStringLiteral("S"), hash.toString()),
                  directory + fileName);
    }
    EXPECT_TRUE(QDir(store.roots().at(0)).isEmpty());
}

TEST(ZebDataBlockManagerLayout, TheDestinationIsThatOfTheHashAndNotOfItsSpelling)
{
    const TemporaryStore store(withRoots(10));
    const QString text = hashOf(padded({1234}, 8)).toString();
    // Zeros in front and empty groups are no part of the hash.
    const QString spelled = QStringLiteral("001234--") + text.mid(5) + QLatin1Char('-');
    EXPECT_EQ(manager().getBlockDestination(QString(), spelled),
              store.roots().at(0) + QStringLiteral("//4/") + text);
}

TEST(ZebDataBlockManagerLayout, TheDestinationNeedsAHashOfKnownWidth)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            manager().getBlockDestination(QString(), QStringLiteral("1234-5"));
        },
        "Size of data is incorrect is 0, should be 32");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            manager().getBlockDestination(QString(), QString());
        },
        "Size of data is incorrect is 0, should be 32");
}

TEST(ZebDataBlockManagerLayout, TheDestinationNeedsAStoreThatIsSetUp)
{
    // Found out before the text is looked at, and after it has been read.
    EXPECT_FATAL(manager().getBlockDestination(QString(), QStringLiteral("1234-5")),
                 "Data Block Manager Not Initialized. Aborting");
    EXPECT_FATAL(
        {
            TemporaryStore store;
            store.cleanUp();
            manager().getBlockDestination(QString(), hashOf(padded({1234}, 16)).toString());
        },
        "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockManagerLayout, TheDestinationNeedsARoot)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(0));
            manager().getBlockDestination(QString(), hashOf(padded({1234}, 16)).toString());
        },
        "Number of cache paths is zero");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(2));
            manager().getBlockDestination(QString(), hashOf(padded({0, 1}, 8)).toString());
        },
        "Cannot find suitable cache reading thread -1 for 0-1-5-5-5-5-5-5");
}

TEST(ZebDataBlockManagerLayout, ADestinationInternsNoHash)
{
    const TemporaryStore store;
    const QString text = hashOf(padded({1234}, 16)).toString();
    const qint64 before = manager().managedBlocks();
    manager().getBlockDestination(QString(), text);
    EXPECT_EQ(manager().managedBlocks(), before);
    EXPECT_FALSE(ZebHashManager::instance().isHashLive(text));
}

TEST(ZebDataBlockManagerLayout, RootsAndBucketsAreThoseOfSetUp)
{
    TemporaryStore::Options options;
    options.m_Memory = 2147483648;
    options.m_Buckets = 20;
    TemporaryStore store(options);
    EXPECT_EQ(manager().numBuckets(), 20);
    EXPECT_EQ(manager().cacheRoots(), store.roots());
    store.cleanUp();
    EXPECT_EQ(manager().numBuckets(), 0);
    EXPECT_TRUE(manager().cacheRoots().isEmpty());
}
