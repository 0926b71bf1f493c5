// Threads that stop in the middle of an operation without a lock, and what other threads do then.
// Each test is also run with the guard switched off that it is about, and must fail then; see
// MutantTest.

#include "data/ZebConstAccessor.h"
#include "hash/ZebReadGate.h"
#include "hash/ZebThreadSlot.h"
#include "reads/PointStop.h"
#include "reads/TestGuards.h"
#include "support/BytesOf.h"
#include "support/DeleteLockProbe.h"
#include "support/HashInside.h"
#include "support/Registry.h"
#include "support/SequencePoints.h"
#include "support/StoreFixture.h"
#include "support/ZebDataDeleteLocker.h"

#include <QSemaphore>

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

namespace {

// Switches off the guard that the environment names.
const bool s_IsSwitched = [] {
    if (const char* const name = std::getenv("ZEBTDX_GUARD_OFF"))
        switchGuardOff(name);
    return true;
}();

// How long an operation would take at most that does not wait as it should.
constexpr int s_MomentMs = 50;

bool gateIsClosed()
{
    return (ZebReadGate::s_Word.m_Bits.load() & ZebReadGate::Closed) != 0;
}

// For a thread that has reached the place where it must wait.
bool keepsWaiting(const BlockedThread& thread)
{
    return !pollUntil([&thread] { return thread.hasEnded(); }, s_MomentMs);
}

// A thread that lives as long as this object and reads when it is asked to.
class Reader
{
public:
    Reader()
        : m_Thread([this] {
              m_Slot = ZebThreadSlot::mine();
              m_Done.release();
              for (m_Begin.acquire(); m_Reference != nullptr; m_Begin.acquire()) {
                  m_Reference->constAccessor();
                  m_Done.release();
              }
          })
    {
        m_Done.acquire();
    }
    ~Reader()
    {
        m_Reference = nullptr;
        m_Begin.release();
        m_Thread.join();
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    void openAndClose(const ZebDataReference& reference)
    {
        m_Reference = &reference;
        m_Begin.release();
        m_Done.acquire();
    }

    // Whether a drain takes the stack of this thread before that of the other one.
    bool isDrainedBefore(const Reader& other) const
    {
        const ZebThreadSlot* slot = ZebThreadSlot::first();
        while (slot != m_Slot && slot != other.m_Slot)
            slot = slot->next();
        return slot == m_Slot;
    }

private:
    const ZebDataReference* m_Reference = nullptr;
    const ZebThreadSlot* m_Slot = nullptr;
    QSemaphore m_Begin;
    QSemaphore m_Done;
    std::thread m_Thread;
};

class ReadMoments : public StoreFixture
{
protected:
    ReadMoments()
    {
        PointStop::countArrivals();
        waitForWriters();
        manager().setTargetFreeMemorySize(0);
    }

    static bool isResident(const ZebDataReference& reference)
    {
        return StoreInside::blockOf(reference) != nullptr;
    }

    // Evicts the least recently used block, as an admission does.
    static void evictOldest()
    {
        evictOne();
        manager().setTargetFreeMemorySize(0);
    }

    static void openAndClose(const ZebDataReference& reference)
    {
        const ZebConstAccessor accessor = reference.constAccessor();
    }

    // A block with a single reference: no writer holds the hash any more.
    static ZebDataReference addAndWrite(quint32 seed)
    {
        ZebDataReference reference = add(s_Block, seed);
        waitForWriters();
        return reference;
    }

    static QByteArray bytes(quint32 seed) { return testBytes(s_Block, seed); }

    // Most tests are about the older and the newer block; an eviction of the oldest one drains.
    const ZebDataReference m_Oldest = add(s_Block, 1);
    const ZebDataReference m_Older = add(s_Block, 2);
    const ZebDataReference m_Newer = add(s_Block, 3);
};

} // namespace

// The order of uses

TEST_F(ReadMoments, AClosedBlockIsTheNewest)
{
    openAndClose(m_Oldest);
    evictOldest();
    EXPECT_TRUE(isResident(m_Oldest));
    EXPECT_FALSE(isResident(m_Older));
    evictOldest();
    EXPECT_FALSE(isResident(m_Newer));
    evictOldest();
    EXPECT_FALSE(isResident(m_Oldest));
}

TEST_F(ReadMoments, ACloseThatHasNotNotedItsUseLetsOthersBeEvicted)
{
    StoppedThread closer(ZebTestPoint::UsedSet, [this] { openAndClose(m_Older); });
    ASSERT_TRUE(closer.isStopped());
    EXPECT_EQ(manager().liveBlocks(), 2) << "the closing block is still pinned";
    evictOldest();
    EXPECT_FALSE(isResident(m_Oldest));
    ASSERT_TRUE(closer.goesOnAndEnds());
    EXPECT_EQ(manager().liveBlocks(), 2);
    evictOldest();
    EXPECT_FALSE(isResident(m_Newer));
    EXPECT_TRUE(isResident(m_Older));
}

TEST_F(ReadMoments, ACloseIsNotedAgainAfterADrain)
{
    StoppedThread closer(ZebTestPoint::StampWritten, [this] { openAndClose(m_Older); });
    ASSERT_TRUE(closer.isStopped());
    // Drains, and finds the block pinned.
    evictOldest();
    EXPECT_FALSE(isResident(m_Oldest));
    ASSERT_TRUE(closer.goesOnAndEnds());
    // The close ended after the newer one was used.
    evictOldest();
    EXPECT_TRUE(isResident(m_Older));
    EXPECT_FALSE(isResident(m_Newer));
    evictOldest();
    EXPECT_FALSE(isResident(m_Older));
}

TEST_F(ReadMoments, AQueryIsNotedAgainAfterADrain)
{
    StoppedThread asker(ZebTestPoint::UsedPushed, [this] { m_Older.isInMemory(); });
    ASSERT_TRUE(asker.isStopped());
    evictOldest();
    EXPECT_FALSE(isResident(m_Oldest));
    ASSERT_TRUE(asker.goesOnAndEnds());
    evictOldest();
    EXPECT_TRUE(isResident(m_Older));
    EXPECT_FALSE(isResident(m_Newer));
}

TEST_F(ReadMoments, ADrainTakesTheStampOfACloseThatMeetsIt)
{
    // The older one is on top of the stack, noted for a use before the last one of the newer one.
    openAndClose(m_Newer);
    openAndClose(m_Older);
    auto accessor = std::make_unique<ZebConstAccessor>(m_Older.constAccessor());
    openAndClose(m_Newer);
    StoppedThread evictor(ZebTestPoint::DrainRead, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    accessor.reset();
    ASSERT_TRUE(evictor.goesOnAndEnds());
    EXPECT_FALSE(isResident(m_Oldest));
    evictOldest();
    EXPECT_FALSE(isResident(m_Newer));
    EXPECT_TRUE(isResident(m_Older));
}

TEST_F(ReadMoments, ACloseDuringADrainIsNotedForTheNextOne)
{
    openAndClose(m_Older);
    StoppedThread evictor(ZebTestPoint::DrainTaken, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    openAndClose(m_Newer);
    openAndClose(m_Older);
    ASSERT_TRUE(evictor.goesOnAndEnds());
    EXPECT_FALSE(isResident(m_Oldest));
    evictOldest();
    EXPECT_FALSE(isResident(m_Newer));
    EXPECT_TRUE(isResident(m_Older));
}

TEST_F(ReadMoments, ADrainThatMissesAUseLetsNoLaterOneBeEvicted)
{
    const ZebDataReference noted = add(s_Block, 9);
    auto accessor = std::make_unique<ZebConstAccessor>(m_Oldest.constAccessor());
    // Meets the pinned block and sets it aside.
    evictOldest();
    ASSERT_FALSE(isResident(m_Older));
    SequencePoints points;
    BlockedThread worker([&] {
        openAndClose(noted);
        points.reachedThenWait("noted", "drain");
        accessor.reset();
        points.reached("closed");
    });
    ASSERT_TRUE(points.wait("noted"));
    const ZebConstAccessor pinned = noted.constAccessor();
    // The drain takes the stack of the worker before that of this thread, whose slot is the first
    // of the process.
    StoppedThread evictor(ZebTestPoint::DrainTaken, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    points.reached("drain");
    ASSERT_TRUE(points.wait("closed"));
    openAndClose(m_Newer);
    ASSERT_TRUE(evictor.goesOnAndEnds());
    EXPECT_FALSE(isResident(m_Oldest));
    EXPECT_TRUE(isResident(m_Newer));
}

TEST_F(ReadMoments, ADrainMeetsABlockOnTwoStacks)
{
    Reader a;
    Reader b;
    Reader& first = a.isDrainedBefore(b) ? a : b;
    Reader& second = a.isDrainedBefore(b) ? b : a;
    first.openAndClose(m_Older);
    StoppedThread evictor(ZebTestPoint::DrainCleared, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    second.openAndClose(m_Older);
    ASSERT_TRUE(evictor.goesOnAndEnds());
    EXPECT_FALSE(isResident(m_Oldest));
    evictOldest();
    EXPECT_FALSE(isResident(m_Newer));
    EXPECT_TRUE(isResident(m_Older));
}

TEST_F(ReadMoments, APinnedBlockWhoseUseIsBeingNotedKeepsItsPlace)
{
    StoppedThread asker(ZebTestPoint::UsedSet, [this] { m_Oldest.isInMemory(); });
    ASSERT_TRUE(asker.isStopped());
    auto accessor = std::make_unique<ZebConstAccessor>(m_Oldest.constAccessor());
    // Not set aside: the close below leaves the note to the stopped thread.
    BlockedThread evictor([] { evictOldest(); });
    EXPECT_TRUE(pollUntil(&gateIsClosed));
    ASSERT_TRUE(asker.goesOnAndEnds());
    ASSERT_TRUE(evictor.ends());
    EXPECT_FALSE(isResident(m_Older));
    accessor.reset();
    openAndClose(m_Newer);
    evictOldest();
    EXPECT_FALSE(isResident(m_Oldest));
    EXPECT_TRUE(isResident(m_Newer));
}

// Eviction

TEST_F(ReadMoments, AnOpenedBlockIsNotEvicted)
{
    StoppedThread opener(ZebTestPoint::OpenPinned, [this] {
        const ZebConstAccessor accessor = m_Oldest.constAccessor();
        EXPECT_EQ(bytesOf(accessor), bytes(1));
    });
    ASSERT_TRUE(opener.isStopped());
    evictOldest();
    EXPECT_TRUE(isResident(m_Oldest));
    EXPECT_FALSE(isResident(m_Older));
    ASSERT_TRUE(opener.goesOnAndEnds());
}

TEST_F(ReadMoments, AnEvictedBlockIsLoadedByAnOpenThatHasBegun)
{
    StoppedThread opener(ZebTestPoint::OpenEntered, [this] {
        const ZebConstAccessor accessor = m_Oldest.constAccessor();
        EXPECT_EQ(bytesOf(accessor), bytes(1));
        EXPECT_EQ(accessor.count(), 1);
    });
    ASSERT_TRUE(opener.isStopped());
    evictOldest();
    EXPECT_FALSE(isResident(m_Oldest));
    ASSERT_TRUE(opener.goesOnAndEnds());
    EXPECT_TRUE(isResident(m_Oldest));
    EXPECT_EQ(manager().liveBlocks(), 3);
}

TEST_F(ReadMoments, AnOpenWaitsForAnEvictionOfItsBlock)
{
    StoppedThread evictor(ZebTestPoint::EvictLocked, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    BlockedThread opener([this] {
        const ZebConstAccessor accessor = m_Oldest.constAccessor();
        EXPECT_EQ(bytesOf(accessor), bytes(1));
    });
    EXPECT_TRUE(opener.standsStill());
    ASSERT_TRUE(evictor.goesOnAndEnds());
    ASSERT_TRUE(opener.ends());
    EXPECT_TRUE(isResident(m_Oldest));
}

TEST_F(ReadMoments, ABlockThatIsUsedWhenItIsChosenStays)
{
    StoppedThread evictor(ZebTestPoint::EvictChosen, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    openAndClose(m_Oldest);
    ASSERT_TRUE(evictor.goesOnAndEnds());
    EXPECT_TRUE(isResident(m_Oldest));
    EXPECT_FALSE(isResident(m_Older));
    evictOldest();
    EXPECT_FALSE(isResident(m_Newer));
}

TEST_F(ReadMoments, ABlockThatIsOpenedWhenItIsChosenStays)
{
    StoppedThread evictor(ZebTestPoint::EvictChosen, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    const ZebConstAccessor accessor = m_Oldest.constAccessor();
    ASSERT_TRUE(evictor.goesOnAndEnds());
    EXPECT_TRUE(isResident(m_Oldest));
    EXPECT_FALSE(isResident(m_Older));
    EXPECT_EQ(bytesOf(accessor), bytes(1));
}

TEST_F(ReadMoments, AnEvictionThatFindsNothingWaitsForACloseInProgress)
{
    evictOldest();
    evictOldest();
    ASSERT_EQ(manager().liveBlocks(), 1);
    StoppedThread closer(ZebTestPoint::StampWritten, [this] { openAndClose(m_Newer); });
    ASSERT_TRUE(closer.isStopped());
    BlockedThread evictor([] { evictOldest(); });
    EXPECT_TRUE(pollUntil([&] { return gateIsClosed() || evictor.hasEnded(); }));
    EXPECT_TRUE(keepsWaiting(evictor));
    ASSERT_TRUE(closer.goesOnAndEnds());
    ASSERT_TRUE(evictor.ends());
    EXPECT_FALSE(isResident(m_Newer));
}

TEST_F(ReadMoments, AnEvictionWaitsForACopyOfTheBytes)
{
    StoppedThread copier(ZebTestPoint::CopyBegun, [this] {
        const ZebModifyAccessor copy = m_Oldest.modifyAccessor();
        EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(copy.data()), s_Block), bytes(1));
    });
    ASSERT_TRUE(copier.isStopped());
    const int locked = PointStop::arrivals(ZebTestPoint::EvictLocked);
    BlockedThread evictor([] { evictOldest(); });
    EXPECT_TRUE(pollUntil([&] { return PointStop::arrivals(ZebTestPoint::EvictLocked) > locked; }));
    EXPECT_TRUE(keepsWaiting(evictor));
    ASSERT_TRUE(copier.goesOnAndEnds());
    ASSERT_TRUE(evictor.ends());
    EXPECT_FALSE(isResident(m_Oldest));
}

TEST_F(ReadMoments, FreeingAllBlocksWaitsForACopyOfTheBytes)
{
    StoppedThread copier(ZebTestPoint::CopyBegun, [this] {
        const ZebModifyAccessor copy = m_Oldest.modifyAccessor();
        EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(copy.data()), s_Block), bytes(1));
    });
    ASSERT_TRUE(copier.isStopped());
    BlockedThread freeing([] { manager().freeAllBlocks(); });
    EXPECT_TRUE(pollUntil([&] { return gateIsClosed() || freeing.hasEnded(); }));
    EXPECT_TRUE(keepsWaiting(freeing));
    ASSERT_TRUE(copier.goesOnAndEnds());
    ASSERT_TRUE(freeing.ends());
    EXPECT_EQ(StoreInside::residentBlocks(), 0);
}

TEST_F(ReadMoments, FreeingAllBlocksWaitsForACloseInProgress)
{
    StoppedThread closer(ZebTestPoint::UsedSet, [this] { openAndClose(m_Oldest); });
    ASSERT_TRUE(closer.isStopped());
    BlockedThread freeing([] { manager().freeAllBlocks(); });
    EXPECT_TRUE(pollUntil([&] { return gateIsClosed() || freeing.hasEnded(); }));
    EXPECT_TRUE(keepsWaiting(freeing));
    ASSERT_TRUE(closer.goesOnAndEnds());
    ASSERT_TRUE(freeing.ends());
    EXPECT_EQ(StoreInside::residentBlocks(), 0);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(bytesOf(m_Oldest), bytes(1));
}

TEST_F(ReadMoments, ABlockThatIsNotResidentIsNotOpened)
{
    const ZebDataReference uncached =
        manager().addBlock(bytes(9), ZebModifyAccessor::DontCache, true);
    manager().freeAllBlocks();
    const ZebSmartPointer<ZebDataHash> hash = uncached.hashPtr();
    const int references = hash->refCount();
    EXPECT_TRUE(uncached.constAccessor().isNull());
    EXPECT_EQ(hash->refCount(), references);
}

// Locks

TEST_F(ReadMoments, ALockOfAllBlocksWaitsForAnOpenInProgress)
{
    StoppedThread opener(ZebTestPoint::OpenEntered, [this] { openAndClose(m_Oldest); });
    ASSERT_TRUE(opener.isStopped());
    BlockedThread locker([] { const ZebDataDeleteLocker deleteLocker; });
    EXPECT_TRUE(pollUntil([&] { return gateIsClosed() || locker.hasEnded(); }));
    EXPECT_TRUE(keepsWaiting(locker));
    ASSERT_TRUE(opener.goesOnAndEnds());
    ASSERT_TRUE(locker.ends());
}

TEST_F(ReadMoments, EveryOperationWaitsForALockOfAllBlocks)
{
    const ZebConstAccessor open = m_Newer.constAccessor();
    std::optional<ZebConstAccessor> closing;
    closing.emplace(m_Oldest.constAccessor());
    const std::vector<std::function<void()>> operations = {
        [this] { m_Older.constAccessor(); },
        [&] { closing.reset(); },
        [&] { std::make_unique<ZebConstAccessor>(open); },
        [this] { m_Older.isInMemory(); },
        [this] { m_Older.preload(); },
        [this] { m_Older.modifyAccessor(); },
    };
    for (const std::function<void()>& operation : operations) {
        std::optional<ZebDataDeleteLocker> locker;
        locker.emplace();
        BlockedThread thread(operation);
        EXPECT_TRUE(thread.waitsFor(StoreInside::deleteLock()));
        locker.reset();
        ASSERT_TRUE(thread.ends());
    }
}

TEST_F(ReadMoments, AnOpenWaitsForALockOfTheHash)
{
    const ZebSmartPointer<ZebDataHash> hash = m_Oldest.hashPtr();
    const int references = hash->refCount();
    ASSERT_TRUE(hash->tryLock());
    BlockedThread opener([this] { EXPECT_EQ(bytesOf(m_Oldest), bytes(1)); });
    EXPECT_TRUE(opener.waitsFor(HashInside::mutex(*hash)));
    EXPECT_EQ(hash->refCount(), references);
    hash->unlock();
    ASSERT_TRUE(opener.ends());
}

TEST_F(ReadMoments, ACloseWaitsForALockOfTheHash)
{
    const ZebSmartPointer<ZebDataHash> hash = m_Oldest.hashPtr();
    auto accessor = std::make_unique<ZebConstAccessor>(m_Oldest.constAccessor());
    const int references = hash->refCount();
    ASSERT_TRUE(hash->tryLock());
    BlockedThread closer([&accessor] { accessor.reset(); });
    EXPECT_TRUE(closer.waitsFor(HashInside::mutex(*hash)));
    EXPECT_EQ(hash->refCount(), references);
    hash->unlock();
    ASSERT_TRUE(closer.ends());
}

// The last release

TEST_F(ReadMoments, ALookUpDuringTheLastReleaseFindsAnotherHash)
{
    const QString text = m_Oldest.hash();
    ZebDataReference last = addAndWrite(7);
    const QString lastText = last.hash();
    const int hashes = ZebDataHash::hashCount();
    StoppedThread releaser(ZebTestPoint::LastReleaseDecided,
                           [&last] { last = ZebDataReference(); });
    ASSERT_TRUE(releaser.isStopped());
    EXPECT_FALSE(registry().isHashLive(lastText));
    const ZebDataReference again = add(s_Block, 7);
    EXPECT_TRUE(registry().isHashLive(lastText));
    ASSERT_TRUE(releaser.goesOnAndEnds());
    EXPECT_EQ(ZebDataHash::hashCount(), hashes);
    EXPECT_EQ(bytesOf(again), bytes(7));
    EXPECT_EQ(manager().liveBlocks(), 4);
    EXPECT_TRUE(registry().isHashLive(text));
}

TEST_F(ReadMoments, AnEvictionDuringTheLastReleaseWritesNothing)
{
    ZebDataReference last = addAndWrite(7);
    ASSERT_TRUE(StoreInside::forgetFile(last));
    for (const ZebDataReference* const newer : {&m_Oldest, &m_Older, &m_Newer})
        openAndClose(*newer);
    const QString file = StoreInside::fileOf(last);
    StoppedThread releaser(ZebTestPoint::LastReleaseDecided,
                           [&last] { last = ZebDataReference(); });
    ASSERT_TRUE(releaser.isStopped());
    evictOldest();
    EXPECT_EQ(StoreInside::residentBlocks(), 3);
    ASSERT_TRUE(releaser.goesOnAndEnds());
    waitForWriters();
    EXPECT_FALSE(QFile::exists(file));
}

TEST_F(ReadMoments, TheLastReleaseWaitsForAnEvictionToUnlockTheHash)
{
    ZebDataReference last = addAndWrite(7);
    for (const ZebDataReference* const newer : {&m_Oldest, &m_Older, &m_Newer})
        openAndClose(*newer);
    StoppedThread releaser(ZebTestPoint::LastReleaseDecided,
                           [&last] { last = ZebDataReference(); });
    ASSERT_TRUE(releaser.isStopped());
    const int hashes = ZebDataHash::hashCount();
    StoppedThread evictor(ZebTestPoint::Dismissed, [] { evictOldest(); });
    ASSERT_TRUE(evictor.isStopped());
    // For the mutex of the hash.
    EXPECT_TRUE(releaser.goesOnAndWaits());
    EXPECT_EQ(ZebDataHash::hashCount(), hashes) << "the eviction has the hash locked";
    ASSERT_TRUE(evictor.goesOnAndEnds());
    ASSERT_TRUE(releaser.goesOnAndEnds());
    EXPECT_EQ(ZebDataHash::hashCount(), hashes - 1);
}

TEST_F(ReadMoments, TheLastReleaseTakesTheHashOffItsStack)
{
    ZebDataReference last = addAndWrite(7);
    openAndClose(last);
    ASSERT_NE(ZebThreadSlot::mine()->m_Used.load(), nullptr);
    last = ZebDataReference();
    EXPECT_EQ(ZebThreadSlot::mine()->m_Used.load(), nullptr);
    evictOldest();
    EXPECT_FALSE(isResident(m_Oldest));
}

TEST_F(ReadMoments, ACloseMayMakeTheLastRelease)
{
    std::optional<ZebDataReference> last(addAndWrite(7));
    const int hashes = ZebDataHash::hashCount();
    StoppedThread closer(ZebTestPoint::UsedSet,
                         [&last] { const ZebConstAccessor accessor = last->constAccessor(); });
    ASSERT_TRUE(closer.isStopped());
    last.reset();
    EXPECT_EQ(ZebDataHash::hashCount(), hashes) << "the accessor holds the hash";
    ASSERT_TRUE(closer.goesOnAndEnds());
    EXPECT_EQ(ZebDataHash::hashCount(), hashes - 1);
    EXPECT_EQ(manager().liveBlocks(), 3);
}

// The flag of the host

TEST_F(ReadMoments, ACloseSignalsTheFlagOnceUnderTheLock)
{
    evictOldest();
    auto accessor = std::make_unique<ZebConstAccessor>(m_Newer.constAccessor());
    evictOldest();
    ASSERT_TRUE(manager().allFreeBlocksFlushed());
    int signalCount = 0;
    const auto connection = QObject::connect(
        &manager(), &ZebDataBlockManager::allFreeBlocksFlushedChanged, &manager(),
        [&signalCount](bool flushed) {
            ++signalCount;
            EXPECT_FALSE(flushed);
            EXPECT_FALSE(deleteLockIsFree());
            EXPECT_TRUE(gateIsClosed());
        },
        Qt::DirectConnection);
    std::thread([&accessor] { accessor.reset(); }).join();
    EXPECT_EQ(signalCount, 1);
    EXPECT_FALSE(manager().allFreeBlocksFlushed());
    openAndClose(m_Newer);
    EXPECT_EQ(signalCount, 1);
    QObject::disconnect(connection);
}
