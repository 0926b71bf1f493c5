// The counters of references and of their allocations, and the order of a reference's end. All
// other tests of the class are in ZebDataReferenceTest.

#include "data/ZebDataReference.h"

#include "hash/ZebHashManager.h"
#include "support/CountedFuture.h"
#include "support/ReferenceInside.h"

#include <QList>
#include <QVector>

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace {

using HashPointer = ZebSmartPointer<ZebDataHash>;
using FuturePointer = ZebSmartPointer<ZebBlockFuture>;

HashPointer interned(const QByteArray& bytes)
{
    return ZebHashManager::instance().getHash(bytes);
}

} // namespace

TEST(ZebDataReferenceCounters, EveryReferenceIsCountedOnStackAndHeap)
{
    const int before = ZebDataReference::referenceCount();
    const int allocated = ZebDataReference::allocCount();
    int calls = 0;
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
        assigned = FuturePointer(new CountedFuture(&calls));
        // The future keeps a reference of its own.
        EXPECT_EQ(ZebDataReference::referenceCount(), before + 9);
    }
    EXPECT_EQ(ZebDataReference::referenceCount(), before);
}

TEST(ZebDataReferenceCounters, ReferenceIsNoLongerCountedWhenItsJobIsReleased)
{
    int calls = 0;
    int referencesAtEnd = -1;
    auto* const job = new CountedFuture(&calls);
    job->atEnd([&] { referencesAtEnd = ZebDataReference::referenceCount(); });
    auto reference = std::make_unique<ZebDataReference>(FuturePointer(job));
    const int with = ZebDataReference::referenceCount();
    reference.reset();
    EXPECT_EQ(referencesAtEnd, with - 1);
}

TEST(ZebDataReferenceCounters, DestructionReleasesTheJobBeforeTheHash)
{
    // No operation leaves both fields set, but only then does the order show.
    const HashPointer hash = interned("outlives the job");
    int calls = 0;
    int holdersAtEnd = -1;
    auto* const job = new CountedFuture(&calls);
    job->atEnd([&] { holdersAtEnd = hash->refCount(); });
    auto reference = std::make_unique<ZebDataReference>(FuturePointer(job));
    ReferenceInside::hash(*reference) = hash;
    reference.reset();
    EXPECT_EQ(holdersAtEnd, 2);
    EXPECT_EQ(hash->refCount(), 1);
}

TEST(ZebDataReferenceCounters, AllocationsOfTheClassAreCounted)
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

TEST(ZebDataReferenceCounters, PlacementIsNotCountedAsAnAllocation)
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

    // After a constructor that throws, the matching form of delete is called.
    struct Failing : ZebDataReference
    {
        Failing() { throw std::runtime_error("no"); }
    };
    const auto memory = std::make_unique<Storage>();
    EXPECT_THROW(new (memory.get()) Failing, std::runtime_error);
    EXPECT_EQ(ZebDataReference::allocCount(), allocated);
    EXPECT_EQ(ZebDataReference::referenceCount(), alive);
}

TEST(ZebDataReferenceCounters, NodesOfAListAreCountedAsAllocations)
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
