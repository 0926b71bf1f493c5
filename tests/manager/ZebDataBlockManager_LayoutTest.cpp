// Where the file of a block lies, by its hash alone.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebBuildFilename.h"
#include "support/Fatal.h"
#include "support/Manager.h"
#include "support/MessageCapture.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/ZebDataDeleteLocker.h"

#include <QDir>

#include <gtest/gtest.h>

#include <random>
#include <vector>

using StoreInside::cacheIndex;

namespace {

using Words = std::vector<quint32>;

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

// What decides the root, computed from the text alone.
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
        EXPECT_EQ(cacheIndex(text), 10 % roots) << roots;
        EXPECT_EQ(cacheIndex(QStringLiteral("9999-0")), 36 % roots) << roots;
        EXPECT_EQ(cacheIndex(QStringLiteral("1000-99")), 1 % roots) << roots;
    }
    const TemporaryStore two(withRoots(2));
    EXPECT_EQ(cacheIndex(text), 0);
}

TEST(ZebDataBlockManagerLayout, ATextOfFourCharactersIsLongEnough)
{
    const TemporaryStore store(withRoots(3));
    EXPECT_EQ(cacheIndex(QStringLiteral("1234")), 1);
    EXPECT_EQ(cacheIndex(QStringLiteral("0000")), 0);
    EXPECT_EQ(cacheIndex(QStringLiteral("12-4")), 0);
}

TEST(ZebDataBlockManagerLayout, OnlyTheFirstFourCharactersDecide)
{
    const TemporaryStore store(withRoots(7));
    EXPECT_EQ(cacheIndex(QStringLiteral("1234")), 3);
    EXPECT_EQ(cacheIndex(QStringLiteral("12349999-8")), 3);
    EXPECT_EQ(cacheIndex(QStringLiteral("1234 and whatever follows")), 3);
}

TEST(ZebDataBlockManagerLayout, ANonDigitCountsAsMinusOne)
{
    const TemporaryStore store(withRoots(10));
    EXPECT_EQ(cacheIndex(QStringLiteral("123-9")), 5);
    EXPECT_EQ(cacheIndex(QStringLiteral("12-34")), 5);
    EXPECT_EQ(cacheIndex(QStringLiteral("7-8-9")), 13 % 10);
    EXPECT_EQ(cacheIndex(QStringLiteral("9x?z")), 6);
    // Digits of other scripts are digits to Qt.
    const QString arabic = QString(QChar(0x0663)) + QStringLiteral("000");
    EXPECT_EQ(cacheIndex(arabic), 3);
}

TEST(ZebDataBlockManagerLayout, ANegativeDigitSumThatDividesLeadsToTheFirstRoot)
{
    {
        const TemporaryStore one(withRoots(1));
        EXPECT_EQ(cacheIndex(QStringLiteral("0-0-0")), 0);
        EXPECT_EQ(cacheIndex(QStringLiteral("0-1-0")), 0);
        EXPECT_EQ(cacheIndex(QStringLiteral("----")), 0);
    }
    const TemporaryStore two(withRoots(2));
    EXPECT_EQ(cacheIndex(QStringLiteral("0-0-0")), 0);
    EXPECT_EQ(cacheIndex(QStringLiteral("----")), 0);
    const ZebDataHash hash = hashOf(padded({0, 0}, 16));
    EXPECT_EQ(cacheIndex(&hash), 0);
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
                ASSERT_EQ(cacheIndex(text), expected) << text.toStdString();
                ASSERT_EQ(cacheIndex(&hash), expected) << text.toStdString();
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
                        ASSERT_EQ(cacheIndex(text), expected) << text.toStdString();
                        ASSERT_EQ(cacheIndex(&hash), expected) << text.toStdString();
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
            cacheIndex(QStringLiteral("0-1-2"));
        },
        "Cannot find suitable cache reading thread -1 for 0-1-2");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(3));
            cacheIndex(QStringLiteral("0-0-17"));
        },
        "Cannot find suitable cache reading thread -2 for 0-0-17");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(40));
            cacheIndex(QStringLiteral("----"));
        },
        "Cannot find suitable cache reading thread -4 for ----");
}

TEST(ZebDataBlockManagerLayout, ANegativeIndexOfAHashEndsTheProcessWithItsWholeText)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(2));
            const ZebDataHash hash = hashOf(padded({1, 0}, 8));
            cacheIndex(&hash);
        },
        "Cannot find suitable cache reading thread -1 for 1-0-5-5-5-5-5-5");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(3));
            const ZebDataHash hash = hashOf(padded({0, 0}, 8));
            cacheIndex(&hash);
        },
        "Cannot find suitable cache reading thread -2 for 0-0-5-5-5-5-5-5");
}

TEST(ZebDataBlockManagerLayout, ATextUnderFourCharactersEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            cacheIndex(QStringLiteral("123"));
        },
        "Hash String is too Short 123");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            cacheIndex(QString());
        },
        "Hash String is too Short ");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const ZebDataHash hash = hashOf({12});
            cacheIndex(&hash);
        },
        "Hash String is too Short 12");
}

TEST(ZebDataBlockManagerLayout, AShortTextIsTestedBeforeItsDigits)
{
    // With one more character the same text would fail for its negative index.
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(2));
            cacheIndex(QStringLiteral("0-1"));
        },
        "Hash String is too Short 0-1");
}

TEST(ZebDataBlockManagerLayout, AStoreWithoutRootsEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(0));
            cacheIndex(QStringLiteral("1234"));
        },
        "Number of cache paths is zero");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(0));
            const ZebDataHash hash = hashOf(padded({1234}, 8));
            cacheIndex(&hash);
        },
        "Number of cache paths is zero");
    // Roots are checked before the length.
    EXPECT_FATAL(
        {
            const TemporaryStore store(withRoots(0));
            const ZebDataHash hash = hashOf({1});
            cacheIndex(&hash);
        },
        "Number of cache paths is zero");
}

TEST(ZebDataBlockManagerLayout, TheTextFormChecksRootsThenLengthThenSetUp)
{
    // Nothing is set up here, and yet that is checked last.
    EXPECT_FATAL(cacheIndex(QStringLiteral("12")), "Number of cache paths is zero");
    EXPECT_FATAL(
        {
            StoreInside::cacheRoots() = QStringList(QStringLiteral("/root"));
            cacheIndex(QStringLiteral("12"));
        },
        "Hash String is too Short 12");
    EXPECT_FATAL(
        {
            StoreInside::cacheRoots() = QStringList(QStringLiteral("/root"));
            cacheIndex(QStringLiteral("0-1-"));
        },
        "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockManagerLayout, TheHashFormChecksSetUpFirst)
{
    EXPECT_FATAL(cacheIndex(static_cast<const ZebDataHash*>(nullptr)),
                 "Data Block Manager Not Initialized. Aborting");
    EXPECT_FATAL(
        {
            const ZebDataHash hash = hashOf({1});
            cacheIndex(&hash);
        },
        "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockManagerLayout, ANullHashHasNoRoot)
{
    {
        const TemporaryStore store;
        EXPECT_EQ(cacheIndex(static_cast<const ZebDataHash*>(nullptr)), -1);
    }
    const TemporaryStore rootless(withRoots(0));
    EXPECT_EQ(cacheIndex(static_cast<const ZebDataHash*>(nullptr)), -1);
}

TEST(ZebDataBlockManagerLayout, AHashWithoutADigestEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const ZebDataHash hash;
            cacheIndex(&hash);
        },
        "Size of data is incorrect is 0, should be 32");
}

TEST(ZebDataBlockManagerLayout, HashesOfEqualFirstWordShareRootAndBucket)
{
    const TemporaryStore store(withRoots(5));
    const ZebDataHash one = hashOf(padded({1234, 1}, 16));
    const ZebDataHash other = hashOf(padded({1234, 2}, 16));
    EXPECT_EQ(cacheIndex(&one), cacheIndex(&other));
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
    const auto setCurrent = [](const QString& name) {
        // The collectors read it.
        const ZebDataDeleteLocker locker;
        StoreInside::subCache() = name;
    };
    EXPECT_TRUE(manager().subCache().isEmpty());
    setCurrent(QStringLiteral("Current"));
    EXPECT_EQ(manager().getBlockDestination(QStringLiteral("Named"), text), before);
    EXPECT_EQ(manager().getBlockDestination(QString(), text),
              store.roots().at(0) + QStringLiteral("//4/") + text);
    setCurrent(QString());
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
        ASSERT_TRUE(ZebBuildFilename(&hash, store.roots().at(cacheIndex(&hash)),
                                     QStringLiteral("S"), manager().numBuckets(), directory,
                                     fileName));
        ASSERT_EQ(manager().getBlockDestination(QStringLiteral("S"), hash.toString()),
                  directory + fileName);
    }
    EXPECT_TRUE(QDir(store.roots().at(0)).isEmpty());
}

TEST(ZebDataBlockManagerLayout, TheDestinationDependsOnTheHashAndNotOnItsSpelling)
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
    // Checked before the length of the text, after the text has been parsed.
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

TEST(ZebDataBlockManagerLayout, RootsAndBucketsAreThoseOfTheSetUp)
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
