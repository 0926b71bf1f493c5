// What becomes of a block that leaves memory: which one goes, who deletes it, and when its bytes
// reach the disk. And the host's brake on the writers' queues.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "support/FailingDisk.h"
#include "support/FakeMemory.h"
#include "support/Fatal.h"
#include "support/HeldWriter.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"
#include "support/ZebDataDeleteLocker.h"

#include <QObject>
#include <QRegularExpression>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <thread>
#include <vector>

ZEBTDX_ACCESS(MakeBlockLiveTag, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebDataHash*, ZebDataBlock*), makeBlockLive)

using StoreInside::makeRoom;
using StoreInside::manager;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int s_Block = 1000;
constexpr int s_Megabyte = 1048576;

// A block that counts its end.
class CountedBlock : public ZebDataBlock
{
public:
    CountedBlock(const QByteArray& bytes, std::atomic<int>* ended)
        : ZebDataBlock(bytes), m_Ended(ended)
    {}
    ~CountedBlock() override { ++*m_Ended; }

private:
    std::atomic<int>* m_Ended;
};

// Holds a hash from another thread, as somebody does who takes or releases a reference on it.
class HeldHash
{
public:
    explicit HeldHash(const ZebDataReference& reference)
        : m_Hash(reference.hashPtr()), m_Thread([this] {
              m_Held.set_value(m_Hash->tryLock());
              m_Release.get_future().wait();
              m_Hash->unlock();
          })
    {
        EXPECT_TRUE(m_Held.get_future().get());
    }
    ~HeldHash()
    {
        m_Release.set_value();
        m_Thread.join();
    }
    HeldHash(const HeldHash&) = delete;
    HeldHash& operator=(const HeldHash&) = delete;

private:
    ZebSmartPointer<ZebDataHash> m_Hash;
    std::promise<bool> m_Held;
    std::promise<void> m_Release;
    std::thread m_Thread;
};

bool canBeLockedElsewhere(const ZebSmartPointer<ZebDataHash>& hash)
{
    bool locked = false;
    std::thread([&] {
        locked = hash->tryLock();
        if (locked)
            hash->unlock();
    }).join();
    return locked;
}

class ZebDataBlockManagerEviction : public testing::Test
{
protected:
    ZebDataBlockManagerEviction() : m_Store(options())
    {
        // Nothing is resident; this only has the plenty measured.
        manager().flushMemory(true);
    }
    ~ZebDataBlockManagerEviction() override
    {
        manager().setTargetFreeMemorySize(manager().defaultTargetFreeMemorySize());
        manager().setMaxWritePendingSizeFactor(manager().defaultMaxWritePendingSizeFactor());
    }

    static TemporaryStore::Options options()
    {
        TemporaryStore::Options options;
        options.m_Buckets = 1;
        return options;
    }

    static ZebDataReference add(int size, quint32 seed)
    {
        return manager().addBlock(testBytes(size, seed), ZebModifyAccessor::Cached, true);
    }

    // Admits a block whose end m_Ended counts.
    ZebDataReference addCounted(quint32 seed)
    {
        const QByteArray bytes = testBytes(s_Block, seed);
        const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(bytes);
        (manager().*privateMember(MakeBlockLiveTag()))(hash.data(),
                                                       new CountedBlock(bytes, &m_Ended));
        return ZebDataReference(hash);
    }

    static bool evictEverything() { return manager().flushMemory(true); }

    static bool evictOne()
    {
        manager().setTargetFreeMemorySize(FakeMemory::s_Plenty);
        return makeRoom(1);
    }

    static void waitForWriters() { manager().flush(false, ZebDataBlockManager::WriteThreads); }

    FakeMemory m_Memory;
    std::atomic<int> m_Ended{0};
    TemporaryStore m_Store;
};

} // namespace

// Which block goes

TEST_F(ZebDataBlockManagerEviction, TheOldestBlockGoesFirst)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    EXPECT_TRUE(evictOne());
    EXPECT_THAT(StoreInside::evictable(), ElementsAre(b.hashPtr().data(), c.hashPtr().data()));
    EXPECT_FALSE(a.isInMemory());
}

TEST_F(ZebDataBlockManagerEviction, ABlockThatWasAskedForOrReadIsYoungAgain)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    EXPECT_TRUE(a.isInMemory());
    EXPECT_TRUE(holdsTestBytes(b, s_Block, 2));
    EXPECT_TRUE(evictOne());
    EXPECT_FALSE(c.isInMemory());
    EXPECT_TRUE(evictOne());
    EXPECT_FALSE(a.isInMemory());
    EXPECT_TRUE(b.isInMemory());
}

TEST_F(ZebDataBlockManagerEviction, GivingTheSameBytesAgainDoesNotMakeABlockYounger)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    add(s_Block, 1);
    EXPECT_TRUE(evictOne());
    EXPECT_FALSE(a.isInMemory());
    EXPECT_TRUE(b.isInMemory());
}

TEST_F(ZebDataBlockManagerEviction, LockedAndDoNotCacheBlocksAreNeverPicked)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 3), ZebModifyAccessor::DontCache);
    const ZebConstAccessor readA = a.constAccessor();
    const ZebConstAccessor readB = b.constAccessor();
    EXPECT_FALSE(evictEverything());
    EXPECT_FALSE(manager().helpMeOut());
    EXPECT_EQ(manager().liveBytes(), 3 * s_Block);

    manager().setMaxDataCacheSize(s_Block);
    const ZebDataReference more = add(s_Block, 4);
    EXPECT_EQ(manager().liveBytes(), 4 * s_Block) << "above the limit, as nothing may go";
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST_F(ZebDataBlockManagerEviction, AHashThatSomebodyHoldsIsPassedOverAndBecomesTheNewest)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    waitForWriters();
    const qint64 freed = StoreInside::blocksFreed();
    {
        const HeldHash held(a);
        EXPECT_TRUE(evictOne());
    }
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 1);
    EXPECT_THAT(StoreInside::evictable(), ElementsAre(c.hashPtr().data(), a.hashPtr().data()));
    EXPECT_TRUE(canBeLockedElsewhere(b.hashPtr())) << "given back on the way";
}

TEST_F(ZebDataBlockManagerEviction, WithEveryHashHeldEvictionKeepsTurning)
{
    const ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    waitForWriters();
    std::future<bool> evicted;
    {
        const HeldHash heldA(a);
        const HeldHash heldB(b);
        evicted = std::async(std::launch::async, [] { return evictEverything(); });
        ZebDataHash* oldest = StoreInside::evictable().front();
        int turns = 0;
        EXPECT_TRUE(waitUntil([&] {
            ZebDataHash* const now = StoreInside::evictable().front();
            turns += now == oldest ? 0 : 1;
            oldest = now;
            return turns >= 10;
        }));
    }
    EXPECT_TRUE(evicted.get());
    EXPECT_EQ(manager().liveBlocks(), 0);
}

// freeBlock

TEST_F(ZebDataBlockManagerEviction, EachBlockThatLeavesMemoryIsCounted)
{
    const qint64 freed = StoreInside::blocksFreed();
    ZebDataReference a = add(s_Block, 1);
    const ZebDataReference b = add(s_Block, 2);
    const ZebDataReference c = add(s_Block, 3);
    waitForWriters();
    a = ZebDataReference();
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 1);
    EXPECT_TRUE(evictOne());
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 2);
    manager().freeAllBlocks();
    EXPECT_EQ(StoreInside::blocksFreed(), freed + 3);
    m_Store.cleanUp();
    EXPECT_EQ(StoreInside::blocksFreed(), -1);
}

TEST_F(ZebDataBlockManagerEviction, FreeingABlockThatIsNotResidentDoesNothing)
{
    const ZebDataReference a = add(s_Block, 1);
    manager().freeAllBlocks();
    const qint64 freed = StoreInside::blocksFreed();
    StoreInside::freeBlock(a.hashPtr().data(), true, false);
    EXPECT_EQ(StoreInside::blocksFreed(), freed);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_TRUE(StoreInside::deleteLock().tryLock());
    StoreInside::deleteLock().unlock();
}

TEST_F(ZebDataBlockManagerEviction, AHashHeldForABlockThatIsNotResidentIsGivenBack)
{
    const ZebDataReference a = add(s_Block, 1);
    manager().freeAllBlocks();
    const ZebSmartPointer<ZebDataHash> hash = a.hashPtr();
    ASSERT_TRUE(hash->tryLock());
    StoreInside::freeBlock(hash.data(), true, true);
    EXPECT_TRUE(std::async(std::launch::async, [&hash] {
                    const bool locked = hash->tryLock();
                    if (locked)
                        hash->unlock();
                    return locked;
                }).get());
}

TEST_F(ZebDataBlockManagerEviction, FreeingWithoutAStoreIsSilent)
{
    const ZebDataReference a = add(s_Block, 1);
    ZebDataReference b = add(s_Block, 2);
    m_Store.cleanUp();
    m_Store.messages().clear();
    StoreInside::freeBlock(a.hashPtr().data(), true, false);
    b = ZebDataReference();
    EXPECT_EQ(StoreInside::blocksFreed(), -1);
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEviction, ADoNotCacheBlockIsDeletedAtOnceAlsoWhenWritingIsAsked)
{
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    const int handled = StoreInside::writesHandled();
    StoreInside::freeBlock(kept.hashPtr().data(), true, false);
    EXPECT_EQ(manager().liveBytes(), 0);
    waitForWriters();
    EXPECT_EQ(StoreInside::writesHandled(), handled);
    EXPECT_FALSE(StoreInside::hasFile(kept));
}

// A block between its write and its end

TEST_F(ZebDataBlockManagerEviction, AWrittenBlockIsDeletedAtOnce)
{
    const ZebDataReference a = addCounted(1);
    waitForWriters();
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_TRUE(evictEverything());
    EXPECT_EQ(m_Ended, 1);
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEviction, ABlockWithAWriteInFlightLivesOnUntilItsRequestEnds)
{
    HeldWriter held;
    const qint64 liveBytes = manager().liveBytes();
    const ZebDataReference a = addCounted(1);
    ZebDataBlock* const block = StoreInside::blockOf(a);
    EXPECT_TRUE(StoreInside::beingWritten().contains(block));
    EXPECT_FALSE(manager().needsFreeingAfterWriting(block));

    EXPECT_TRUE(evictEverything());
    EXPECT_FALSE(a.isInMemory());
    EXPECT_EQ(manager().liveBytes(), liveBytes) << "outside the count, although it takes memory";
    EXPECT_TRUE(StoreInside::beingWritten().contains(block));
    EXPECT_TRUE(manager().needsFreeingAfterWriting(block));
    EXPECT_EQ(m_Ended, 0);

    held.release();
    waitForWriters();
    EXPECT_EQ(m_Ended, 1);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
    EXPECT_FALSE(manager().needsFreeingAfterWriting(block));
    EXPECT_TRUE(StoreInside::hasFile(a));
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEviction, ABlockThatTheDiskRefusesLivesOnUntilTheDiskTakesIt)
{
    std::atomic<int> errors{0};
    const QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::writeError, &receiver, [&errors] { ++errors; },
        Qt::DirectConnection);
    FailingDisk disk(m_Store.roots());
    const ZebDataReference evicted = addCounted(1);
    EXPECT_TRUE(evictEverything());
    const ZebDataReference resident = addCounted(2);
    EXPECT_TRUE(waitUntil([&errors] { return errors >= 3; }));
    EXPECT_EQ(m_Ended, 0);
    EXPECT_EQ(StoreInside::beingWritten().size(), 2);
    EXPECT_EQ(StoreInside::toFreeAfterWriting().size(), 1);

    disk.recover();
    waitForWriters();
    EXPECT_EQ(m_Ended, 1);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
    EXPECT_TRUE(StoreInside::hasFile(resident));
    EXPECT_TRUE(holdsTestBytes(evicted, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEviction, AReadOfABlockEvictedWithItsWriteQueuedWaitsForTheWriter)
{
    HeldWriter held;
    const ZebDataReference a = addCounted(1);
    EXPECT_TRUE(evictEverything());
    std::future<bool> read =
        std::async(std::launch::async, [a] { return holdsTestBytes(a, s_Block, 1); });
    // The block's write, and the fence that the read has set behind it.
    EXPECT_TRUE(waitUntil([] { return StoreInside::writers().front()->requests() == 2; }));
    held.release();
    EXPECT_TRUE(read.get());
    EXPECT_TRUE(a.isInMemory());
}

TEST_F(ZebDataBlockManagerEviction, AReadFromAFailingDiskGivesANullAccessorAndLosesNothing)
{
    FailingDisk disk(m_Store.roots());
    const ZebDataReference a = add(s_Block, 1);
    EXPECT_TRUE(evictEverything());
    EXPECT_TRUE(a.constAccessor().isNull());
    const auto lines = m_Store.messages().debugLines();
    EXPECT_THAT(lines.filter(QRegularExpression(QStringLiteral("^Cannot read data from file '"))),
                testing::SizeIs(1));
    disk.recover();
    waitForWriters();
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEviction, TheSameBytesMayComeAgainWhileTheEvictedBlockIsBeingWritten)
{
    HeldWriter held;
    const int handled = StoreInside::writesHandled();
    const ZebDataReference first = addCounted(1);
    ZebDataBlock* const old = StoreInside::blockOf(first);
    EXPECT_TRUE(evictEverything());
    const ZebDataReference second = addCounted(1);
    EXPECT_EQ(first, second);
    EXPECT_NE(StoreInside::blockOf(second), old);
    EXPECT_EQ(StoreInside::beingWritten().size(), 3) << "both, and the one that holds the writer";
    EXPECT_FALSE(manager().needsFreeingAfterWriting(StoreInside::blockOf(second)));

    held.release();
    waitForWriters();
    EXPECT_EQ(StoreInside::writesHandled(), handled + 3);
    EXPECT_EQ(m_Ended, 1) << "the old one";
    EXPECT_TRUE(StoreInside::blockOf(second)->cached());
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEviction, EvictionHandsABlockWithoutAFileOverToItsWriter)
{
    const ZebDataReference a = addCounted(1);
    waitForWriters();
    ASSERT_TRUE(StoreInside::forgetFile(a));
    ZebDataBlock* const block = StoreInside::blockOf(a);
    {
        HeldWriter held;
        EXPECT_TRUE(evictEverything());
        EXPECT_FALSE(a.isInMemory());
        EXPECT_EQ(m_Ended, 0);
        EXPECT_TRUE(StoreInside::beingWritten().contains(block));
        EXPECT_FALSE(manager().needsFreeingAfterWriting(block)) << "the request owns it";
        EXPECT_EQ(StoreInside::writers().front()->bytesInQueue(), s_Block);
    }
    EXPECT_EQ(m_Ended, 1);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_TRUE(StoreInside::hasFile(a));
    EXPECT_TRUE(holdsTestBytes(a, s_Block, 1));
}

TEST_F(ZebDataBlockManagerEviction, TheLastReferenceEndsItsBlockAtOnceWithoutAWrite)
{
    const int hashes = ZebHashManager::instance().hashCount();
    ZebDataReference a = addCounted(1);
    waitForWriters();
    ASSERT_TRUE(StoreInside::forgetFile(a));
    const QString file = StoreInside::fileOf(a);
    const int handled = StoreInside::writesHandled();
    a = ZebDataReference();
    EXPECT_EQ(m_Ended, 1);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
    waitForWriters();
    EXPECT_EQ(StoreInside::writesHandled(), handled);
    EXPECT_FALSE(QFile::exists(file));
}

TEST_F(ZebDataBlockManagerEviction, AQueuedWriteKeepsABlockThatNobodyElseRefersTo)
{
    const int hashes = ZebHashManager::instance().hashCount();
    QString file;
    {
        HeldWriter held;
        ZebDataReference a = addCounted(1);
        file = StoreInside::fileOf(a);
        const qint64 liveBytes = manager().liveBytes();
        a = ZebDataReference();
        EXPECT_EQ(manager().liveBytes(), liveBytes);
        EXPECT_EQ(m_Ended, 0);
    }
    EXPECT_EQ(m_Ended, 1);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
    EXPECT_TRUE(QFile::exists(file));
}

TEST_F(ZebDataBlockManagerEviction, ABlockWhoseOnlyHolderIsItsWriteMayBeEvicted)
{
    const int hashes = ZebHashManager::instance().hashCount();
    {
        HeldWriter held;
        addCounted(1);
        EXPECT_TRUE(evictEverything());
        EXPECT_EQ(StoreInside::toFreeAfterWriting().size(), 1);
        EXPECT_EQ(m_Ended, 0);
    }
    EXPECT_EQ(m_Ended, 1);
    EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
}

TEST_F(ZebDataBlockManagerEviction, ANullBlockNeverWaitsForItsWrite)
{
    EXPECT_FALSE(manager().needsFreeingAfterWriting(nullptr));
    manager().flagWritingBlockFinished(nullptr);
    manager().flagFreeingBlockFinishedAfterWriting(nullptr);
}

// freeAllBlocks

TEST_F(ZebDataBlockManagerEviction, FreeingAllBlocksEmptiesMemoryAndKeepsTheHashes)
{
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 50; ++i)
        references.push_back(add(s_Block, i));
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 50), ZebModifyAccessor::DontCache);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    const int hashes = ZebHashManager::instance().hashCount();
    manager().freeAllBlocks();
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(StoreInside::residentBlocks(), 0);
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes);
    EXPECT_TRUE(kept.constAccessor().isNull()) << "its bytes had no other place";
    EXPECT_FALSE(kept.isInMemory());
    for (quint32 i = 0; i < 50; ++i)
        EXPECT_TRUE(holdsTestBytes(references.at(i), s_Block, i));
}

TEST_F(ZebDataBlockManagerEviction, FreeingAllBlocksWritesWhatHasNoFileAndWaitsForIt)
{
    const ZebDataReference a = addCounted(1);
    const ZebDataReference b = addCounted(2);
    waitForWriters();
    ASSERT_TRUE(StoreInside::forgetFile(a));
    manager().freeAllBlocks();
    EXPECT_EQ(m_Ended, 2);
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    EXPECT_TRUE(StoreInside::hasFile(a));
}

TEST_F(ZebDataBlockManagerEviction, FreeingAllBlocksNeedsAStore)
{
    m_Store.cleanUp();
    EXPECT_FATAL(manager().freeAllBlocks(), "Data Block Manager Not Initialized. Aborting");
}

// processIO

TEST_F(ZebDataBlockManagerEviction, TheBrakeLetsGoAtOnceBelowTheLimitOfPendingBytes)
{
    manager().setMaxWritePendingSizeFactor(0.0F);
    const HeldWriter held;
    add(s_Megabyte - 1, 1);
    m_Store.messages().clear();
    manager().processIO();
    EXPECT_FALSE(manager().isWriteThreadsFull());
    EXPECT_THAT(m_Store.messages().debugLines(), IsEmpty());
}

TEST_F(ZebDataBlockManagerEviction, TheBrakeHoldsFromTheLimitOnUntilTheWritersHaveCaughtUp)
{
    manager().setMaxWritePendingSizeFactor(0.0F);
    HeldWriter held;
    add(s_Megabyte - 1, 1);
    add(1, 2);
    EXPECT_TRUE(manager().isWriteThreadsFull());
    std::future<void> brake;
    {
        // It takes no lock of the manager, or this would never end.
        const ZebDataDeleteLocker locker;
        brake = std::async(std::launch::async, [] { manager().processIO(); });
        EXPECT_TRUE(waitUntil([this] {
            return m_Store.messages().contains(QStringLiteral(
                "ZebDataBlockManager::processIO: Excessive data in the queue: 1048576 bytes (max "
                "= 1048576): sleeping calling thread..."));
        }));
    }
    std::thread([&held] { held.release(); }).join();
    brake.get();
    EXPECT_FALSE(manager().isWriteThreadsFull());
}

TEST(ZebDataBlockManagerBrake, LetsGoAtOnceWithoutWriters)
{
    TemporaryStore::Options options;
    options.m_Roots = 0;
    TemporaryStore store(options);
    store.messages().clear();
    manager().processIO();
    EXPECT_THAT(store.messages().debugLines(), IsEmpty());
    store.cleanUp();
    manager().processIO();
}
