#include "hash/ZebHashManager.h"

#include "hash/ZebHashRemoval.h"
#include "support/BlockedThread.h"
#include "support/EndingBlock.h"
#include "support/HashInside.h"
#include "support/IsFree.h"
#include "support/LockedRegistry.h"
#include "support/MessageCapture.h"
#include "support/Registry.h"
#include "support/RegistryInside.h"
#include "support/RegistryReports.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"

#include <QList>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

using Pointer = ZebSmartPointer<ZebDataHash>;

using RegistryInside::derefRemoveHash;

namespace {

// That of the shard to which the digest of nearly all tests belongs.
ZebTdxMutex& registryMutex()
{
    return RegistryInside::mutexOf(QByteArray("content"));
}

int removes()
{
    return RegistryReports::stats().m_Removes;
}

// The state around a block that the last release of its hash deletes.
struct EndOfBlock
{
    int m_Blocks = 0;
    bool m_RegistryFree = false;
    bool m_HashFree = false;
    int m_Registered = -1;
    int m_Objects = -1;
    int m_Holders = -1;
};

// Fills `end` for a block of this hash.
void record(ZebDataHash& hash, EndOfBlock& end)
{
    ++end.m_Blocks;
    end.m_RegistryFree = isFree(registryMutex());
    end.m_HashFree = isFree(hash);
    end.m_Registered = registry().hashCount();
    end.m_Objects = ZebDataHash::hashCount();
    end.m_Holders = hash.refCount();
}

} // namespace

// One thread

TEST(ZebHashManagerRelease, TheMutexOfAShardIsRecursive)
{
    for (ZebHashShard& shard : RegistryInside::shards(registry())) {
        ASSERT_TRUE(shard.m_Mutex.tryLock());
        ASSERT_TRUE(shard.m_Mutex.tryLock());
        shard.m_Mutex.unlock();
        EXPECT_FALSE(isFree(shard.m_Mutex));
        shard.m_Mutex.unlock();
        EXPECT_TRUE(isFree(shard.m_Mutex));
    }
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

TEST(ZebHashManagerRelease, AnEntryIsErasedWithItsOwnHashOnly)
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
    EXPECT_FALSE(derefRemoveHash(registry(), nullptr));
}

TEST(ZebHashManagerRelease, DerefLowersTheCountAndReportsTheLastRelease)
{
    ZebDataHash* const hash = newHash("content");
    const Pointer holder = registry().addHash(hash);
    HashInside::incRef(*hash, nullptr);
    HashInside::incRef(*hash, nullptr);
    const int removed = removes();

    EXPECT_FALSE(derefRemoveHash(registry(), hash));
    EXPECT_EQ(hash->refCount(), 2);
    EXPECT_FALSE(derefRemoveHash(registry(), hash));
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(removes(), removed);
    EXPECT_EQ(registry().hashCount(), 1);

    // The count stays 0; the caller owns the object now.
    EXPECT_TRUE(derefRemoveHash(registry(), hash));
    EXPECT_EQ(hash->refCount(), 0);
    EXPECT_EQ(removes(), removed + 1);
    EXPECT_EQ(registry().hashCount(), 0);
    // The holder above still exists, and lowers the count of the unregistered hash.
    HashInside::incRef(*hash, nullptr);
}

TEST(ZebHashManagerRelease, DerefOfAnUnregisteredHashErasesNothing)
{
    const Pointer interned = registry().getHash(QByteArray("content"));
    const int removed = removes();
    ZebDataHash twin(QByteArray("content"), ZebDataHash::Hash512);
    HashInside::incRef(twin, nullptr);
    EXPECT_TRUE(derefRemoveHash(registry(), &twin));
    EXPECT_EQ(twin.refCount(), 0);
    EXPECT_TRUE(twin.tryLock());
    twin.unlock();
    EXPECT_EQ(removes(), removed);
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(registry().getHash(QByteArray("content")).data(), interned.data());
}

TEST(ZebHashManagerRelease, AHashWhoseLastReleaseIsDecidedCannotBeHeld)
{
    const Pointer holder = registry().getHash(QByteArray("content"));
    ZebDataHash* const hash = holder.data();
    {
        const Pointer held = HashInside::holdUnlessEnding(*hash);
        EXPECT_EQ(held.data(), hash);
        EXPECT_EQ(hash->refCount(), 2);
    }
    EXPECT_EQ(hash->refCount(), 1);
    ASSERT_TRUE(derefRemoveHash(registry(), hash));
    EXPECT_TRUE(HashInside::holdUnlessEnding(*hash).isNull());
    EXPECT_EQ(hash->refCount(), 0);
    EXPECT_TRUE(isFree(*hash));
    // The holder above still exists, and lowers the count of the unregistered hash.
    HashInside::incRef(*hash, nullptr);
}

// Several threads

TEST(ZebHashManagerRelease, ACommonReleaseNeedsNoRegistry)
{
    Pointer held = registry().getHash(QByteArray("content"));
    auto dropped = std::make_unique<Pointer>(held);
    EXPECT_FALSE(waitsForLock(registryMutex(), [&] {
        // Taking a reference needs no registry either.
        const Pointer copy(held);
        dropped.reset();
    }));
    EXPECT_EQ(held->refCount(), 1);
}

TEST(ZebHashManagerRelease, ALastReleaseWaitsForTheRegistry)
{
    const int objects = ZebDataHash::hashCount();
    auto last = std::make_unique<Pointer>(registry().getHash(QByteArray("content")));
    ZebDataHash* const hash = last->data();
    registryMutex().lock();
    BlockedThread thread([&] { last.reset(); });
    EXPECT_TRUE(thread.waitsFor(registryMutex()));
    // The count is restored while the decision waits, and the hash's own mutex is free.
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_TRUE(isFree(*hash));
    EXPECT_EQ(registry().hashCount(), 1);
    registryMutex().unlock();
    EXPECT_TRUE(thread.ends());
    EXPECT_EQ(registry().hashCount(), 0);
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
}

TEST(ZebHashManagerRelease, ALookUpDuringALastReleaseKeepsTheHash)
{
    const int removed = removes();
    auto last = std::make_unique<Pointer>(registry().getHash(QByteArray("content")));
    ZebDataHash* const hash = last->data();
    Pointer found;
    registryMutex().lock();
    BlockedThread thread([&] { last.reset(); });
    EXPECT_TRUE(thread.waitsFor(registryMutex()));
    found = registry().getHash(QByteArray("content"));
    registryMutex().unlock();
    EXPECT_TRUE(thread.ends());
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
    registryMutex().lock();
    BlockedThread thread([&] { last.reset(); });
    EXPECT_TRUE(thread.waitsFor(registryMutex()));
    const Pointer held = HashInside::holdUnlessEnding(*hash);
    registryMutex().unlock();
    EXPECT_TRUE(thread.ends());
    EXPECT_EQ(held.data(), hash);
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(registry().hashCount(), 1);
    EXPECT_EQ(removes(), removed);
}

TEST(ZebHashManagerRelease, AHitWaitsForTheHashWithTheRegistryFree)
{
    const Pointer held = registry().getHash(QByteArray("content"));
    Pointer found;
    // Eviction holds the hash like this; a hit must not block other threads at the registry
    // meanwhile.
    ASSERT_TRUE(held->tryLock());
    BlockedThread thread([&] { found = registry().getHash(QByteArray("content")); });
    EXPECT_TRUE(thread.waitsFor(HashInside::mutex(*held)));
    EXPECT_TRUE(isFree(registryMutex()));
    EXPECT_EQ(held->refCount(), 2);
    held->unlock();
    EXPECT_TRUE(thread.ends());
    EXPECT_EQ(found.data(), held.data());
    EXPECT_EQ(held->refCount(), 2);
}

TEST(ZebHashManagerRelease, ALookUpBuildsNoHashBeforeItWaitsForTheRegistry)
{
    const QString text = ZebDataHash(QByteArray("by text"), ZebDataHash::Hash512).toString();
    const int objects = ZebDataHash::hashCount();
    LockedRegistry locked;
    BlockedThread byBytes([] { registry().getHash(QByteArray("by bytes")); });
    BlockedThread byText([&text] { registry().getHash(text); });
    BlockedThread live([&text] { registry().isHashLive(text); });
    EXPECT_TRUE(byBytes.waitsFor(RegistryInside::mutexOf(QByteArray("by bytes"))));
    for (const BlockedThread* const thread : {&byText, &live})
        EXPECT_TRUE(thread->waitsFor(RegistryInside::mutexOf(QByteArray("by text"))));
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    locked.unlock();
    for (const BlockedThread* const thread : {&byBytes, &byText, &live})
        EXPECT_TRUE(thread->ends());
    EXPECT_EQ(ZebDataHash::hashCount(), objects);
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerRelease, DigestsOfOtherShardsDoNotWait)
{
    QByteArray other("other 0");
    for (int i = 1; &RegistryInside::mutexOf(other) == &registryMutex(); ++i) {
        ASSERT_LT(i, 1000);
        other = "other " + QByteArray::number(i);
    }
    const QString text = ZebDataHash(other, ZebDataHash::Hash512).toString();
    EXPECT_FALSE(waitsForLock(registryMutex(), [&] {
        Pointer held = registry().getHash(other);
        EXPECT_EQ(registry().getHash(text), held);
        EXPECT_EQ(registry().addHash(newHash(other)), held);
        EXPECT_TRUE(registry().isHashLive(text));
        EXPECT_TRUE(ZebHashRemoval(text).isHashLive());
        held = Pointer();
        EXPECT_FALSE(ZebHashRemoval(text).isHashLive());
    }));
}

TEST(ZebHashManagerRelease, TheDiagnosticsWaitForEveryShard)
{
    const MessageCapture messages;
    const std::vector<std::function<void()>> operations = {
        [] { registry().dumpStats(); },
        [] { registry().clearStats(); },
        [] { registry().printDebugInfo(); },
        [] { registry().hashCount(); },
        [] {
            QList<Pointer> list;
            registry().snapshot(list);
        },
    };
    ZebHashShards& shards = RegistryInside::shards(registry());
    for (ZebHashShard* const shard : {shards.begin(), shards.end() - 1}) {
        for (const std::function<void()>& operation : operations)
            EXPECT_TRUE(waitsForLock(shard->m_Mutex, operation));
        // The validation is for a quiet system, and takes no lock.
        EXPECT_FALSE(waitsForLock(shard->m_Mutex, [] { registry().validateState(); }));
    }
    EXPECT_TRUE(waitsForLock(registryMutex(), [] { registry().addHash(newHash("content")); }));
    EXPECT_EQ(registry().hashCount(), 0);
}

TEST(ZebHashManagerRelease, TheBlockIsFreedBetweenTheEntryAndTheHash)
{
    const TemporaryStore store;
    const int objects = ZebDataHash::hashCount();
    EndOfBlock end;
    {
        const Pointer hash = registry().getHash(QByteArray("content"));
        // An uncached block: the write request of a cached block would be a holder, too.
        hash->setDontCache(true);
        auto* const block = new EndingBlock(
            "content", [object = hash.data(), &end](ZebDataBlock*) { record(*object, end); });
        StoreInside::makeBlockLive(hash.data(), block);
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
