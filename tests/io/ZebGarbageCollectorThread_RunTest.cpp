// A collector's passes that are stopped early, the locks that they hold, and the collector as a
// thread.

#include "support/CollectorStation.h"
#include "support/SequencePoints.h"

#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <dirent.h>
#include <dlfcn.h>
#include <new>
#include <stdexcept>
#include <thread>

using StoreInside::passesRunning;
using testing::ElementsAre;

namespace {

std::atomic<bool> s_WalkIsOutOfMemory{false};
std::atomic<int> s_Walks{0};

class ZebGarbageCollectorThreadRun : public CollectorStation
{
protected:
    // Stops the collection from another thread, which may have to wait for a pass.
    static std::thread stopElsewhere()
    {
        std::thread stopping([] { manager().stopGarbageCollection(); });
        EXPECT_TRUE(waitUntil([] { return !manager().garbageCollecting(); }));
        return stopping;
    }

    std::atomic<bool>& exitMark() { return CollectorInside::exit(m_Collector); }
};

} // namespace

// Replaces the system's function.
extern "C" dirent* readdir(DIR* directory)
{
    ++s_Walks;
    if (s_WalkIsOutOfMemory)
        throw std::bad_alloc();
    using Function = dirent* (*)(DIR*);
    static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "readdir"));
    return system(directory);
}

// A pass that is stopped early, and what it holds

TEST_F(ZebGarbageCollectorThreadRun, StoppedDuringTheWalkItReturnsBeforeTheNextDirectory)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("1", 10);
    setSizeFound(s_UnlikelySize);
    RecordingReporter reporter;
    std::thread stopping;
    reporter.onUpdate([&](int) { stopping = stopElsewhere(); });
    int count = 0;
    pass(&reporter, &count);
    stopping.join();
    EXPECT_THAT(reporter.values(), ElementsAre(1));
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(), s_UnlikelySize) << "no file was looked up";
    EXPECT_EQ(CollectorInside::lastBlocksFreedCount(m_Collector), StoreInside::blocksFreed())
        << "it counts as a pass";
    EXPECT_TRUE(CollectorInside::passTimer(m_Collector).isValid());
}

TEST_F(ZebGarbageCollectorThreadRun, StoppedDuringTheSweepItReturnsAtTheNextOrphanedFile)
{
    const QStringList dead = {writeDead("0"), writeDead("0"), writeDead("1")};
    std::thread stopping;
    actBeforeSweep([&] { stopping = stopElsewhere(); });
    stopping.join();
    for (const QString& file : dead)
        EXPECT_TRUE(QFile::exists(file));
    EXPECT_EQ(sizeFound(), 0);
}

TEST_F(ZebGarbageCollectorThreadRun, StoppedAmongLiveFilesItFinishesTheSweep)
{
    writeLive("0", 10);
    writeLive("0", 20);
    writeLive("1", 30);
    std::thread stopping;
    actBeforeSweep([&] { stopping = stopElsewhere(); });
    stopping.join();
    EXPECT_EQ(sizeFound(), 60);
}

TEST_F(ZebGarbageCollectorThreadRun, ARunningPassNeedsNoDeleteLockAndDoesNotHoldItsOwnLock)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("0", 10);
    RecordingReporter reporter;
    SequencePoints points;
    std::thread holding;
    reporter.onUpdate([&](int value) {
        if (value != 1)
            return;
        EXPECT_GE(passesRunning(), 1);
        holding = std::thread([&] {
            m_Collector.setSubCache("Other"); // takes the collector's own lock
            const ZebTdxMutexLocker locker(&StoreInside::deleteMutex());
            points.reachedThenWait("held", "pass ended");
        });
        points.wait("held");
    });
    int count = 0;
    manager().startGarbageCollection();
    m_Collector.collect(&reporter, &count);
    EXPECT_FALSE(QFile::exists(dead)) << "another thread held the delete lock all the time";
    EXPECT_EQ(sizeFound(), 10);
    points.reached("pass ended");
    holding.join();
}

TEST_F(ZebGarbageCollectorThreadRun, AReporterThatThrowsEndsThePass)
{
    RecordingReporter reporter;
    reporter.onUpdate([](int) { throw std::runtime_error("the host's own"); });
    int count = 0;
    EXPECT_THROW(pass(&reporter, &count), std::runtime_error);
    manager().stopGarbageCollection();
    EXPECT_EQ(passesRunning(), 0);
    EXPECT_FALSE(manager().garbageCollecting());
}

// The thread

TEST_F(ZebGarbageCollectorThreadRun, AFreshCollectorHasFoundNothing)
{
    EXPECT_EQ(sizeFound(), 0);
    EXPECT_EQ(CollectorInside::lastBlocksFreedCount(m_Collector), -1);
    EXPECT_FALSE(CollectorInside::passTimer(m_Collector).isValid());
    EXPECT_FALSE(exitMark());
    EXPECT_EQ(m_Collector.subCache(), QString());
    EXPECT_EQ(m_Collector.objectName(), QString());
    EXPECT_EQ(m_Collector.parent(), nullptr);
}

TEST_F(ZebGarbageCollectorThreadRun, AsAThreadItPollsUntilItIsAskedToEnd)
{
    manager().startGarbageCollection();
    const QString first = writeDead("0");
    m_Collector.start();
    EXPECT_TRUE(waitUntil([&] { return !QFile::exists(first); }));
    const QString second = writeDead("0");
    EXPECT_TRUE(isRemoved(second));
    EXPECT_TRUE(m_Collector.isRunning());
    m_Collector.closeDown();
    EXPECT_TRUE(m_Collector.wait(20000));
}

TEST_F(ZebGarbageCollectorThreadRun, AskedToEndBeforeItStartsItMakesNoPass)
{
    manager().startGarbageCollection();
    const QString dead = writeDead("0");
    m_Collector.closeDown();
    m_Collector.start();
    EXPECT_TRUE(m_Collector.wait(20000));
    EXPECT_TRUE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadRun, AWalkThatRunsOutOfMemoryDoesNotEndTheThread)
{
    const QString dead = writeDead("0");
    CollectedStore::write(deadName(1));
    s_WalkIsOutOfMemory = true;
    const int walks = s_Walks;
    m_Collector.start();
    manager().startGarbageCollection();
    EXPECT_TRUE(waitUntil([walks] { return s_Walks > walks + 1; })) << "the store's and this one";
    EXPECT_TRUE(waitUntil([] { return passesRunning() == 0; }));
    EXPECT_TRUE(QFile::exists(dead));
    s_WalkIsOutOfMemory = false;
    EXPECT_TRUE(isRemoved(dead));
    m_Collector.closeDown();
    EXPECT_TRUE(m_Collector.wait(20000));
}

TEST_F(ZebGarbageCollectorThreadRun, AReportThatRunsOutOfMemoryIsMadeAgain)
{
    std::atomic<int> failures{0};
    std::atomic<qint64> reported{-1};
    const QMetaObject::Connection connection = QObject::connect(
        &manager(), &ZebDataBlockManager::cacheSizeUpdate, &m_Collector,
        [&](qint64 size) {
            if (++failures <= 2)
                throw std::bad_alloc();
            reported = size;
        },
        Qt::DirectConnection);
    writeLive("0", 1234);
    manager().startGarbageCollection();
    m_Collector.start();
    EXPECT_TRUE(waitUntil([&reported] { return reported == 1234; }));
    EXPECT_EQ(failures, 3);
    QObject::disconnect(connection);
    m_Collector.closeDown();
    EXPECT_TRUE(m_Collector.wait(20000));
}

TEST_F(ZebGarbageCollectorThreadRun, ClosingDownResetsTheSizeAndDoesNotStopAPass)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("0", 10);
    RecordingReporter reporter;
    reporter.onUpdate([this](int) {
        setSizeFound(s_UnlikelySize);
        m_Collector.closeDown();
        EXPECT_EQ(sizeFound(), 0);
    });
    int count = 0;
    pass(&reporter, &count);
    EXPECT_TRUE(exitMark());
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(), 10);
}

TEST_F(ZebGarbageCollectorThreadRun, ClosingDownWaitsForAChangeOfTheSubCacheButForNoReader)
{
    QReadWriteLock& lock = CollectorInside::lock(m_Collector);
    EXPECT_FALSE(waitsForReader(lock, [this] { m_Collector.closeDown(); }));
    EXPECT_TRUE(exitMark());

    exitMark() = false;
    lock.lockForWrite();
    const BlockedThread closing([this] { m_Collector.closeDown(); });
    EXPECT_TRUE(closing.waitsFor(lock));
    EXPECT_FALSE(exitMark());
    lock.unlock();
    EXPECT_TRUE(closing.ends());
    EXPECT_TRUE(exitMark());
}
