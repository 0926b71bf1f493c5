#include "hash/ZebHashManager.h"

#include "data/ZebDataBlock.h"
#include "manager/ZebDataBlockManager.h"
#include "support/MessageCapture.h"
#include "support/PrivateAccess.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QMutex>
#include <QSemaphore>

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

using Pointer = ZebSmartPointer<ZebDataHash>;

ZEBTDX_ACCESS(DerefTag, ZebHashManager, bool (ZebHashManager::*)(ZebDataHash*), derefRemoveHash)
ZEBTDX_ACCESS(HashesTag, ZebHashManager, QSet<ZebHashHandle> ZebHashManager::*, m_Hashes)
ZEBTDX_ACCESS(RemovesTag, ZebHashManager, int ZebHashManager::*, m_Removes)
ZEBTDX_ACCESS(RegistryMutexTag, ZebHashManager, QMutex ZebHashManager::*, m_Mutex)
ZEBTDX_ACCESS(IncRefTag, ZebDataHash, void (ZebDataHash::*)(void*), incRef)
ZEBTDX_ACCESS(HoldTag, ZebDataHash, Pointer (ZebDataHash::*)(), holdUnlessEnding)
ZEBTDX_ACCESS(MakeLiveTag, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebDataHash*, ZebDataBlock*), makeBlockLive)

namespace {

constexpr int s_DeadlineMs = 20000;
constexpr int s_ShortWaitMs = 50;

ZebHashManager& registry()
{
    return ZebHashManager::instance();
}

QMutex& registryMutex()
{
    return registry().*privateMember(RegistryMutexTag());
}

const QSet<ZebHashHandle>& entries()
{
    return registry().*privateMember(HashesTag());
}

int removes()
{
    return registry().*privateMember(RemovesTag());
}

ZebDataHash* newHash(const QByteArray& bytes)
{
    return new ZebDataHash(bytes, ZebDataHash::Hash512);
}

// Whether another thread finds the lock free at this moment.
template <typename Lock>
bool isFree(Lock& lock)
{
    bool taken = false;
    std::thread([&] {
        taken = lock.tryLock();
        if (taken)
            lock.unlock();
    }).join();
    return taken;
}

/// What stands around a block that is being freed by the last release of its hash.
struct EndOfBlock
{
    int m_Blocks = 0;
    bool m_RegistryFree = false;
    bool m_HashFree = false;
    int m_Registered = -1;
    int m_Objects = -1;
    int m_Holders = -1;
};

/// Looks around when it is deleted.
class WatchedBlock : public ZebDataBlock
{
public:
    WatchedBlock(const QByteArray& bytes, ZebDataHash* hash, EndOfBlock& end)
        : ZebDataBlock(bytes), m_Hash(hash), m_End(end)
    {}

    ~WatchedBlock() override
    {
        ++m_End.m_Blocks;
        m_End.m_RegistryFree = isFree(registryMutex());
        m_End.m_HashFree = isFree(*m_Hash);
        m_End.m_Registered = registry().hashCount();
        m_End.m_Objects = ZebDataHash::hashCount();
        m_End.m_Holders = m_Hash->refCount();
    }

private:
    ZebDataHash* m_Hash;
    EndOfBlock& m_End;
};

} // namespace

// One thread

TEST(ZebHashManagerRelease, TheMutexOfTheRegistryIsRecursive)
{
    EXPECT_TRUE(registryMutex().isRecursive());
}

TEST(ZebHashManagerRelease, AHashOutsideTheRegistryIsNotLive)
{
    const Pointer outside(newHash("content"));
    EXPECT_FALSE(
        registry().isHashLive(ZebDataHash(QByteArray("content"), ZebDataHash::Hash512).toString()));
    EXPECT_EQ(registry().hashCount(), 0);
    const Pointer interned = registry().getHash(QByteArray("content"));
    EXPECT_NE(interned.data(), outside.data());
    EXPECT_EQ(outside->refCount(), 1);
}

TEST(ZebHashManagerRelease, AnUnregisteredTwinEndsWithoutErasing)
{
    const int objects = ZebDataHash::hashCount();
    {
        const Pointer interned = registry().getHash(QByteArray("content"));
        const int removed = removes();
        {
            const Pointer twin(newHash("content"));
            ASSERT_NE(twin.data(), interned.data());
            EXPECT_EQ(ZebDataHash::hashCount(), objects + 2);
        }
        EXPECT_EQ(ZebDataHash::hashCount(), objects + 1);
        EXPECT_EQ(removes(), removed);
        EXPECT_EQ(registry().hashCount(), 1);
        EXPECT_EQ(registry().getHash(QByteArray("content")).data(), interned.data());
    }
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerRelease, AnEntryGoesWithItsOwnHashAlone)
{
    Pointer twin(newHash("content"));
    Pointer interned = registry().getHash(QByteArray("content"));
    ASSERT_EQ(registry().hashCount(), 1);
    interned = Pointer();
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(twin->refCount(), 1);
    twin = Pointer();
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerRelease, DerefOfNullIsNoLastRelease)
{
    EXPECT_FALSE((registry().*privateMember(DerefTag()))(nullptr));
}

TEST(ZebHashManagerRelease, DerefTakesOneHolderAwayAndTellsOfTheLast)
{
    const auto deref = privateMember(DerefTag());
    const auto incRef = privateMember(IncRefTag());
    ZebDataHash* const hash = newHash("content");
    const Pointer holder = registry().addHash(hash);
    (hash->*incRef)(nullptr);
    (hash->*incRef)(nullptr);
    const int removed = removes();

    EXPECT_FALSE((registry().*deref)(hash));
    EXPECT_EQ(hash->refCount(), 2);
    EXPECT_FALSE((registry().*deref)(hash));
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(removes(), removed);
    EXPECT_EQ(registry().hashCount(), 1);

    // The count is 0 and stays so; the object is the caller's to end.
    EXPECT_TRUE((registry().*deref)(hash));
    EXPECT_EQ(hash->refCount(), 0);
    EXPECT_EQ(removes(), removed + 1);
    EXPECT_EQ(registry().hashCount(), 0);
    // The holder above still stands, and takes its one away unregistered.
    (hash->*incRef)(nullptr);
}

TEST(ZebHashManagerRelease, DerefOfAnUnregisteredHashErasesNothing)
{
    const Pointer interned = registry().getHash(QByteArray("content"));
    const int removed = removes();
    ZebDataHash twin(QByteArray("content"), ZebDataHash::Hash512);
    (twin.*privateMember(IncRefTag()))(nullptr);
    EXPECT_TRUE((registry().*privateMember(DerefTag()))(&twin));
    EXPECT_EQ(twin.refCount(), 0);
    EXPECT_TRUE(twin.tryLock());
    twin.unlock();
    EXPECT_EQ(removes(), removed);
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(entries().constBegin()->data(), interned.data());
}

TEST(ZebHashManagerRelease, AHashWhoseLastReleaseIsDecidedIsHeldNoMore)
{
    const auto hold = privateMember(HoldTag());
    const Pointer holder = registry().getHash(QByteArray("content"));
    ZebDataHash* const hash = holder.data();
    {
        const Pointer held = (hash->*hold)();
        EXPECT_EQ(held.data(), hash);
        EXPECT_EQ(hash->refCount(), 2);
    }
    EXPECT_EQ(hash->refCount(), 1);
    ASSERT_TRUE((registry().*privateMember(DerefTag()))(hash));
    EXPECT_TRUE((hash->*hold)().isNull());
    EXPECT_EQ(hash->refCount(), 0);
    EXPECT_TRUE(isFree(*hash));
    // The holder above still stands, and takes its one away unregistered.
    (hash->*privateMember(IncRefTag()))(nullptr);
}

// Several threads

TEST(ZebHashManagerRelease, ACommonReleaseNeedsNoRegistry)
{
    Pointer held = registry().getHash(QByteArray("content"));
    auto dropped = std::make_unique<Pointer>(held);
    QSemaphore ended;
    registryMutex().lock();
    std::thread thread([&] {
        // Taking a reference needs none either.
        const Pointer copy(held);
        dropped.reset();
        ended.release();
    });
    EXPECT_TRUE(ended.tryAcquire(1, s_DeadlineMs));
    registryMutex().unlock();
    thread.join();
    EXPECT_EQ(held->refCount(), 1);
}

TEST(ZebHashManagerRelease, ALastReleaseWaitsForTheRegistry)
{
    const int objects = ZebDataHash::hashCount();
    auto last = std::make_unique<Pointer>(registry().getHash(QByteArray("content")));
    ZebDataHash* const hash = last->data();
    QSemaphore started;
    QSemaphore ended;
    registryMutex().lock();
    std::thread thread([&] {
        started.release();
        last.reset();
        ended.release();
    });
    started.acquire();
    EXPECT_FALSE(ended.tryAcquire(1, s_ShortWaitMs));
    // The count is back while the decision waits, and the hash's own mutex is free.
    EXPECT_TRUE(waitUntil([hash] { return hash->refCount() == 1; }, s_DeadlineMs));
    EXPECT_TRUE(isFree(*hash));
    EXPECT_EQ(entries().size(), 1);
    registryMutex().unlock();
    EXPECT_TRUE(ended.tryAcquire(1, s_DeadlineMs));
    thread.join();
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}

TEST(ZebHashManagerRelease, ALookUpDuringALastReleaseKeepsTheHash)
{
    const int removed = removes();
    auto last = std::make_unique<Pointer>(registry().getHash(QByteArray("content")));
    ZebDataHash* const hash = last->data();
    QSemaphore started;
    QSemaphore ended;
    Pointer found;
    registryMutex().lock();
    std::thread thread([&] {
        started.release();
        last.reset();
        ended.release();
    });
    started.acquire();
    EXPECT_FALSE(ended.tryAcquire(1, s_ShortWaitMs));
    found = registry().getHash(QByteArray("content"));
    registryMutex().unlock();
    EXPECT_TRUE(ended.tryAcquire(1, s_DeadlineMs));
    thread.join();
    EXPECT_EQ(found.data(), hash);
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(removes(), removed);
}

TEST(ZebHashManagerRelease, AHashWhoseLastReleaseWaitsCanStillBeHeld)
{
    const int removed = removes();
    auto last = std::make_unique<Pointer>(registry().getHash(QByteArray("content")));
    ZebDataHash* const hash = last->data();
    QSemaphore started;
    QSemaphore ended;
    registryMutex().lock();
    std::thread thread([&] {
        started.release();
        last.reset();
        ended.release();
    });
    started.acquire();
    EXPECT_FALSE(ended.tryAcquire(1, s_ShortWaitMs));
    const Pointer held = (hash->*privateMember(HoldTag()))();
    registryMutex().unlock();
    EXPECT_TRUE(ended.tryAcquire(1, s_DeadlineMs));
    thread.join();
    EXPECT_EQ(held.data(), hash);
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(removes(), removed);
}

TEST(ZebHashManagerRelease, AHitTakesABareCountAndLeavesTheRegistryFree)
{
    const Pointer held = registry().getHash(QByteArray("content"));
    Pointer found;
    // Whoever evicts holds the hash so; a hit must not keep others from the registry meanwhile.
    ASSERT_TRUE(held->tryLock());
    std::thread thread([&] { found = registry().getHash(QByteArray("content")); });
    EXPECT_TRUE(waitUntil([&held] { return held->refCount() == 2; }, s_DeadlineMs));
    EXPECT_TRUE(waitUntil([] { return isFree(registryMutex()); }, s_DeadlineMs));
    EXPECT_EQ(held->refCount(), 2);
    held->unlock();
    thread.join();
    EXPECT_EQ(found.data(), held.data());
    EXPECT_EQ(held->refCount(), 2);
}

TEST(ZebHashManagerRelease, ALookUpBuildsItsHashBeforeItWaitsForTheRegistry)
{
    const QString text = ZebDataHash(QByteArray("by text"), ZebDataHash::Hash512).toString();
    const int objects = ZebDataHash::hashCount();
    registryMutex().lock();
    std::thread bytes([] { registry().getHash(QByteArray("by bytes")); });
    std::thread texts([&text] { registry().getHash(text); });
    std::thread live([&text] { registry().isHashLive(text); });
    EXPECT_TRUE(
        waitUntil([objects] { return ZebDataHash::hashCount() == objects + 3; }, s_DeadlineMs));
    registryMutex().unlock();
    bytes.join();
    texts.join();
    live.join();
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerRelease, TheDiagnosticsWaitForTheRegistry)
{
    const MessageCapture messages;
    QSemaphore started;
    QSemaphore ended;
    registryMutex().lock();
    std::vector<std::thread> threads;
    const auto start = [&](auto operation) {
        threads.emplace_back([&, operation] {
            started.release();
            operation();
            ended.release();
        });
    };
    start([] { registry().dumpStats(); });
    start([] { registry().clearStats(); });
    start([] { registry().printDebugInfo(); });
    start([] { registry().hashCount(); });
    start([] { registry().addHash(newHash("content")); });
    start([] {
        QList<Pointer> list;
        registry().snapshot(list);
    });
    started.acquire(6);
    EXPECT_FALSE(ended.tryAcquire(1, s_ShortWaitMs));
    // This one is for a quiet system, and takes no lock.
    QSemaphore validated;
    std::thread validation([&validated] {
        registry().validateState();
        validated.release();
    });
    EXPECT_TRUE(validated.tryAcquire(1, s_DeadlineMs));
    registryMutex().unlock();
    EXPECT_TRUE(ended.tryAcquire(6, s_DeadlineMs));
    validation.join();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerRelease, TheBlockIsFreedBetweenTheEntryAndTheHash)
{
    const TemporaryStore store;
    const int objects = ZebDataHash::hashCount();
    EndOfBlock end;
    {
        const Pointer hash = registry().getHash(QByteArray("content"));
        // A block that goes to no disk: the request of a write would be one more holder.
        hash->setDontCache(true);
        auto* const block = new WatchedBlock("content", hash.data(), end);
        (ZebDataBlockManager::instance().*privateMember(MakeLiveTag()))(hash.data(), block);
        ASSERT_EQ(end.m_Blocks, 0);
    }
    EXPECT_EQ(end.m_Blocks, 1);
    EXPECT_TRUE(end.m_RegistryFree);
    EXPECT_TRUE(end.m_HashFree);
    EXPECT_EQ(end.m_Registered, 0);
    EXPECT_EQ(end.m_Holders, 0);
    EXPECT_EQ(end.m_Objects, objects + 1);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}
