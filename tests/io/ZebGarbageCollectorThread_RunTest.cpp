// A collector's passes that are cut short, what they hold meanwhile, and the collector as a thread.

#include "io/CollectorKit.h"

#include <QFile>
#include <QSemaphore>
#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <dlfcn.h>
#include <new>
#include <stdexcept>
#include <thread>

using CollectionInside::passesRunning;
using CollectionInside::sizeFound;
using testing::ElementsAre;

namespace {

std::atomic<bool> s_WalkIsOutOfMemory{false};
std::atomic<int> s_Walks{0};

class ZebGarbageCollectorThreadRun : public CollectorStation
{};

} // namespace

// Stands before the system's own.
extern "C" void* opendir(const char* path)
{
    ++s_Walks;
    if (s_WalkIsOutOfMemory)
        throw std::bad_alloc();
    using Function = void* (*)(const char*);
    static const auto system = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "opendir"));
    return system(path);
}

// A pass that is cut short, and its bracket

TEST_F(ZebGarbageCollectorThreadRun, SwitchedOffDuringTheWalkItLeavesBeforeTheNextDirectory)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("1", 10);
    setSizeFound(s_UnlikelySize);
    Reporter reporter;
    std::thread stopping;
    reporter.m_OnUpdate = [&](int) {
        stopping = stopElsewhere();
    };
    int count = 0;
    pass(&reporter, &count);
    stopping.join();
    EXPECT_THAT(reporter.m_Values, ElementsAre(1));
    EXPECT_TRUE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(m_Collector), s_UnlikelySize) << "nothing was judged";
    EXPECT_EQ((m_Collector.*privateMember(CollectorFreedTag())).load(), StoreInside::blocksFreed())
        << "the pass has ended all the same";
    EXPECT_TRUE((m_Collector.*privateMember(CollectorTimerTag())).isValid());
}

TEST_F(ZebGarbageCollectorThreadRun, SwitchedOffDuringTheJudgementItLeavesAtTheNextDeadFile)
{
    const QStringList dead = {writeDead("0"), writeDead("0"), writeDead("1")};
    std::thread stopping;
    actBeforeJudgement([&] { stopping = stopElsewhere(); });
    stopping.join();
    for (const QString& file : dead)
        EXPECT_TRUE(QFile::exists(file));
    EXPECT_EQ(sizeFound(m_Collector), 0);
}

TEST_F(ZebGarbageCollectorThreadRun, SwitchedOffAmongLiveFilesItGoesThroughToTheEnd)
{
    writeLive("0", 10);
    writeLive("0", 20);
    writeLive("1", 30);
    std::thread stopping;
    actBeforeJudgement([&] { stopping = stopElsewhere(); });
    stopping.join();
    EXPECT_EQ(sizeFound(m_Collector), 60);
}

TEST_F(ZebGarbageCollectorThreadRun, InsideItsBracketAPassNeedsNoLockThatOthersHold)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("0", 10);
    Reporter reporter;
    QSemaphore letGo;
    std::thread holding;
    reporter.m_OnUpdate = [&](int value) {
        if (value != 1)
            return;
        EXPECT_GE(passesRunning(), 1);
        QSemaphore held;
        holding = std::thread([&] {
            m_Collector.setSubCache("Other"); // its own lock is free
            const ZebTdxMutexLocker locker(&StoreInside::deleteLock());
            held.release();
            letGo.acquire();
        });
        held.acquire();
    };
    int count = 0;
    manager().startGarbageCollection();
    m_Collector.collect(&reporter, &count);
    EXPECT_FALSE(QFile::exists(dead)) << "although the delete lock was taken all the time";
    EXPECT_EQ(sizeFound(m_Collector), 10);
    letGo.release();
    holding.join();
}

TEST_F(ZebGarbageCollectorThreadRun, AHostThatThrowsLeavesNoPassBehind)
{
    Reporter reporter;
    reporter.m_OnUpdate = [](int) {
        throw std::runtime_error("the host's own");
    };
    int count = 0;
    EXPECT_THROW(pass(&reporter, &count), std::runtime_error);
    manager().stopGarbageCollection();
    EXPECT_EQ(passesRunning(), 0);
    EXPECT_FALSE(manager().garbageCollecting());
}

// The thread

TEST_F(ZebGarbageCollectorThreadRun, AFreshCollectorHasFoundNothing)
{
    EXPECT_EQ(sizeFound(m_Collector), 0);
    EXPECT_EQ((m_Collector.*privateMember(CollectorFreedTag())).load(), -1);
    EXPECT_FALSE((m_Collector.*privateMember(CollectorTimerTag())).isValid());
    EXPECT_FALSE((m_Collector.*privateMember(CollectorExitTag())).load());
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
    EXPECT_TRUE(goes(second));
    EXPECT_TRUE(m_Collector.isRunning());
    m_Collector.closeDown();
    EXPECT_TRUE(m_Collector.wait(20000));
}

TEST_F(ZebGarbageCollectorThreadRun, AskedToEndBeforeItBeginsItMakesNoPass)
{
    manager().startGarbageCollection();
    const QString dead = writeDead("0");
    m_Collector.closeDown();
    m_Collector.start();
    EXPECT_TRUE(m_Collector.wait(20000));
    EXPECT_TRUE(QFile::exists(dead));
}

TEST_F(ZebGarbageCollectorThreadRun, AWalkWithoutMemoryDoesNotEndTheThread)
{
    s_WalkIsOutOfMemory = true;
    const int walks = s_Walks;
    m_Collector.start();
    manager().startGarbageCollection();
    EXPECT_TRUE(waitUntil([walks] { return s_Walks > walks + 1; })) << "the store's own and this";
    EXPECT_TRUE(waitUntil([] { return passesRunning() == 0; }));
    s_WalkIsOutOfMemory = false;
    const QString dead = writeDead("0");
    EXPECT_TRUE(goes(dead));
    m_Collector.closeDown();
    EXPECT_TRUE(m_Collector.wait(20000));
}

TEST_F(ZebGarbageCollectorThreadRun, ClosingDownForgetsTheSizeAndLeavesAPassAlone)
{
    const QString dead = writeDead("0");
    const QString live = writeLive("0", 10);
    Reporter reporter;
    reporter.m_OnUpdate = [this](int) {
        setSizeFound(s_UnlikelySize);
        m_Collector.closeDown();
        EXPECT_EQ(sizeFound(m_Collector), 0);
    };
    int count = 0;
    pass(&reporter, &count);
    EXPECT_TRUE((m_Collector.*privateMember(CollectorExitTag())).load());
    EXPECT_FALSE(QFile::exists(dead));
    EXPECT_EQ(sizeFound(m_Collector), 10);
}

TEST_F(ZebGarbageCollectorThreadRun, ClosingDownWaitsForAChangeOfTheSubCacheButForNoReader)
{
    QReadWriteLock& lock = m_Collector.*privateMember(CollectorLockTag());
    lock.lockForRead();
    std::thread([this] { m_Collector.closeDown(); }).join();
    EXPECT_TRUE((m_Collector.*privateMember(CollectorExitTag())).load());
    lock.unlock();

    m_Collector.*privateMember(CollectorExitTag()) = false;
    lock.lockForWrite();
    std::atomic<bool> closed{false};
    std::thread closing([&] {
        m_Collector.closeDown();
        closed = true;
    });
    QThread::msleep(50);
    EXPECT_FALSE(closed);
    EXPECT_FALSE((m_Collector.*privateMember(CollectorExitTag())).load());
    lock.unlock();
    closing.join();
    EXPECT_TRUE((m_Collector.*privateMember(CollectorExitTag())).load());
}
