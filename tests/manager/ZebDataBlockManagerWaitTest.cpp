// How long the store's waits take at least, and what becomes of a hash that no thread serves any
// more.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebConstAccessor.h"
#include "support/Fatal.h"
#include "support/HeldWriter.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QElapsedTimer>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

using StoreInside::manager;

namespace {

constexpr qint64 s_Megabyte = 1048576;

const QString s_BrakeLine = QStringLiteral(
    "ZebDataBlockManager::processIO: Excessive data in the queue: 1048576 bytes (max = 1048576): "
    "sleeping calling thread...");

class ZebDataBlockManagerWait : public testing::Test
{
protected:
    ~ZebDataBlockManagerWait() override
    {
        manager().setMaxWritePendingSizeFactor(
            ZebDataBlockManager::defaultMaxWritePendingSizeFactor());
    }

    static ZebDataReference add(int size)
    {
        return manager().addBlock(QByteArray(size, 'a'), ZebModifyAccessor::Cached, true);
    }

    // What the store says of a root whose threads have ended.
    static std::string noThreadFor(const ZebDataReference& reference)
    {
        return "Cannot find suitable cache reading thread 0 for " + reference.hash().toStdString();
    }

    int brakeLines()
    {
        const QStringList lines = m_Store.messages().debugLines();
        return static_cast<int>(std::count(lines.begin(), lines.end(), s_BrakeLine));
    }

    TemporaryStore m_Store;
};

} // namespace

TEST_F(ZebDataBlockManagerWait, TheBrakeTellsOnceForEachSecondThatItSleeps)
{
    manager().setMaxWritePendingSizeFactor(0.0F);
    HeldWriter held;
    const ZebDataReference reference = add(s_Megabyte);
    QElapsedTimer timer;
    timer.start();
    std::future<void> brake = std::async(std::launch::async, [] { manager().processIO(); });
    ASSERT_TRUE(waitUntil([this] { return brakeLines() == 3; }));
    EXPECT_GE(timer.elapsed(), 2000) << "two sleeps lie between three lines";
    held.release();
    brake.get();
    EXPECT_GE(timer.elapsed(), 3000) << "the last sleep is slept to its end";
}

TEST_F(ZebDataBlockManagerWait, EveryFlushSleepsAMillisecondAlsoWithNothingToWaitFor)
{
    for (const ZebDataBlockManager::ThreadType threads :
         {ZebDataBlockManager::GarbageCollectorThreads, ZebDataBlockManager::ReadThreads,
          ZebDataBlockManager::WriteThreads, ZebDataBlockManager::AllThreads}) {
        QElapsedTimer timer;
        timer.start();
        manager().flush(false, threads);
        EXPECT_GE(timer.nsecsElapsed(), 1000000) << threads;
    }
}

TEST_F(ZebDataBlockManagerWait, ALoadWhoseReaderHasEndedIsFatal)
{
    const ZebDataReference reference = add(1000);
    manager().freeAllBlocks();
    EXPECT_FATAL(
        {
            (manager().*privateMember(StoreReadersTag())).clear();
            reference.constAccessor();
        },
        noThreadFor(reference));
}

TEST_F(ZebDataBlockManagerWait, APreloadWhoseReaderHasEndedIsFatal)
{
    const ZebDataReference reference = add(1000);
    manager().freeAllBlocks();
    EXPECT_FATAL(
        {
            (manager().*privateMember(StoreReadersTag())).clear();
            reference.preload();
        },
        noThreadFor(reference));
}

TEST_F(ZebDataBlockManagerWait, AnAdmissionWhoseWriterHasEndedIsFatal)
{
    const ZebDataReference reference = add(1000);
    const QByteArray bytes(1000, 'b');
    const ZebDataHash hash(bytes, ZebDataHash::Hash512);
    EXPECT_FATAL(
        {
            (manager().*privateMember(StoreWritersTag())).clear();
            manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        },
        "Cannot find suitable cache reading thread 0 for " + hash.toString().toStdString());
}

TEST_F(ZebDataBlockManagerWait, AnEvictionWhoseWriterHasEndedIsFatal)
{
    const ZebDataReference reference = add(1000);
    manager().flush();
    ASSERT_TRUE(StoreInside::forgetFile(reference));
    EXPECT_FATAL(
        {
            (manager().*privateMember(StoreWritersTag())).clear();
            StoreInside::freeBlock(reference.hashPtr().data(), true, false);
        },
        noThreadFor(reference));
}
