#include "data/ZebDataReference.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/Fatal.h"
#include "support/PrivateAccess.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QList>
#include <QVector>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

ZEBTDX_ACCESS(HashField, ZebDataReference, ZebSmartPointer<ZebDataHash> ZebDataReference::*,
              m_DataHash)
ZEBTDX_ACCESS(ManagerLru, ZebDataBlockManager, ZebDataBlockLru ZebDataBlockManager::*, m_Lru)

namespace {

using HashPointer = ZebSmartPointer<ZebDataHash>;
using FuturePointer = ZebSmartPointer<ZebBlockFuture>;

// A future that counts who asked it, and tells about the references that exist when it ends.
class AskedFuture : public ZebBlockFuture
{
public:
    explicit AskedFuture(int* asked, const ZebDataReference& reference = {})
        : m_Asked(asked), m_Reference(reference)
    {}
    ~AskedFuture() override
    {
        if (m_ReferencesAtEnd != nullptr)
            *m_ReferencesAtEnd = ZebDataReference::referenceCount();
        if (m_AtEnd)
            m_AtEnd();
    }

    ZebDataReference data() override
    {
        ++*m_Asked;
        return m_Reference;
    }

    int* m_ReferencesAtEnd = nullptr;
    std::function<void()> m_AtEnd;

private:
    int* m_Asked;
    ZebDataReference m_Reference;
};

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

ZebDataReference resolved(const QByteArray& bytes)
{
    return manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
}

ZebDataReference pendingOn(const ZebDataReference& reference, int* asked)
{
    return ZebDataReference(FuturePointer(new AskedFuture(asked, reference)));
}

HashPointer interned(const QByteArray& bytes)
{
    return ZebHashManager::instance().getHash(bytes);
}

// Shows debug lines on standard error, as a watcher of a dying process needs them.
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
    int asked = 0;
    const HashPointer hash = interned("the hash of a reference");
    const ZebDataReference ofHash(hash);
    EXPECT_FALSE(ofHash.isNull());
    EXPECT_FALSE(ofHash.hasHashJob());
    EXPECT_EQ(ofHash.hashPtr().data(), hash.data());
    EXPECT_EQ(ofHash.hash(), hash->toString());

    const ZebDataReference ofJob(FuturePointer(new AskedFuture(&asked)));
    EXPECT_FALSE(ofJob.isNull());
    EXPECT_TRUE(ofJob.hasHashJob());
    EXPECT_EQ(asked, 0);

    EXPECT_TRUE(ZebDataReference(HashPointer()).isNull());
    EXPECT_TRUE(ZebDataReference(FuturePointer()).isNull());
}

TEST(ZebDataReference, OperationsThatDoNotNeedTheHashDoNotWait)
{
    const TemporaryStore store;
    int asked = 0;
    ZebDataReference reference = pendingOn(resolved("nobody waits for me"), &asked);
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
    EXPECT_EQ(asked, 0);
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
        int asked = 0;
        ZebDataReference reference = pendingOn(block, &asked);
        ASSERT_TRUE(reference.hasHashJob());
        operation.second(reference);
        EXPECT_EQ(asked, 1);
        EXPECT_FALSE(reference.hasHashJob());
        EXPECT_TRUE(reference == block);
        operation.second(reference);
        EXPECT_EQ(asked, 1);
    }
}

TEST(ZebDataReference, ResolvingACopyLeavesTheOriginalPending)
{
    const TemporaryStore store;
    int asked = 0;
    const ZebDataReference block = resolved("copied while pending");
    const ZebDataReference original = pendingOn(block, &asked);
    const ZebDataReference copy(original);
    copy.resolveWork();
    EXPECT_FALSE(copy.hasHashJob());
    EXPECT_TRUE(original.hasHashJob());
    EXPECT_FALSE(copy == original);
    original.resolveWork();
    EXPECT_TRUE(copy == original);
    EXPECT_EQ(asked, 2);
}

// Assignment, comparison, exchange

TEST(ZebDataReference, AssignmentTakesBothFields)
{
    const TemporaryStore store;
    int asked = 0;
    const ZebDataReference block = resolved("assigned");
    const ZebDataReference pending = pendingOn(block, &asked);
    ZebDataReference target;
    target = block;
    EXPECT_TRUE(target == block);
    target = pending;
    EXPECT_TRUE(target == pending);
    EXPECT_TRUE(target.hasHashJob());
    target = ZebDataReference();
    EXPECT_TRUE(target.isNull());
    EXPECT_EQ(asked, 0);
}

TEST(ZebDataReference, SelfAssignmentChangesNothing)
{
    int asked = 0;
    ZebDataReference block(interned("assigned to itself"));
    const ZebDataReference& sameBlock = block;
    const ZebDataHash* const hash = block.hashPtr().data();
    block = sameBlock;
    EXPECT_EQ(block.hashPtr().data(), hash);
    EXPECT_EQ(hash->refCount(), 1);

    ZebDataReference pending = pendingOn(block, &asked);
    const ZebDataReference& samePending = pending;
    pending = samePending;
    EXPECT_TRUE(pending.hasHashJob());
    EXPECT_EQ(asked, 0);
}

TEST(ZebDataReference, AssignmentTakesTheHashBeforeTheJob)
{
    const HashPointer oldHash = interned("the old hash");
    int asked = 0;
    int holdersAtEnd = -1;
    auto* const job = new AskedFuture(&asked);
    ZebDataReference target = ZebDataReference(FuturePointer(job));
    ZebDataReference source(oldHash);
    // The target's job ends inside the assignment; the new hash is in its place by then.
    job->m_AtEnd = [&] {
        holdersAtEnd = oldHash->refCount();
    };
    target = source;
    EXPECT_EQ(holdersAtEnd, 3);
    EXPECT_FALSE(target.hasHashJob());
}

TEST(ZebDataReference, AssignedJobDropsTheHashFirst)
{
    const TemporaryStore store;
    const int registered = ZebHashManager::instance().hashCount();
    int asked = 0;
    ZebDataReference reference(interned("replaced by a job"));
    ASSERT_EQ(ZebHashManager::instance().hashCount(), registered + 1);
    const ZebDataReference block = resolved("yielded in its place");
    reference = FuturePointer(new AskedFuture(&asked, block));
    EXPECT_EQ(ZebHashManager::instance().hashCount(), registered + 1);
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_FALSE(reference.isNull());
    EXPECT_EQ(asked, 0);
    EXPECT_EQ(reference.hash(), block.hash());
    EXPECT_EQ(asked, 1);

    reference = FuturePointer();
    EXPECT_TRUE(reference.isNull());
}

TEST(ZebDataReference, EqualContentMeansEqualReferences)
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
    int asked = 0;
    const ZebDataReference block = resolved("of the same content");
    const ZebDataReference first = pendingOn(block, &asked);
    const ZebDataReference second = pendingOn(block, &asked);
    EXPECT_FALSE(first == block);
    EXPECT_TRUE(first != block);
    EXPECT_FALSE(first == second);
    EXPECT_FALSE(first == ZebDataReference());
    EXPECT_EQ(asked, 0);
    first.resolveWork();
    second.resolveWork();
    EXPECT_TRUE(first == block);
    EXPECT_TRUE(first == second);
}

TEST(ZebDataReference, SwapExchangesBothFields)
{
    int asked = 0;
    const ZebDataReference block(interned("swapped"));
    ZebDataReference a = block;
    ZebDataReference b = pendingOn(block, &asked);
    const ZebDataReference wasB = b;
    const int holders = block.hashPtr()->refCount();
    a.swap(b);
    EXPECT_TRUE(a == wasB);
    EXPECT_TRUE(b == block);
    EXPECT_EQ(block.hashPtr()->refCount(), holders);
    a.swap(a);
    EXPECT_TRUE(a == wasB);
    EXPECT_EQ(asked, 0);
}

// The two counters

TEST(ZebDataReference, EveryReferenceIsCountedWhereverItLies)
{
    const int before = ZebDataReference::referenceCount();
    const int allocated = ZebDataReference::allocCount();
    int asked = 0;
    {
        const ZebDataReference null;
        const ZebDataReference copy(null);
        const ZebDataReference ofHash{HashPointer()};
        const ZebDataReference ofJob{FuturePointer()};
        const std::vector<ZebDataReference> several(3);
        EXPECT_EQ(ZebDataReference::referenceCount(), before + 7);
        EXPECT_EQ(ZebDataReference::allocCount(), allocated);
        ZebDataReference assigned;
        assigned = copy;
        assigned = FuturePointer(new AskedFuture(&asked));
        // The future keeps a reference of its own.
        EXPECT_EQ(ZebDataReference::referenceCount(), before + 9);
    }
    EXPECT_EQ(ZebDataReference::referenceCount(), before);
}

TEST(ZebDataReference, ReferenceIsCountedOutBeforeItsJobGoes)
{
    int asked = 0;
    int atEnd = -1;
    auto* const job = new AskedFuture(&asked);
    job->m_ReferencesAtEnd = &atEnd;
    auto reference = std::make_unique<ZebDataReference>(FuturePointer(job));
    const int with = ZebDataReference::referenceCount();
    reference.reset();
    EXPECT_EQ(atEnd, with - 1);
}

TEST(ZebDataReference, DestructionReleasesTheJobBeforeTheHash)
{
    // No operation leaves both fields set; only so does the order show.
    const HashPointer hash = interned("outlives the job");
    int asked = 0;
    int holdersAtEnd = -1;
    auto* const job = new AskedFuture(&asked);
    job->m_AtEnd = [&] {
        holdersAtEnd = hash->refCount();
    };
    auto reference = std::make_unique<ZebDataReference>(FuturePointer(job));
    (*reference).*privateMember(HashField()) = hash;
    reference.reset();
    EXPECT_EQ(holdersAtEnd, 2);
    EXPECT_EQ(hash->refCount(), 1);
}

TEST(ZebDataReference, AllocationsOfTheClassAreCounted)
{
    const int before = ZebDataReference::allocCount();
    auto* const one = new ZebDataReference;
    EXPECT_EQ(ZebDataReference::allocCount(), before + 1);
    auto* const two = new ZebDataReference(*one);
    EXPECT_EQ(ZebDataReference::allocCount(), before + 2);
    delete one;
    EXPECT_EQ(ZebDataReference::allocCount(), before + 1);
    delete two;
    EXPECT_EQ(ZebDataReference::allocCount(), before);
}

TEST(ZebDataReference, PlacementIsNotCountedAsAnAllocation)
{
    const int allocated = ZebDataReference::allocCount();
    const int alive = ZebDataReference::referenceCount();
    using Storage = std::aligned_storage_t<sizeof(ZebDataReference), alignof(ZebDataReference)>;
    Storage place;
    auto* const reference = new (&place) ZebDataReference;
    EXPECT_EQ(static_cast<void*>(reference), static_cast<void*>(&place));
    EXPECT_EQ(ZebDataReference::allocCount(), allocated);
    EXPECT_EQ(ZebDataReference::referenceCount(), alive + 1);
    reference->~ZebDataReference();

    // A constructor that fails gives the place back by the matching form of delete.
    struct Failing : ZebDataReference
    {
        Failing() { throw std::runtime_error("no"); }
    };
    const auto memory = std::make_unique<Storage>();
    EXPECT_THROW(new (memory.get()) Failing, std::runtime_error);
    EXPECT_EQ(ZebDataReference::allocCount(), allocated);
    EXPECT_EQ(ZebDataReference::referenceCount(), alive);
}

TEST(ZebDataReference, NodesOfAListAreCountedAsAllocations)
{
    const int allocated = ZebDataReference::allocCount();
    {
        QList<ZebDataReference> list;
        for (int i = 0; i < 5; ++i)
            list.append(ZebDataReference());
        EXPECT_EQ(ZebDataReference::allocCount(), allocated + 5);
        list.removeLast();
        EXPECT_EQ(ZebDataReference::allocCount(), allocated + 4);
        const QVector<ZebDataReference> vector(7);
        EXPECT_EQ(ZebDataReference::allocCount(), allocated + 4);
    }
    EXPECT_EQ(ZebDataReference::allocCount(), allocated);
}

// Read-outs of a resolved reference

TEST(ZebDataReference, UserIdBelongsToTheContent)
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

TEST(ZebDataReference, UserIdGoesWithTheLastHolder)
{
    const TemporaryStore store;
    const int registered = ZebHashManager::instance().hashCount();
    resolved("forgotten").setUserId(9);
    ASSERT_TRUE(waitUntil([&] { return ZebHashManager::instance().hashCount() == registered; }));
    EXPECT_EQ(resolved("forgotten").userId(), 0);
}

TEST(ZebDataReference, QHashIsThatOfTheContentFolded)
{
    const TemporaryStore store;
    bool sawHighBit = false;
    bool sawNone = false;
    for (int i = 0; i < 64; ++i) {
        const QByteArray bytes = "content " + QByteArray::number(i);
        const ZebDataReference a = resolved(bytes);
        const ZebDataReference b = manager().addBlock(bytes);
        const unsigned int content = a.hashPtr()->qhash();
        EXPECT_EQ(qHash(a), content ^ (content >> 31));
        EXPECT_EQ(qHash(a), qHash(b));
        (content >> 31 != 0U ? sawHighBit : sawNone) = true;
        // Unlike the hash of the pointer, it survives the object.
        const ZebDataHash twin(bytes, ZebDataHash::Hash512);
        EXPECT_EQ(qHash(a), twin.qhash() ^ (twin.qhash() >> 31));
    }
    EXPECT_TRUE(sawHighBit);
    EXPECT_TRUE(sawNone);
}

TEST(ZebDataReference, IsInMemoryTellsWhetherTheBlockIsResident)
{
    const TemporaryStore store;
    EXPECT_TRUE(resolved("resident").isInMemory());
    EXPECT_TRUE(ZebDataReference().isInMemory());
    EXPECT_FALSE(ZebDataReference(interned("known by its hash alone")).isInMemory());
}

TEST(ZebDataReference, AskingAndPreloadingMakeTheBlockTheNewest)
{
    const TemporaryStore store;
    ZebDataBlockLru& lru = manager().*privateMember(ManagerLru());
    const ZebDataReference first = resolved("first");
    const ZebDataReference second = resolved("second");
    ASSERT_EQ(lru.count(), 2);
    ASSERT_EQ(lru.oldest(), first.hashPtr().data());
    EXPECT_TRUE(first.isInMemory());
    EXPECT_EQ(lru.oldest(), second.hashPtr().data());
    second.preload(ZebDataBlockManager::PreloadLow);
    EXPECT_EQ(lru.oldest(), first.hashPtr().data());
    first.preload();
    EXPECT_EQ(lru.oldest(), second.hashPtr().data());
}

// Accessors by reference

TEST(ZebDataReference, ConstAccessorOfNullIsFatal)
{
    EXPECT_FATAL(ZebDataReference().constAccessor(), "Null Value of m_DataHash");
}

TEST(ZebDataReference, ConstAccessorOfNullSaysWhichJobFirst)
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
