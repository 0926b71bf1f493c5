// Preloads, and the switch that lets a repeated preload raise the priority.

#include "manager/ZebDataBlockManager.h"

#include "support/Fatal.h"
#include "support/FlushProbe.h"
#include "support/Manager.h"
#include "support/ReaderInside.h"
#include "support/StoreFixture.h"
#include "support/StoreInside.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"

#include <QFile>
#include <QReadLocker>
#include <QRegularExpression>
#include <QSemaphore>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr int s_TenSecondsMs = 10000;

QString switchedOn()
{
    return QStringLiteral("ZebTDx Setting Request Promotion Enabled to TRUE 1");
}

QString switchedOff()
{
    return QStringLiteral("ZebTDx Setting Request Promotion Enabled to FALSE 0");
}

using Waiting = std::pair<int, ZebDataHash*>;

// A reader's queue: the priorities and hashes in order.
std::vector<Waiting> waiting(ZebDataBlockReadThread* reader)
{
    const QReadLocker locker(&ReaderInside::lock(*reader));
    const ReaderInsideList& list = ReaderInside::requests(*reader);
    std::vector<Waiting> entries;
    for (int i = 0; i < list.size(); ++i)
        entries.emplace_back(list.priorityAt(i), list.valueAt(i).data());
    return entries;
}

// Holds the only reader still until release(): it has the preload of this block in hand, whose file
// is missing, and waits for a writer. Nothing is written meanwhile.
class HeldReader
{
public:
    explicit HeldReader(const ZebDataReference& reference)
        : m_Reference(reference),
          m_Path(QFile::encodeName(StoreInside::fileOf(reference))),
          m_Aside(m_Path + ".aside")
    {
        EXPECT_EQ(std::rename(m_Path.constData(), m_Aside.constData()), 0);
        m_Flushes.onFlush([this](int) {
            m_Held.release();
            m_GoOn.acquire();
        });
        reference.preload(ZebDataBlockManager::PreloadHigh);
        EXPECT_TRUE(waitUntil([this] { return m_Held.available() > 0; }));
    }
    ~HeldReader()
    {
        release();
        // By then the reader has left the flush.
        EXPECT_TRUE(waitUntil([this] { return m_Reference.isInMemory(); }));
    }
    HeldReader(const HeldReader&) = delete;
    HeldReader& operator=(const HeldReader&) = delete;

    // The reader finds the file in its second attempt.
    void release()
    {
        if (std::exchange(m_Released, true))
            return;
        EXPECT_EQ(std::rename(m_Aside.constData(), m_Path.constData()), 0);
        m_GoOn.release();
    }

private:
    const ZebDataReference m_Reference;
    QByteArray m_Path;
    QByteArray m_Aside;
    QSemaphore m_Held;
    QSemaphore m_GoOn;
    FlushProbe m_Flushes;
    bool m_Released = false;
};

class ZebDataBlockManagerLoadingPreload : public StoreFixture
{
protected:
    using StoreFixture::StoreFixture;

    // Written blocks that are on disk only, of the seeds 1, 2 and so on.
    static std::vector<ZebDataReference> addToDisk(int count, int size = s_Block)
    {
        std::vector<ZebDataReference> references;
        for (int i = 1; i <= count; ++i)
            references.push_back(add(size, static_cast<quint32>(i)));
        moveToDisk();
        return references;
    }
};

class ZebDataBlockManagerLoadingPreloadTwoRoots : public ZebDataBlockManagerLoadingPreload
{
protected:
    ZebDataBlockManagerLoadingPreloadTwoRoots() : ZebDataBlockManagerLoadingPreload(withRoots(2)) {}
};

} // namespace

TEST_F(ZebDataBlockManagerLoadingPreloadTwoRoots, LoadsTheTilesOfAnImageWithoutAFurtherCall)
{
    constexpr int tile = 256 * 256;
    const std::vector<ZebDataReference> tiles = addToDisk(64, tile);
    const int handled = StoreInside::writesHandled();
    for (const ZebDataReference& reference : tiles)
        reference.preload(ZebDataBlockManager::PreloadNormal);
    EXPECT_TRUE(waitUntil([] { return manager().liveBlocks() == 64; }, s_TenSecondsMs));
    quint32 seed = 0;
    for (const ZebDataReference& reference : tiles) {
        EXPECT_TRUE(reference.isInMemory());
        EXPECT_TRUE(holdsTestBytes(reference, tile, ++seed));
        EXPECT_TRUE(StoreInside::blockOf(reference)->cached());
    }
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled) << "what comes from disk is not written";
}

TEST_F(ZebDataBlockManagerLoadingPreload, OfANullReferenceDoesNothingEvenWithoutAStore)
{
    manager().preloadData(ZebDataReference());
    m_Store.cleanUp();
    m_Store.messages().clear();
    manager().preloadData(ZebDataReference());
    ZebDataReference().preload();
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
}

TEST_F(ZebDataBlockManagerLoadingPreload, NeedsAStore)
{
    const ZebDataReference reference = add(s_Block, 1);
    m_Store.cleanUp();
    EXPECT_FATAL(manager().preloadData(reference, ZebDataBlockManager::PreloadHigh),
                 "Data Block Manager Not Initialized. Aborting");
}

TEST_F(ZebDataBlockManagerLoadingPreload, NeedsACacheRoot)
{
    const ZebDataReference reference = add(s_Block, 1);
    m_Store.cleanUp();
    EXPECT_FATAL(
        {
            manager().setup(QStringList(), s_Block);
            manager().preloadData(reference);
        },
        "Number of cache paths is zero");
}

TEST_F(ZebDataBlockManagerLoadingPreload, WaitsForTheJobOfAPendingReference)
{
    const ZebDataReference reference = manager().addBlock(testBytes(s_Block, 1));
    EXPECT_TRUE(reference.hasHashJob());
    manager().preloadData(reference);
    EXPECT_FALSE(reference.hasHashJob());
    EXPECT_EQ(StoreInside::preloadsHandled(), 0) << "it is resident";
}

TEST_F(ZebDataBlockManagerLoadingPreload, OfAResidentBlockMakesItTheNewestAndLoadsNothing)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    a.preload();
    EXPECT_THAT(StoreInside::evictable(), ElementsAre(b.hashPtr().data(), a.hashPtr().data()));
    EXPECT_FALSE(a.hashPtr()->isPreloading());
    manager().flush(false, ZebDataBlockManager::ReadThreads);
    EXPECT_EQ(StoreInside::preloadsHandled(), 0);
}

TEST_F(ZebDataBlockManagerLoadingPreload, OfAPinnedBlockLeavesItPinned)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebConstAccessor accessor = a.constAccessor();
    a.preload();
    EXPECT_THAT(StoreInside::evictable(), ElementsAre(b.hashPtr().data()));
    EXPECT_EQ(accessor.count(), 1);
    EXPECT_FALSE(a.hashPtr()->isPreloading());
}

TEST_F(ZebDataBlockManagerLoadingPreload, OfAResidentUncachedBlockLoadsNothing)
{
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    kept.preload();
    EXPECT_FALSE(kept.hashPtr()->isPreloading());
    EXPECT_THAT(StoreInside::evictable(), IsEmpty());
}

TEST_F(ZebDataBlockManagerLoadingPreload, MakesRoomForTheBlock)
{
    constexpr int size = 600000;
    manager().setMaxDataCacheSize(1048576);
    const ZebDataReference a = add(size, 1);
    const ZebDataReference b = add(size, 2);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_FALSE(a.isInMemory());
    a.preload();
    EXPECT_TRUE(waitUntil([&a] { return a.isInMemory(); }));
    EXPECT_FALSE(b.isInMemory());
    EXPECT_EQ(manager().liveBytes(), size);
    EXPECT_TRUE(holdsTestBytes(a, size, 1));
}

TEST_F(ZebDataBlockManagerLoadingPreload, IsServedInOrderOfPriority)
{
    const std::vector<ZebDataReference> blocks = addToDisk(5);
    HeldReader held(blocks.at(0));
    blocks.at(1).preload(ZebDataBlockManager::PreloadLow);
    blocks.at(2).preload(ZebDataBlockManager::PreloadHigh);
    blocks.at(3).preload(ZebDataBlockManager::PreloadNormal);
    blocks.at(4).preload();
    EXPECT_THAT(waiting(StoreInside::readers().front()),
                ElementsAre(Waiting(0, blocks.at(2).hashPtr().data()),
                            Waiting(1, blocks.at(3).hashPtr().data()),
                            Waiting(1, blocks.at(4).hashPtr().data()),
                            Waiting(2, blocks.at(1).hashPtr().data())));
    for (const ZebDataReference& reference : blocks)
        EXPECT_TRUE(reference.hashPtr()->isPreloading());
    held.release();
    EXPECT_TRUE(waitUntil([] { return manager().liveBlocks() == 5; }));
    for (const ZebDataReference& reference : blocks)
        EXPECT_TRUE(waitUntil([&] { return !reference.hashPtr()->isPreloading(); }));
}

TEST_F(ZebDataBlockManagerLoadingPreload, OfLowPriorityIsSilentlyDroppedWhenTheListIsLong)
{
    const std::vector<ZebDataReference> blocks = addToDisk(52);
    HeldReader held(blocks.at(0));
    for (std::size_t i = 1; i <= 50; ++i)
        blocks.at(i).preload(ZebDataBlockManager::PreloadNormal);
    m_Store.messages().clear();
    const ZebDataReference& last = blocks.at(51);
    last.preload(ZebDataBlockManager::PreloadLow);
    EXPECT_THAT(waiting(StoreInside::readers().front()), SizeIs(50));
    EXPECT_FALSE(last.hashPtr()->isPreloading()) << "it may be asked for again";
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
    last.preload(ZebDataBlockManager::PreloadNormal);
    EXPECT_THAT(waiting(StoreInside::readers().front()), SizeIs(51));
    held.release();
    EXPECT_TRUE(waitUntil([] { return manager().liveBlocks() == 52; }));
}

TEST_F(ZebDataBlockManagerLoadingPreload,
       OfABlockThatIsMissingReportsNothingAndTakesNoFurtherRequests)
{
    const ZebDataReference reference = addToDisk(1).front();
    const QString file = StoreInside::fileOf(reference);
    const QString aside = file + QStringLiteral(".aside");
    ASSERT_TRUE(QFile::rename(file, aside));
    reference.preload();
    EXPECT_TRUE(waitUntil([this] {
        return m_Store.messages().debugLines().indexOf(
                   QRegularExpression(QStringLiteral("^Cannot read data from file '.*'$"))) != -1;
    }));
    EXPECT_TRUE(reference.hashPtr()->isPreloading());
    reference.preload();
    manager().flush(false, ZebDataBlockManager::ReadThreads);
    EXPECT_EQ(StoreInside::preloadsHandled(), 1);
    EXPECT_FALSE(reference.isInMemory());

    ASSERT_TRUE(QFile::rename(aside, file));
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1)) << "an accessor still loads it";
    EXPECT_FALSE(reference.hashPtr()->isPreloading());
    manager().freeAllBlocks();
    reference.preload();
    EXPECT_TRUE(waitUntil([&reference] { return reference.isInMemory(); }));
}

TEST_F(ZebDataBlockManagerLoadingPreloadTwoRoots, FromManyThreadsDuringReadsKeepsEveryByteRight)
{
    constexpr int size = 16384;
    constexpr int blocks = 100;
    manager().setMaxDataCacheSize(size * blocks / 5);
    const std::vector<ZebDataReference> references = addToDisk(blocks, size);
    std::atomic<int> wrong{0};
    std::atomic<int> reading{2};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 3; ++t) {
        // References are values: each thread works on its own copies.
        threads.emplace_back([copies = references, &reading, t] {
            for (unsigned i = t; reading > 0; i += 7) {
                copies.at(i % blocks)
                    .preload(static_cast<ZebDataBlockManager::PreloadPriority>(i % 3));
                if (i % 64 == 0)
                    std::this_thread::yield();
            }
        });
    }
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([copies = references, &reading, &wrong, t] {
            for (int i = 0; i < 1000; ++i) {
                const int at = (i * 13 + t * 50) % blocks;
                if (!holdsTestBytes(copies.at(static_cast<std::size_t>(at)), size,
                                    static_cast<quint32>(at + 1)))
                    ++wrong;
            }
            --reading;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(StoreInside::preloadsHandled(), 0);
    EXPECT_LE(manager().liveBytes(), manager().maxDataCacheSize());
}

// The switch

TEST_F(ZebDataBlockManagerLoadingPreloadTwoRoots, ThePromotionSwitchReachesEveryReaderAndIsLogged)
{
    EXPECT_FALSE(manager().requestPromotionEnabled());
    manager().setRequestPromotionEnabled(true);
    EXPECT_TRUE(manager().requestPromotionEnabled());
    for (const ZebDataBlockReadThread* const reader : StoreInside::readers())
        EXPECT_TRUE(reader->requestPromotionEnabled());
    EXPECT_EQ(m_Store.messages().count(switchedOn()), 1);
    manager().setRequestPromotionEnabled(false);
    for (const ZebDataBlockReadThread* const reader : StoreInside::readers())
        EXPECT_FALSE(reader->requestPromotionEnabled());
    EXPECT_EQ(m_Store.messages().count(switchedOff()), 1);
}

TEST_F(ZebDataBlockManagerLoadingPreload, SettingThePromotionWithoutAChangeLogsNothing)
{
    m_Store.messages().clear();
    manager().setRequestPromotionEnabled(false);
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
    manager().setRequestPromotionEnabled(true);
    manager().setRequestPromotionEnabled(true);
    EXPECT_THAT(m_Store.messages().debugLines(), ElementsAre(switchedOn()));
}

TEST_F(ZebDataBlockManagerLoadingPreload, NewReadersStartWithoutThePromotionThatTheStoreReports)
{
    manager().setRequestPromotionEnabled(true);
    m_Store.cleanUp();
    EXPECT_TRUE(manager().requestPromotionEnabled());
    m_Store.setupAgain();
    EXPECT_TRUE(manager().requestPromotionEnabled());
    EXPECT_FALSE(StoreInside::readers().front()->requestPromotionEnabled());
    m_Store.messages().clear();
    manager().setRequestPromotionEnabled(true);
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
    EXPECT_FALSE(StoreInside::readers().front()->requestPromotionEnabled());
    manager().setRequestPromotionEnabled(false);
    manager().setRequestPromotionEnabled(true);
    EXPECT_TRUE(StoreInside::readers().front()->requestPromotionEnabled());
}

TEST_F(ZebDataBlockManagerLoadingPreload, ThePromotionMayBeSwitchedWithoutAStore)
{
    m_Store.cleanUp();
    m_Store.messages().clear();
    manager().setRequestPromotionEnabled(true);
    EXPECT_TRUE(manager().requestPromotionEnabled());
    EXPECT_THAT(m_Store.messages().debugLines(), ElementsAre(switchedOn()));
}

TEST_F(ZebDataBlockManagerLoadingPreload, AskingAgainRaisesThePriorityWithPromotionOnly)
{
    const std::vector<ZebDataReference> blocks = addToDisk(3);
    HeldReader held(blocks.at(0));
    blocks.at(1).preload(ZebDataBlockManager::PreloadNormal);
    blocks.at(2).preload(ZebDataBlockManager::PreloadLow);
    ZebDataBlockReadThread* const reader = StoreInside::readers().front();
    ZebDataHash* const first = blocks.at(1).hashPtr().data();
    ZebDataHash* const second = blocks.at(2).hashPtr().data();
    blocks.at(2).preload(ZebDataBlockManager::PreloadHigh);
    EXPECT_THAT(waiting(reader), ElementsAre(Waiting(1, first), Waiting(2, second)));
    manager().setRequestPromotionEnabled(true);
    blocks.at(2).preload(ZebDataBlockManager::PreloadLow);
    EXPECT_THAT(waiting(reader), ElementsAre(Waiting(1, first), Waiting(1, second)));
    held.release();
    EXPECT_TRUE(waitUntil([] { return manager().liveBlocks() == 3; }));
}
