// One pass of a collector on a root of its own: what it visits, removes and counts, and when there
// is none. Passes that are stopped early and the thread are tested in
// ZebGarbageCollectorThread_RunTest.cpp, passes of the store in
// ZebDataBlockManager_GarbageCollectionTest.cpp.

#include "support/CollectorStation.h"

#include <QDir>
#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <dlfcn.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::atomic<bool> s_RemovalFails{false};

class ZebGarbageCollectorThreadTest : public CollectorStation
{};

} // namespace

// Replaces the system's function.

extern "C" int unlinkat(int directory, const char* name, int flags) noexcept
{
    if (s_RemovalFails) {
        errno = EACCES;
        return -1;
    }
    using Function = int (*)(int, const char*, int);
    static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "unlinkat"));
    return system(directory, name, flags);
}

// What a pass removes and counts

TEST_F(ZebGarbageCollectorThreadTest, OrphanedFilesAreRemovedAndLiveOnesCountWithTheirWholeSize)
{
    const QString dead = writeDead("3");
    const QString one = writeLive("3", 1000);
    const QString two = writeLive("7", 34);
    pass();
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(one));
    EXPECT_TRUE(QFile::exists(two));
    EXPECT_EQ(sizeFound(), 1034);

    m_Held.pop_back();
    pass();
    EXPECT_TRUE(QFile::exists(one));
    EXPECT_FALSE(QFile::exists(two));
    EXPECT_EQ(sizeFound(), 1000);
}

TEST_F(ZebGarbageCollectorThreadTest, ABlockFileIsRecognisedByTheFifteenDashesOfItsNameAlone)
{
    const QStringList kept = {
        write("0/data"),
        write("0/" + QString(14, '-')),
        write("0/" + QString(16, '-')),
        write("0/1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"),
        write("0/1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16-17"),
        write("0/" + QString(15, '_')),
    };
    const QStringList removed = {
        write("0/" + QString(15, '-')),
        write("0/1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"),
        write("0/it-is-no-hash-but-has-as-many-dashes-as-the-text-of-any-one-has.tmp"),
        write("0/" + QString(15, '-') + QString(100, 'x')),
    };
    pass();
    for (const QString& file : kept)
        EXPECT_TRUE(QFile::exists(file)) << file.toStdString();
    for (const QString& file : removed)
        EXPECT_FALSE(QFile::exists(file)) << file.toStdString();
    EXPECT_EQ(sizeFound(), 0) << "other files do not count";
}

TEST_F(ZebGarbageCollectorThreadTest, HiddenFilesAndDirectoriesAreLeftAlone)
{
    const QString file = write("0/." + QString(15, '-'));
    const QString inside = write(".hidden/" + deadName(1));
    pass();
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_TRUE(QFile::exists(inside));
}

TEST_F(ZebGarbageCollectorThreadTest, ADirectoryWithTheNameOfABlockFileIsWalkedAndKept)
{
    const QString inside = write(deadName(1) + "/" + deadName(2));
    pass();
    EXPECT_FALSE(QFile::exists(inside));
    EXPECT_TRUE(QDir(path(deadName(1))).exists());
}

TEST_F(ZebGarbageCollectorThreadTest, EveryLevelOfTheSubCacheIsVisitedAndNothingOutsideIt)
{
    const QStringList removed = {write(deadName(1)), write("0/" + deadName(2)),
                                 write("0/deeper/and/deeper/" + deadName(3))};
    const QString outside = m_Root.path() + "/" + deadName(4);
    const QString other = m_Root.path() + "/Other/0/" + deadName(5);
    BlockFiles::write(outside, "x");
    BlockFiles::write(other, "x");
    pass();
    for (const QString& file : removed)
        EXPECT_FALSE(QFile::exists(file)) << file.toStdString();
    EXPECT_TRUE(QFile::exists(outside));
    EXPECT_TRUE(QFile::exists(other));
    EXPECT_TRUE(QDir(path("0/deeper/and/deeper")).exists()) << "no directory is pruned";
}

TEST_F(ZebGarbageCollectorThreadTest, DirectoriesAreVisitedBreadthFirst)
{
    write("a/below/no block");
    write("b/below/no block");
    RecordingReporter reporter;
    QStringList late;
    reporter.onUpdate([&](int value) {
        // By now the sub-cache and both buckets have been read, and nothing below the buckets.
        if (value == 4)
            late << write("a/below/" + deadName(1)) << write("b/below/" + deadName(2));
    });
    int count = 0;
    pass(&reporter, &count);
    EXPECT_EQ(count, 5);
    ASSERT_THAT(late, SizeIs(2));
    EXPECT_FALSE(QFile::exists(late.at(0)));
    EXPECT_FALSE(QFile::exists(late.at(1)));
}

TEST_F(ZebGarbageCollectorThreadTest, AHashThatIsReferencedAgainAfterTheWalkKeepsItsFile)
{
    const QString file = writeDead("0");
    actBeforeSweep([this] { m_Held.push_back(ZebHashManager::instance().getHash(deadName(1))); });
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_EQ(sizeFound(), 100);
}

TEST_F(ZebGarbageCollectorThreadTest, AFileThatCannotBeRemovedIsNotCountedAndRetriedInTheNextPass)
{
    const QString dead = writeDead("0");
    writeLive("0", 10);
    s_RemovalFails = true;
    pass();
    s_RemovalFails = false;
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(), 10);
    pass();
    EXPECT_FALSE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadTest, ADirectoryThatCannotBeReadIsSkippedWithoutAMessage)
{
    m_Store.messages().clear();
    setSizeFound(s_UnlikelySize);
    pass();
    EXPECT_EQ(sizeFound(), 0) << "there is no sub-cache directory";
    BlockFiles::write(m_Root.path() + "/" + subCache(), "in the way");
    pass();
    EXPECT_EQ(sizeFound(), 0);
    EXPECT_EQ(m_Store.messages().debugLines().filter("TDX"), QStringList());
}

TEST_F(ZebGarbageCollectorThreadTest, APassThatRemovesKeepsAndFailsLogsNothing)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("1", 10);
    BlockFiles::write(m_Root.path() + "/" + subCache() + "/2/unexpected", "no block");
    m_Store.messages().clear();
    s_RemovalFails = true;
    pass();
    s_RemovalFails = false;
    pass();
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(live));
    EXPECT_EQ(m_Store.messages().debugLines().filter("TDX"), QStringList());
}

TEST_F(ZebGarbageCollectorThreadTest, TheNumberOfBucketsDoesNotMatter)
{
    const QString dead = writeDead("4711");
    ZebGarbageCollectorThread collector(m_Root.path(), 0, nullptr);
    manager().startGarbageCollection();
    collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadTest, DeletingABlockRemovesAFileThatExistsAndNothingElse)
{
    const QString file = write("0/any name");
    m_Collector.deleteBlock(file);
    EXPECT_FALSE(QFile::exists(file));
    m_Collector.deleteBlock(file);
    m_Collector.deleteBlock(path("0"));
    EXPECT_TRUE(QDir(path("0")).exists());
}

// Progress

TEST_F(ZebGarbageCollectorThreadTest, EachDirectoryIsReportedOnceAndTheCountContinues)
{
    write("0/a");
    write("1/b");
    write("1/deeper/c");
    RecordingReporter reporter;
    int count = 10;
    pass(&reporter, &count);
    EXPECT_THAT(reporter.values(), ElementsAre(11, 12, 13, 14));
    EXPECT_EQ(count, 14);
}

TEST_F(ZebGarbageCollectorThreadTest, WithoutBothReporterAndCountNothingIsReported)
{
    const QString first = writeDead("0");
    RecordingReporter reporter;
    pass(&reporter, nullptr);
    EXPECT_THAT(reporter.values(), IsEmpty());
    EXPECT_FALSE(QFile::exists(first));
    const QString second = writeDead("0");
    int count = 5;
    pass(nullptr, &count);
    EXPECT_EQ(count, 5);
    EXPECT_FALSE(QFile::exists(second));
}

// When there is no pass

TEST_F(ZebGarbageCollectorThreadTest, WithoutASubCacheEveryFileIsKeptAndNoneIsCounted)
{
    manager().setSubCache(QString());
    m_Collector.setSubCache(subCache());
    const QString dead = writeDead("0");
    const QString outside = m_Root.path() + "/0/" + deadName(2);
    BlockFiles::write(outside, "x");
    setSizeFound(s_UnlikelySize);
    pass();
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(outside));
    EXPECT_EQ(sizeFound(), 0);
    EXPECT_EQ(CollectorInside::lastBlocksFreedCount(m_Collector), -1) << "no pass";
}

TEST_F(ZebGarbageCollectorThreadTest, APassUsesTheSubCacheOfTheStoreAndNotItsOwn)
{
    m_Collector.setSubCache("Other");
    EXPECT_EQ(m_Collector.subCache(), "Other");
    const QString other = m_Root.path() + "/Other/0/" + deadName(1);
    BlockFiles::write(other, "x");
    const QString dead = writeDead("0");
    pass();
    EXPECT_TRUE(QFile::exists(other));
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_EQ(m_Collector.subCache(), "Other");
}

TEST_F(ZebGarbageCollectorThreadTest, TheFirstPassRunsBeforeAnyBlockWasFreed)
{
    const QString first = writeDead("0");
    ASSERT_EQ(StoreInside::blocksFreed(), -1);
    manager().startGarbageCollection();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(first));
    EXPECT_EQ(CollectorInside::lastBlocksFreedCount(m_Collector), -1);

    const QString second = writeDead("0");
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(second)) << "the next pass requires a freed block";
}

TEST_F(ZebGarbageCollectorThreadTest, AFreedBlockAllowsOnePass)
{
    writeLive("0", 10);
    pass();
    const QString dead = writeDead("0");
    writeLive("0", 20);
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(), 10) << "the size is unchanged";

    freeABlock();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(), 30);
    EXPECT_EQ(CollectorInside::lastBlocksFreedCount(m_Collector), StoreInside::blocksFreed());
}

TEST_F(ZebGarbageCollectorThreadTest, AMinuteAfterAPassTheNextOneRunsWithoutAFreedBlock)
{
    pass();
    const QString dead = writeDead("0");
    letSecondsPass(30);
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(dead));
    letSecondsPass(30);
    m_Collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(dead));

    const QString second = writeDead("0");
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(second)) << "the minute starts again";
}

TEST_F(ZebGarbageCollectorThreadTest, AHashThatEndsWithoutAResidentBlockAllowsNoPass)
{
    pass();
    const QString file = writeLive("0", 10);
    m_Held.clear();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(file));
}

TEST_F(ZebGarbageCollectorThreadTest, ABlockFreedDuringAPassDoesNotAllowTheNextOne)
{
    RecordingReporter reporter;
    reporter.onUpdate([](int) { freeABlock(); });
    int count = 0;
    pass(&reporter, &count);
    EXPECT_EQ(CollectorInside::lastBlocksFreedCount(m_Collector), StoreInside::blocksFreed());
    const QString dead = writeDead("0");
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadTest, WithTheCollectionOffAPassKeepsTheFilesAndResetsTheSize)
{
    const QString file = writeLive("0", 10);
    pass();
    EXPECT_EQ(sizeFound(), 10);
    manager().stopGarbageCollection();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_EQ(sizeFound(), 10) << "no block was freed, so there is no pass";

    const QString dead = writeDead("0");
    freeABlock();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_EQ(sizeFound(), 0);
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_NE(CollectorInside::lastBlocksFreedCount(m_Collector), StoreInside::blocksFreed())
        << "a pass is still due";
}
