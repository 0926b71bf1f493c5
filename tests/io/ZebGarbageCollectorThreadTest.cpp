// One pass of a collector, on a root of its own: what it visits, removes, counts, and when it does
// nothing. Passes that are cut short and the thread stand in ZebGarbageCollectorThread_RunTest, how
// passes go with the store in ZebDataBlockManagerGarbageTest.

#include "io/CollectorKit.h"

#include <QDir>
#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <dlfcn.h>

using CollectionInside::sizeFound;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::atomic<bool> s_RemovalFails{false};

class ZebGarbageCollectorThreadTest : public CollectorStation
{};

} // namespace

// Stands before the system's own.

extern "C" int unlink(const char* path) noexcept
{
    if (s_RemovalFails) {
        errno = EACCES;
        return -1;
    }
    using Function = int (*)(const char*);
    static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "unlink"));
    return system(path);
}

// What a pass removes and counts

TEST_F(ZebGarbageCollectorThreadTest, DeadFilesGoAndLiveOnesCountWithTheirWholeSize)
{
    const QString dead = writeDead("3");
    const QString one = writeLive("3", 1000);
    const QString two = writeLive("7", 34);
    pass();
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(one));
    EXPECT_TRUE(QFile::exists(two));
    EXPECT_EQ(sizeFound(m_Collector), 1034);

    m_Held.pop_back();
    pass();
    EXPECT_TRUE(QFile::exists(one));
    EXPECT_FALSE(QFile::exists(two));
    EXPECT_EQ(sizeFound(m_Collector), 1000);
}

TEST_F(ZebGarbageCollectorThreadTest, ABlockFileIsToldByTheFifteenDashesOfItsNameAlone)
{
    const QStringList stay = {
        write("0/data"),
        write("0/" + QString(14, '-')),
        write("0/" + QString(16, '-')),
        write("0/1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"),
        write("0/1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16-17"),
        write("0/" + QString(15, '_')),
    };
    const QStringList go = {
        write("0/" + QString(15, '-')),
        write("0/1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"),
        write("0/it-is-no-hash-but-has-as-many-dashes-as-the-text-of-any-one-has.tmp"),
        write("0/" + QString(15, '-') + QString(100, 'x')),
    };
    pass();
    for (const QString& file : stay)
        EXPECT_TRUE(QFile::exists(file)) << file.toStdString();
    for (const QString& file : go)
        EXPECT_FALSE(QFile::exists(file)) << file.toStdString();
    EXPECT_EQ(sizeFound(m_Collector), 0) << "what is no block file does not count";
}

TEST_F(ZebGarbageCollectorThreadTest, HiddenFilesAndDirectoriesAreLeftAlone)
{
    const QString file = write("0/." + QString(15, '-'));
    const QString inside = write(".hidden/" + deadName(1));
    pass();
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_TRUE(QFile::exists(inside));
}

TEST_F(ZebGarbageCollectorThreadTest, ADirectoryWithTheNameOfABlockFileIsWalkedAndStays)
{
    const QString inside = write(deadName(1) + "/" + deadName(2));
    pass();
    EXPECT_FALSE(QFile::exists(inside));
    EXPECT_TRUE(QDir(path(deadName(1))).exists());
}

TEST_F(ZebGarbageCollectorThreadTest, EveryLevelOfTheSubCacheIsVisitedAndNothingBesideIt)
{
    const QStringList go = {write(deadName(1)), write("0/" + deadName(2)),
                            write("0/deeper/and/deeper/" + deadName(3))};
    const QString besides = m_Root.path() + "/" + deadName(4);
    const QString other = m_Root.path() + "/Other/0/" + deadName(5);
    BlockFiles::write(besides, "x");
    BlockFiles::write(other, "x");
    pass();
    for (const QString& file : go)
        EXPECT_FALSE(QFile::exists(file)) << file.toStdString();
    EXPECT_TRUE(QFile::exists(besides));
    EXPECT_TRUE(QFile::exists(other));
    EXPECT_TRUE(QDir(path("0/deeper/and/deeper")).exists()) << "no directory is pruned";
}

TEST_F(ZebGarbageCollectorThreadTest, DirectoriesAreVisitedBreadthFirst)
{
    write("a/below/no block");
    write("b/below/no block");
    Reporter reporter;
    QStringList late;
    reporter.m_OnUpdate = [&](int value) {
        // The sub-cache and both buckets are done by now, and nothing below these is begun.
        if (value == 4)
            late << write("a/below/" + deadName(1)) << write("b/below/" + deadName(2));
    };
    int count = 0;
    pass(&reporter, &count);
    EXPECT_EQ(count, 5);
    ASSERT_THAT(late, SizeIs(2));
    EXPECT_FALSE(QFile::exists(late.at(0)));
    EXPECT_FALSE(QFile::exists(late.at(1)));
}

TEST_F(ZebGarbageCollectorThreadTest, AContentThatComesBackAfterTheWalkKeepsItsFile)
{
    const QString file = writeDead("0");
    actBeforeJudgement(
        [this] { m_Held.push_back(ZebHashManager::instance().getHash(deadName(1))); });
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_EQ(sizeFound(m_Collector), 100);
}

TEST_F(ZebGarbageCollectorThreadTest, AFileThatCannotBeRemovedIsNotCountedAndTriedAgainNextTime)
{
    const QString dead = writeDead("0");
    writeLive("0", 10);
    s_RemovalFails = true;
    pass();
    s_RemovalFails = false;
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(m_Collector), 10);
    pass();
    EXPECT_FALSE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadTest, ADirectoryThatCannotBeReadYieldsNothingAndNothingIsLogged)
{
    m_Store.messages().clear();
    setSizeFound(s_UnlikelySize);
    pass();
    EXPECT_EQ(sizeFound(m_Collector), 0) << "there is no sub-cache directory";
    BlockFiles::write(m_Root.path() + "/" + subCache(), "in the way");
    pass();
    EXPECT_EQ(sizeFound(m_Collector), 0);
    EXPECT_EQ(m_Store.messages().debugLines().filter("TDX"), QStringList());
}

TEST_F(ZebGarbageCollectorThreadTest, APassThatRemovesKeepsAndFailsLogsNothing)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("1", 10);
    BlockFiles::write(m_Root.path() + "/" + subCache() + "/2/foreign", "no block");
    m_Store.messages().clear();
    s_RemovalFails = true;
    pass();
    s_RemovalFails = false;
    pass();
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(live));
    EXPECT_EQ(m_Store.messages().debugLines().filter("TDX"), QStringList());
}

TEST_F(ZebGarbageCollectorThreadTest, TheNumberOfBucketsPlaysNoPart)
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

TEST_F(ZebGarbageCollectorThreadTest, EachDirectoryIsReportedOnceAndTheCountRunsOn)
{
    write("0/a");
    write("1/b");
    write("1/deeper/c");
    Reporter reporter;
    int count = 10;
    pass(&reporter, &count);
    EXPECT_THAT(reporter.m_Values, ElementsAre(11, 12, 13, 14));
    EXPECT_EQ(count, 14);
}

TEST_F(ZebGarbageCollectorThreadTest, WithoutBothReporterAndCountNothingIsReported)
{
    const QString first = writeDead("0");
    Reporter reporter;
    pass(&reporter, nullptr);
    EXPECT_THAT(reporter.m_Values, IsEmpty());
    EXPECT_FALSE(QFile::exists(first));
    const QString second = writeDead("0");
    int count = 5;
    pass(nullptr, &count);
    EXPECT_EQ(count, 5);
    EXPECT_FALSE(QFile::exists(second));
}

// When there is no pass

TEST_F(ZebGarbageCollectorThreadTest, WithoutASubCacheEveryFileStaysAndCountsAsNothing)
{
    manager().setSubCache(QString());
    m_Collector.setSubCache(subCache());
    const QString dead = writeDead("0");
    const QString beside = m_Root.path() + "/0/" + deadName(2);
    BlockFiles::write(beside, "x");
    setSizeFound(s_UnlikelySize);
    pass();
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(beside));
    EXPECT_EQ(sizeFound(m_Collector), 0);
    EXPECT_EQ((m_Collector.*privateMember(CollectorFreedTag())).load(), -1) << "no pass";
}

TEST_F(ZebGarbageCollectorThreadTest, APassAsksTheStoreForTheSubCacheAndNotItsOwnCopy)
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

TEST_F(ZebGarbageCollectorThreadTest, BeforeAnyBlockWasFreedTheFirstPassRuns)
{
    const QString first = writeDead("0");
    ASSERT_EQ(StoreInside::blocksFreed(), -1);
    manager().startGarbageCollection();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(first));
    EXPECT_EQ((m_Collector.*privateMember(CollectorFreedTag())).load(), -1);

    const QString second = writeDead("0");
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(second)) << "and closes the gate behind it";
}

TEST_F(ZebGarbageCollectorThreadTest, AFreedBlockOpensTheGateForOnePass)
{
    writeLive("0", 10);
    pass();
    const QString dead = writeDead("0");
    writeLive("0", 20);
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(m_Collector), 10) << "the size stays as it was";

    freeABlock();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(m_Collector), 30);
    EXPECT_EQ((m_Collector.*privateMember(CollectorFreedTag())).load(), StoreInside::blocksFreed());
}

TEST_F(ZebGarbageCollectorThreadTest, AMinuteAfterAPassTheGateOpensByItself)
{
    pass();
    const QString dead = writeDead("0");
    letSecondsGoBy(30);
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(dead));
    letSecondsGoBy(30);
    m_Collector.collect(nullptr, nullptr);
    EXPECT_FALSE(QFile::exists(dead));

    const QString second = writeDead("0");
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(second)) << "the minute begins anew";
}

TEST_F(ZebGarbageCollectorThreadTest, AHashThatEndsWithoutABlockInMemoryOpensNoGate)
{
    pass();
    const QString file = writeLive("0", 10);
    m_Held.clear();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(file));
}

TEST_F(ZebGarbageCollectorThreadTest, ABlockFreedDuringAPassOpensNoGateForTheNext)
{
    Reporter reporter;
    reporter.m_OnUpdate = [](int) {
        freeABlock();
    };
    int count = 0;
    pass(&reporter, &count);
    EXPECT_EQ((m_Collector.*privateMember(CollectorFreedTag())).load(), StoreInside::blocksFreed());
    const QString dead = writeDead("0");
    m_Collector.collect(nullptr, nullptr);
    EXPECT_TRUE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadTest, WithTheCollectionOffAnOpenedGateLeavesTheFilesAndASizeOf0)
{
    const QString file = writeLive("0", 10);
    pass();
    EXPECT_EQ(sizeFound(m_Collector), 10);
    manager().stopGarbageCollection();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_EQ(sizeFound(m_Collector), 10) << "the gate comes first, and is closed";

    const QString dead = writeDead("0");
    freeABlock();
    m_Collector.collect(nullptr, nullptr);
    EXPECT_EQ(sizeFound(m_Collector), 0);
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_TRUE(QFile::exists(file));
    EXPECT_NE((m_Collector.*privateMember(CollectorFreedTag())).load(), StoreInside::blocksFreed())
        << "the gate stays open";
}
