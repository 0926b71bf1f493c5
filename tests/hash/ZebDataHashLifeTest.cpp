#include "hash/ZebDataHash.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "support/BlockedThread.h"
#include "support/Fatal.h"
#include "support/HashInside.h"
#include "support/IsFree.h"
#include "support/Manager.h"
#include "support/MessageCapture.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

void incRef(ZebDataHash& hash)
{
    HashInside::incRef(hash, nullptr);
}

void decRef(ZebDataHash& hash)
{
    HashInside::decRef(hash, nullptr);
}

// Prints a fatal message to standard error, and the count of objects at that moment.
void reportFatalWithHashCount(QtMsgType type, const QMessageLogContext& context,
                              const QString& text)
{
    Q_UNUSED(context)
    if (type != QtFatalMsg)
        return;
    std::fprintf(stderr, "%s\n{hashes:%d}\n", fatalText(text.toStdString()).c_str(),
                 ZebDataHash::hashCount());
    std::fflush(stderr);
}

void deleteWhileHeld()
{
    auto hash = std::make_unique<ZebDataHash>(QByteArray("held"), ZebDataHash::Hash256);
    incRef(*hash);
    incRef(*hash);
    incRef(*hash);
    hash.reset();
}

} // namespace

// Counts

TEST(ZebDataHashLife, EveryObjectCounts)
{
    const int before = ZebDataHash::hashCount();
    unsigned char digest[32] = {};
    {
        const ZebDataHash plain;
        EXPECT_EQ(ZebDataHash::hashCount(), before + 1);
        const ZebDataHash copy(plain);
        EXPECT_EQ(ZebDataHash::hashCount(), before + 2);
        const ZebDataHash fromArray(QByteArray("bytes"), ZebDataHash::Hash256);
        EXPECT_EQ(ZebDataHash::hashCount(), before + 3);
        const ZebDataHash fromPointer(digest, 4, ZebDataHash::Hash256);
        EXPECT_EQ(ZebDataHash::hashCount(), before + 4);
        const ZebDataHash taken(ZebDataHash::Hash256, digest);
        EXPECT_EQ(ZebDataHash::hashCount(), before + 5);
        ZebDataHash fromText(QString("1-2"));
        EXPECT_EQ(ZebDataHash::hashCount(), before + 6);
        fromText = taken;
        EXPECT_EQ(ZebDataHash::hashCount(), before + 6);
    }
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

TEST(ZebDataHashLife, HoldersAreCountedAndTheLastOneEndsTheObject)
{
    const int before = ZebDataHash::hashCount();
    ZebDataHash* const hash = new ZebDataHash(QByteArray("bytes"), ZebDataHash::Hash512);
    incRef(*hash);
    incRef(*hash);
    EXPECT_EQ(hash->refCount(), 2);
    decRef(*hash);
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_TRUE(isFree(*hash));
    EXPECT_EQ(ZebDataHash::hashCount(), before + 1);
    decRef(*hash);
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

TEST(ZebDataHashLife, SwapMovesNoCount)
{
    ZebDataHash* const hash = new ZebDataHash(QByteArray("bytes"), ZebDataHash::Hash512);
    const Pointer holder(hash);
    int from = 1;
    int to = 2;
    HashInside::swap(*hash, &from, &to);
    EXPECT_EQ(hash->refCount(), 1);
    EXPECT_EQ(from, 1);
    EXPECT_EQ(to, 2);
}

TEST(ZebDataHashLife, AReleaseWithoutAHolderIsFatal)
{
    EXPECT_FATAL(decRef(*new ZebDataHash(QByteArray("bytes"), ZebDataHash::Hash512)),
                 "No Positive Ref Count in Dec Ref");
}

TEST(ZebDataHashLife, DeletingAHeldObjectIsFatal)
{
    const QString text = ZebDataHash(QByteArray("held"), ZebDataHash::Hash256).toString();
    EXPECT_FATAL(deleteWhileHeld(), "[ !! ] Delete called with non-null reference count:\n" +
                                        text.toStdString() + " (Refs = 3)");
}

TEST(ZebDataHashLife, TheFatalDeleteHasLoweredTheCountOfObjects)
{
    EXPECT_DEATH(
        {
            qInstallMessageHandler(&reportFatalWithHashCount);
            const ZebDataHash other;
            const int before = ZebDataHash::hashCount();
            std::fprintf(stderr, "{before:%d}\n", before);
            deleteWhileHeld();
        },
        // One object is on the stack; the object that is being deleted no longer counts.
        ::testing::AllOf(::testing::HasSubstr("{before:1}"), ::testing::HasSubstr("{hashes:1}")));
}

TEST(ZebDataHashLife, DeletingAHeldObjectWithoutADigestReportsItsLength)
{
    EXPECT_FATAL(
        {
            auto hash = std::make_unique<ZebDataHash>();
            incRef(*hash);
            hash.reset();
        },
        "Size of data is incorrect is 0, should be 32");
}

// The mutex of a hash

TEST(ZebDataHashLife, TryLockTakesTheMutexOfOneThread)
{
    ZebDataHash hash;
    EXPECT_TRUE(isFree(hash));
    ASSERT_TRUE(hash.tryLock());
    EXPECT_FALSE(isFree(hash));
    // The mutex is recursive, so it is free after as many unlocks as locks.
    ASSERT_TRUE(hash.tryLock());
    hash.unlock();
    EXPECT_FALSE(isFree(hash));
    hash.unlock();
    EXPECT_TRUE(isFree(hash));
}

TEST(ZebDataHashLife, TheHolderOfTheMutexMayTakeAndDropReferences)
{
    const Pointer held(new ZebDataHash(QByteArray("held"), ZebDataHash::Hash512));
    ASSERT_TRUE(held->tryLock());
    ASSERT_TRUE(held->tryLock());
    held->unlock();
    {
        const Pointer copy(held);
        EXPECT_EQ(copy->refCount(), 2);
    }
    EXPECT_EQ(held->refCount(), 1);
    held->unlock();
}

TEST(ZebDataHashLife, APinnedHashKeepsItsCount)
{
    const int before = ZebDataHash::hashCount();
    Pointer held(new ZebDataHash(QByteArray("pinned"), ZebDataHash::Hash512));
    auto dropped = std::make_unique<Pointer>(held);
    std::unique_ptr<Pointer> taken;
    ASSERT_TRUE(held->tryLock());
    BlockedThread dropper([&] { dropped.reset(); });
    BlockedThread taker([&] { taken = std::make_unique<Pointer>(held); });
    EXPECT_TRUE(dropper.waitsFor(HashInside::mutex(*held)));
    EXPECT_TRUE(taker.waitsFor(HashInside::mutex(*held)));
    EXPECT_EQ(held->refCount(), 2);
    held->unlock();
    EXPECT_TRUE(dropper.ends());
    EXPECT_TRUE(taker.ends());
    EXPECT_EQ(held->refCount(), 2);
    taken.reset();
    EXPECT_EQ(held->refCount(), 1);
    held = Pointer();
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

// Life

TEST(ZebDataHashLife, AHeapObjectLivesAsLongAsItsHolders)
{
    const int before = ZebDataHash::hashCount();
    {
        ZebDataHash* const hash = new ZebDataHash;
        Pointer one(hash);
        Pointer copy(one);
        Pointer reassigned;
        reassigned = copy;
        EXPECT_EQ(one.data(), hash);
        EXPECT_EQ(copy.data(), hash);
        EXPECT_EQ(reassigned.data(), hash);
        EXPECT_EQ(hash->refCount(), 3);
        EXPECT_EQ(ZebDataHash::hashCount(), before + 1);
        one = Pointer();
        copy = Pointer();
        EXPECT_EQ(ZebDataHash::hashCount(), before + 1);
        EXPECT_EQ(reassigned->refCount(), 1);
    }
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

TEST(ZebDataHashLife, TheLastReleaseFreesTheBlock)
{
    const TemporaryStore store;
    // An uncached block: the write request of a cached block would be a holder, too.
    ZebDataReference reference =
        manager().addBlock(QByteArray("a block"), ZebModifyAccessor::DontCache, true);
    Pointer hash = reference.hashPtr();
    ASSERT_EQ(manager().liveBytes(), 7);
    reference = ZebDataReference();
    EXPECT_EQ(manager().liveBytes(), 7);
    EXPECT_EQ(hash->refCount(), 1);
    hash = Pointer();
    EXPECT_EQ(manager().liveBytes(), 0);
}

TEST(ZebDataHashLife, TheEndOfATwinLeavesTheBlockResident)
{
    const TemporaryStore store;
    const ZebDataReference reference =
        manager().addBlock(QByteArray("a block"), ZebModifyAccessor::Cached, true);
    {
        const Pointer twin(new ZebDataHash(QByteArray("a block"), ZebDataHash::Hash512));
        ASSERT_TRUE(*twin == *reference.hashPtr());
    }
    EXPECT_EQ(manager().liveBytes(), 7);
    EXPECT_TRUE(reference.isInMemory());
}

TEST(ZebDataHashLife, AReferenceThatSurvivesACleanUpKeepsItsHash)
{
    TemporaryStore store;
    const QByteArray bytes("survivor");
    ZebDataReference reference = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    reference.setUserId(42);
    const ZebDataHash* const hash = reference.hashPtr().data();

    store.cleanUp();
    EXPECT_EQ(reference.userId(), 42);
    EXPECT_EQ(reference.hashPtr().data(), hash);
    store.setupAgain();
    {
        const ZebDataReference again = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        EXPECT_EQ(again.hashPtr().data(), hash);
        EXPECT_EQ(again.userId(), 42);
    }
    reference = ZebDataReference();
    // A write request may still hold the hash.
    ASSERT_TRUE(waitUntil([] { return ZebHashManager::instance().hashCount() == 0; }));
    const ZebDataReference fresh = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    EXPECT_EQ(fresh.userId(), 0);
}
