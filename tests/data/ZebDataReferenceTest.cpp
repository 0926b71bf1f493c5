#include "data/ZebDataReference.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "support/CountedFuture.h"
#include "support/Fatal.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using HashPointer = ZebSmartPointer<ZebDataHash>;
using FuturePointer = ZebSmartPointer<ZebBlockFuture>;

ZebDataReference resolved(const QByteArray& bytes)
{
    return manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
}

ZebDataReference pendingOn(const ZebDataReference& reference, int* calls)
{
    return ZebDataReference(FuturePointer(new CountedFuture(calls, reference)));
}

HashPointer interned(const QByteArray& bytes)
{
    return ZebHashManager::instance().getHash(bytes);
}

// Prints debug lines to standard error, where a death test reads them.
void showMessage(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    Q_UNUSED(context)
    std::fprintf(stderr, "<%s:%s>", type == QtFatalMsg ? "fatal" : "line",
                 text.toLocal8Bit().constData());
    std::fflush(stderr);
}

} // namespace

// The three states

TEST(ZebDataReference, IsAPlainValueThatQtDoesNotMoveByMemory)
{
    static_assert(!std::is_polymorphic_v<ZebDataReference>);
    static_assert(QTypeInfo<ZebDataReference>::isStatic);
    static_assert(std::is_copy_constructible_v<ZebDataReference>);
    const ZebDataReference reference;
    EXPECT_TRUE(reference.isNull());
}

TEST(ZebDataReference, NullReferenceAnswersWithoutAStore)
{
    ASSERT_FALSE(manager().isInitialized());
    ZebDataReference reference;
    EXPECT_TRUE(reference.isNull());
    EXPECT_FALSE(reference.hasHashJob());
    reference.resolveWork();
    EXPECT_EQ(reference.hash(), QStringLiteral("NULL"));
    EXPECT_TRUE(reference.hashPtr().isNull());
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_EQ(reference.userId(), -1);
    reference.setUserId(5);
    EXPECT_EQ(reference.userId(), -1);
    EXPECT_EQ(qHash(reference), 0U);
    reference.preload();
    EXPECT_TRUE(reference.isNull());
}

TEST(ZebDataReference, HashConstructorResolvesAndJobConstructorPends)
{
    int calls = 0;
    const HashPointer hash = interned("the hash of a reference");
    const ZebDataReference ofHash(hash);
    EXPECT_FALSE(ofHash.isNull());
    EXPECT_FALSE(ofHash.hasHashJob());
    EXPECT_EQ(ofHash.hashPtr().data(), hash.data());
    EXPECT_EQ(ofHash.hash(), hash->toString());

    const ZebDataReference ofJob(FuturePointer(new CountedFuture(&calls)));
    EXPECT_FALSE(ofJob.isNull());
    EXPECT_TRUE(ofJob.hasHashJob());
    EXPECT_EQ(calls, 0);

    EXPECT_TRUE(ZebDataReference(HashPointer()).isNull());
    EXPECT_TRUE(ZebDataReference(FuturePointer()).isNull());
}

TEST(ZebDataReference, OperationsThatDoNotNeedTheHashDoNotWait)
{
    const TemporaryStore store;
    int calls = 0;
    ZebDataReference reference = pendingOn(resolved("not waited for"), &calls);
    ZebDataReference copy(reference);
    ZebDataReference assigned;
    assigned = reference;
    EXPECT_FALSE(reference.isNull());
    EXPECT_TRUE(copy.hasHashJob());
    EXPECT_TRUE(assigned.hasHashJob());
    EXPECT_TRUE(copy == reference);
    EXPECT_FALSE(copy != assigned);
    ZebDataReference null;
    null.swap(reference);
    EXPECT_TRUE(reference.isNull());
    EXPECT_TRUE(null.hasHashJob());
    EXPECT_FALSE(null.isNull());
    EXPECT_EQ(calls, 0);
}

TEST(ZebDataReference, OperationsThatNeedTheHashWaitAndResolve)
{
    const TemporaryStore store;
    const ZebDataReference block = resolved("waited for");
    using Operation = std::function<void(ZebDataReference&)>;
    const std::pair<const char*, Operation> operations[] = {
        {"resolveWork",
         [](ZebDataReference& r) {
             r.resolveWork();
         }},
        {"hash",
         [&](ZebDataReference& r) {
             EXPECT_EQ(r.hash(), block.hash());
         }},
        {"hashPtr",
         [&](ZebDataReference& r) {
             EXPECT_TRUE(r.hashPtr() == block.hashPtr());
         }},
        {"isInMemory",
         [](ZebDataReference& r) {
             EXPECT_TRUE(r.isInMemory());
         }},
        {"userId",
         [](ZebDataReference& r) {
             EXPECT_EQ(r.userId(), 0);
         }},
        {"setUserId",
         [](ZebDataReference& r) {
             r.setUserId(0);
         }},
        {"preload",
         [](ZebDataReference& r) {
             r.preload();
         }},
        {"constAccessor",
         [](ZebDataReference& r) {
             EXPECT_FALSE(r.constAccessor().isNull());
         }},
        {"modifyAccessor",
         [](ZebDataReference& r) {
             EXPECT_FALSE(r.modifyAccessor().isNull());
         }},
        {"qHash",
         [&](ZebDataReference& r) {
             EXPECT_EQ(qHash(r), qHash(block));
         }},
    };
    for (const auto& operation : operations) {
        SCOPED_TRACE(operation.first);
        int calls = 0;
        ZebDataReference reference = pendingOn(block, &calls);
        ASSERT_TRUE(reference.hasHashJob());
        operation.second(reference);
        EXPECT_EQ(calls, 1);
        EXPECT_FALSE(reference.hasHashJob());
        EXPECT_TRUE(reference == block);
        operation.second(reference);
        EXPECT_EQ(calls, 1);
    }
}

TEST(ZebDataReference, ResolvingACopyLeavesTheOriginalPending)
{
    const TemporaryStore store;
    int calls = 0;
    const ZebDataReference block = resolved("copied while pending");
    const ZebDataReference original = pendingOn(block, &calls);
    const ZebDataReference copy(original);
    copy.resolveWork();
    EXPECT_FALSE(copy.hasHashJob());
    EXPECT_TRUE(original.hasHashJob());
    EXPECT_FALSE(copy == original);
    original.resolveWork();
    EXPECT_TRUE(copy == original);
    EXPECT_EQ(calls, 2);
}

// Assignment, comparison, exchange

TEST(ZebDataReference, AssignmentTakesBothFields)
{
    const TemporaryStore store;
    int calls = 0;
    const ZebDataReference block = resolved("assigned");
    const ZebDataReference pending = pendingOn(block, &calls);
    ZebDataReference target;
    target = block;
    EXPECT_TRUE(target == block);
    target = pending;
    EXPECT_TRUE(target == pending);
    EXPECT_TRUE(target.hasHashJob());
    target = ZebDataReference();
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(calls, 0);
}

TEST(ZebDataReference, SelfAssignmentChangesNothing)
{
    int calls = 0;
    ZebDataReference block(interned("assigned to itself"));
    const ZebDataReference& sameBlock = block;
    const ZebDataHash* const hash = block.hashPtr().data();
    block = sameBlock;
    EXPECT_EQ(block.hashPtr().data(), hash);
    EXPECT_EQ(hash->refCount(), 1);

    ZebDataReference pending = pendingOn(block, &calls);
    const ZebDataReference& samePending = pending;
    pending = samePending;
    EXPECT_TRUE(pending.hasHashJob());
    EXPECT_EQ(calls, 0);
}

TEST(ZebDataReference, AssignmentTakesTheHashBeforeTheJob)
{
    const HashPointer oldHash = interned("the old hash");
    int calls = 0;
    int holdersAtEnd = -1;
    auto* const job = new CountedFuture(&calls);
    ZebDataReference target = ZebDataReference(FuturePointer(job));
    ZebDataReference source(oldHash);
    // The target's job ends during the assignment, after the new hash is in its place.
    job->atEnd([&] { holdersAtEnd = oldHash->refCount(); });
    target = source;
    EXPECT_EQ(holdersAtEnd, 3);
    EXPECT_FALSE(target.hasHashJob());
}

TEST(ZebDataReference, AssignedJobDropsTheHashFirst)
{
    const TemporaryStore store;
    const int registered = ZebHashManager::instance().hashCount();
    int calls = 0;
    ZebDataReference reference(interned("replaced by a job"));
    ASSERT_EQ(ZebHashManager::instance().hashCount(), registered + 1);
    const ZebDataReference block = resolved("yielded in its place");
    reference = FuturePointer(new CountedFuture(&calls, block));
    EXPECT_EQ(ZebHashManager::instance().hashCount(), registered + 1);
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_FALSE(reference.isNull());
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(reference.hash(), block.hash());
    EXPECT_EQ(calls, 1);

    reference = FuturePointer();
    EXPECT_TRUE(reference.isNull());
}

TEST(ZebDataReference, EqualBytesMeanEqualReferences)
{
    const TemporaryStore store;
    const ZebDataReference a = resolved("equal");
    const ZebDataReference b = resolved("equal");
    const ZebDataReference c = resolved("different");
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_FALSE(a == c);
    EXPECT_TRUE(a != c);
    EXPECT_TRUE(ZebDataReference() == ZebDataReference());
    EXPECT_TRUE(a != ZebDataReference());
}

TEST(ZebDataReference, PendingNeverEqualsResolvedNorAnotherJob)
{
    const TemporaryStore store;
    int calls = 0;
    const ZebDataReference block = resolved("of the same bytes");
    const ZebDataReference first = pendingOn(block, &calls);
    const ZebDataReference second = pendingOn(block, &calls);
    EXPECT_FALSE(first == block);
    EXPECT_TRUE(first != block);
    EXPECT_FALSE(first == second);
    EXPECT_FALSE(first == ZebDataReference());
    EXPECT_EQ(calls, 0);
    first.resolveWork();
    second.resolveWork();
    EXPECT_TRUE(first == block);
    EXPECT_TRUE(first == second);
}

TEST(ZebDataReference, SwapExchangesBothFields)
{
    int calls = 0;
    const ZebDataReference block(interned("swapped"));
    ZebDataReference a = block;
    ZebDataReference b = pendingOn(block, &calls);
    const ZebDataReference wasB = b;
    const int holders = block.hashPtr()->refCount();
    a.swap(b);
    EXPECT_TRUE(a == wasB);
    EXPECT_TRUE(b == block);
    EXPECT_EQ(block.hashPtr()->refCount(), holders);
    a.swap(a);
    EXPECT_TRUE(a == wasB);
    EXPECT_EQ(calls, 0);
}

// Read-outs of a resolved reference

TEST(ZebDataReference, UserIdBelongsToTheHash)
{
    TemporaryStore store;
    const QByteArray bytes(1024, 1);
    ZebDataReference reference = resolved(bytes);
    EXPECT_EQ(reference.userId(), 0);
    reference.setUserId(1);
    EXPECT_EQ(reference.userId(), 1);
    const ZebDataReference copy(reference);
    EXPECT_EQ(copy.userId(), 1);

    reference = ZebDataReference();
    store.cleanUp();
    EXPECT_EQ(copy.userId(), 1);

    store.setupAgain();
    ZebDataReference again = resolved(bytes);
    EXPECT_EQ(again.userId(), 1);
    EXPECT_TRUE(again == copy);
    again.setUserId(2);
    EXPECT_EQ(copy.userId(), 2);
}

TEST(ZebDataReference, UserIdEndsWithTheLastHolder)
{
    const TemporaryStore store;
    const int registered = ZebHashManager::instance().hashCount();
    resolved("forgotten").setUserId(9);
    ASSERT_TRUE(waitUntil([&] { return ZebHashManager::instance().hashCount() == registered; }));
    EXPECT_EQ(resolved("forgotten").userId(), 0);
}

TEST(ZebDataReference, QHashIsTheFoldedHashOfTheDigest)
{
    const TemporaryStore store;
    bool sawHighBit = false;
    bool sawNone = false;
    for (int i = 0; i < 64; ++i) {
        const QByteArray bytes = "bytes " + QByteArray::number(i);
        const ZebDataReference a = resolved(bytes);
        const ZebDataReference b = manager().addBlock(bytes);
        const unsigned int unfolded = a.hashPtr()->qhash();
        EXPECT_EQ(qHash(a), unfolded ^ (unfolded >> 31));
        EXPECT_EQ(qHash(a), qHash(b));
        (unfolded >> 31 != 0U ? sawHighBit : sawNone) = true;
        // Unlike the hash of the pointer, it survives the object.
        const ZebDataHash twin(bytes, ZebDataHash::Hash512);
        EXPECT_EQ(qHash(a), twin.qhash() ^ (twin.qhash() >> 31));
    }
    EXPECT_TRUE(sawHighBit);
    EXPECT_TRUE(sawNone);
}

TEST(ZebDataReference, IsInMemoryReportsWhetherTheBlockIsResident)
{
    const TemporaryStore store;
    EXPECT_TRUE(resolved("resident").isInMemory());
    EXPECT_TRUE(ZebDataReference().isInMemory());
    EXPECT_FALSE(ZebDataReference(interned("no block, only a hash")).isInMemory());
}

TEST(ZebDataReference, IsInMemoryAndPreloadMakeTheBlockMostRecentlyUsed)
{
    const TemporaryStore store;
    const ZebDataReference first = resolved("first");
    const ZebDataReference second = resolved("second");
    ASSERT_EQ(manager().liveBlocks(), 2);
    ASSERT_EQ(StoreInside::evictable().front(), first.hashPtr().data());
    EXPECT_TRUE(first.isInMemory());
    EXPECT_EQ(StoreInside::evictable().front(), second.hashPtr().data());
    second.preload(ZebDataBlockManager::PreloadLow);
    EXPECT_EQ(StoreInside::evictable().front(), first.hashPtr().data());
    first.preload();
    EXPECT_EQ(StoreInside::evictable().front(), second.hashPtr().data());
}

// Accessors by reference

TEST(ZebDataReference, ConstAccessorOfNullIsFatal)
{
    EXPECT_FATAL(ZebDataReference().constAccessor(), "Null Value of m_DataHash");
}

TEST(ZebDataReference, ConstAccessorOfNullLogsItsJobFirst)
{
    EXPECT_DEATH(
        {
            qInstallMessageHandler(&showMessage);
            ZebDataReference().constAccessor();
        },
        ::testing::HasSubstr("<line:Null Value of m_DataHash m_HashJob=0x0>"
                             "<fatal:Null Value of m_DataHash>"));
}

TEST(ZebDataReference, ResolvedReferenceNeedsTheStoreForItsBlock)
{
    const char* const words = "Data Block Manager Not Initialized. Aborting";
    EXPECT_FATAL(ZebDataReference(interned("x")).constAccessor(), words);
    EXPECT_FATAL(ZebDataReference(interned("x")).modifyAccessor(), words);
    EXPECT_FATAL(ZebDataReference(interned("x")).isInMemory(), words);
    EXPECT_FATAL(ZebDataReference(interned("x")).preload(), words);
}

TEST(ZebDataReference, OutlivesTheStore)
{
    TemporaryStore store;
    const QByteArray bytes(2048, 's');
    const ZebDataReference reference = resolved(bytes);
    const HashPointer hash = reference.hashPtr();
    const QString text = reference.hash();
    store.cleanUp();
    EXPECT_FALSE(reference.isNull());
    EXPECT_EQ(reference.hash(), text);
    EXPECT_EQ(reference.hashPtr().data(), hash.data());
    store.setupAgain();
    const ZebDataReference again = resolved(bytes);
    EXPECT_EQ(again.hashPtr().data(), hash.data());
    EXPECT_EQ(reference.constAccessor().size(), 2048);
}

TEST(ZebDataReference, ReferenceAlonePinsNothing)
{
    const TemporaryStore store;
    const qint64 evictable = manager().liveBlocks();
    const ZebDataReference reference = resolved("may be evicted");
    const ZebDataReference copy(reference);
    EXPECT_EQ(manager().liveBlocks(), evictable + 1);
}
