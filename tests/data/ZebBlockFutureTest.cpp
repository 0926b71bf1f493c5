#include "data/ZebBlockFuture.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/Fatal.h"
#include "support/FutureInside.h"
#include "support/RunTogether.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QSemaphore>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

constexpr int s_DeadlineMs = 20000;

// What happened to a GivenFuture, which the record outlives.
struct Record
{
    std::atomic<int> m_DataCalls{0};
    std::atomic<int> m_Destroyed{0};
};

// A host's own future: yields the reference of its constructor.
class GivenFuture : public ZebBlockFuture
{
public:
    explicit GivenFuture(Record* record, const ZebDataReference& reference = {})
        : m_Record(record), m_Reference(reference)
    {}
    GivenFuture(const GivenFuture&) = default;
    ~GivenFuture() override { m_Record->m_Destroyed.fetch_add(1); }
    GivenFuture& operator=(const GivenFuture&) = default;

    ZebDataReference data() override
    {
        m_Record->m_DataCalls.fetch_add(1);
        return m_Reference;
    }

    using ZebBlockFuture::decRef;
    using ZebBlockFuture::incRef;
    using ZebBlockFuture::swap;

private:
    Record* m_Record;
    ZebDataReference m_Reference;
};

// A host's own future whose work ends when the test opens the gate.
class HeldFuture : public ZebBlockFuture
{
public:
    HeldFuture(Record* record, QSemaphore* gate, const ZebDataReference& reference)
        : m_Record(record), m_Gate(gate), m_Reference(reference)
    {}
    ~HeldFuture() override { m_Record->m_Destroyed.fetch_add(1); }

    ZebDataReference data() override
    {
        m_Record->m_DataCalls.fetch_add(1);
        if (!m_Gate->tryAcquire(1, s_DeadlineMs))
            ADD_FAILURE() << "the gate stayed shut";
        return m_Reference;
    }

private:
    Record* m_Record;
    QSemaphore* m_Gate;
    ZebDataReference m_Reference;
};

using FuturePointer = ZebSmartPointer<ZebBlockFuture>;

ZebDataReference pending(ZebBlockFuture* future)
{
    return ZebDataReference(FuturePointer(future));
}

ZebDataReference resolvedBlock(const QByteArray& bytes)
{
    return ZebDataBlockManager::instance().addBlock(bytes, ZebModifyAccessor::Cached, true);
}

} // namespace

TEST(ZebBlockFuture, IsAnAbstractBaseForHosts)
{
    static_assert(std::is_abstract_v<ZebBlockFuture>);
    static_assert(std::has_virtual_destructor_v<ZebBlockFuture>);
    static_assert(!std::is_final_v<ZebBlockFuture>);
    Record record;
    GivenFuture future(&record);
    EXPECT_TRUE(static_cast<ZebBlockFuture&>(future).data().isNull());
    EXPECT_EQ(record.m_DataCalls.load(), 1);
}

TEST(ZebBlockFuture, ANewFutureIsAliveAndHasNoHolder)
{
    const int alive = ZebBlockFuture::numHashJobs();
    Record record;
    {
        const GivenFuture future(&record);
        EXPECT_EQ(future.refCount(), 0);
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 1);
        const GivenFuture second(&record);
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 2);
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebBlockFuture, LastSmartPointerDeletesItThroughItsVirtualDestructor)
{
    const int alive = ZebBlockFuture::numHashJobs();
    Record record;
    FuturePointer first(new GivenFuture(&record));
    EXPECT_EQ(first->refCount(), 1);
    FuturePointer second = first;
    EXPECT_EQ(first->refCount(), 2);
    first = FuturePointer();
    EXPECT_EQ(second->refCount(), 1);
    EXPECT_EQ(record.m_Destroyed.load(), 0);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 1);
    second = FuturePointer();
    EXPECT_EQ(record.m_Destroyed.load(), 1);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebBlockFuture, ReferencesHoldIt)
{
    Record record;
    FuturePointer future(new GivenFuture(&record));
    {
        const ZebDataReference reference(future);
        const ZebDataReference copy(reference);
        EXPECT_EQ(future->refCount(), 3);
    }
    EXPECT_EQ(future->refCount(), 1);
}

TEST(ZebBlockFuture, HoldersAreCountedForAnyArgument)
{
    Record record;
    GivenFuture future(&record);
    future.incRef(nullptr);
    future.incRef(&record);
    EXPECT_EQ(future.refCount(), 2);
    future.decRef(nullptr);
    EXPECT_EQ(future.refCount(), 1);
    future.incRef(nullptr);
    future.decRef(&future);
    EXPECT_EQ(future.refCount(), 1);
    EXPECT_EQ(record.m_Destroyed.load(), 0);
}

TEST(ZebBlockFuture, SwapMovesNoCount)
{
    Record record;
    GivenFuture direct(&record);
    direct.incRef(nullptr);
    direct.swap(nullptr, &record);
    EXPECT_EQ(direct.refCount(), 1);

    FuturePointer a(new GivenFuture(&record));
    FuturePointer b(new GivenFuture(&record));
    const FuturePointer secondOfA = a;
    ZebBlockFuture* const rawA = a.data();
    a.swap(b);
    EXPECT_EQ(b.data(), rawA);
    EXPECT_EQ(b->refCount(), 2);
    EXPECT_EQ(a->refCount(), 1);
}

TEST(ZebBlockFuture, CopyTakesTheCountOfHoldersAndIsNotCountedAsAlive)
{
    const int alive = ZebBlockFuture::numHashJobs();
    Record record;
    {
        const FuturePointer held(new GivenFuture(&record));
        const FuturePointer heldAgain = held;
        {
            const GivenFuture copy(static_cast<const GivenFuture&>(*held));
            EXPECT_EQ(copy.refCount(), 2);
            EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 1);
        }
        // The copy's destructor lowered a count that its constructor had not raised.
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
        EXPECT_EQ(held->refCount(), 2);
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive - 1);
    FutureInside::aliveCount().fetchAndAddOrdered(1);
}

TEST(ZebBlockFuture, AssignmentTakesTheCountOfHoldersAndNothingElse)
{
    const int alive = ZebBlockFuture::numHashJobs();
    Record record;
    {
        GivenFuture source(&record);
        GivenFuture target(&record);
        source.incRef(nullptr);
        source.incRef(nullptr);
        source.incRef(nullptr);
        static_cast<ZebBlockFuture&>(target) = source;
        EXPECT_EQ(target.refCount(), 3);
        EXPECT_EQ(source.refCount(), 3);
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 2);

        const ZebBlockFuture& alias = target;
        static_cast<ZebBlockFuture&>(target) = alias;
        EXPECT_EQ(target.refCount(), 3);
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebBlockFuture, IsDeletedOnceWhenManyThreadsDropIt)
{
    Record record;
    for (int round = 0; round < 200; ++round) {
        std::vector<ZebDataReference> references(4, pending(new GivenFuture(&record)));
        runTogether(4, [&references](int i) {
            ZebDataReference& mine = references[static_cast<std::size_t>(i)];
            for (int copies = 0; copies < 20; ++copies) {
                const ZebDataReference copy(mine);
                ASSERT_TRUE(copy.hasHashJob());
            }
            mine = ZebDataReference();
        });
        ASSERT_EQ(record.m_Destroyed.load(), round + 1);
    }
    EXPECT_EQ(record.m_DataCalls.load(), 0);
}

// References on a host's future

TEST(ZebBlockFuture, ReferenceResolvesToWhatAHostsFutureYields)
{
    const TemporaryStore store;
    Record record;
    const ZebDataReference block = resolvedBlock("yielded by a host");
    const ZebDataReference reference = pending(new GivenFuture(&record, block));
    EXPECT_TRUE(reference.hasHashJob());
    EXPECT_FALSE(reference.isNull());
    EXPECT_EQ(record.m_DataCalls.load(), 0);

    reference.resolveWork();
    EXPECT_FALSE(reference.hasHashJob());
    EXPECT_TRUE(reference == block);
    EXPECT_EQ(record.m_DataCalls.load(), 1);
    // The reference was the last holder, so the future has ended with the wait.
    EXPECT_EQ(record.m_Destroyed.load(), 1);

    EXPECT_EQ(reference.hash(), block.hash());
    EXPECT_EQ(record.m_DataCalls.load(), 1);
}

TEST(ZebBlockFuture, FutureMayYieldAPendingReference)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    Record inner;
    Record middle;
    Record outer;
    {
        const ZebDataReference block = resolvedBlock("at the end of a chain");
        const ZebDataReference reference = pending(new GivenFuture(
            &outer, pending(new GivenFuture(&middle, pending(new GivenFuture(&inner, block))))));
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 3);
        EXPECT_EQ(reference.hash(), block.hash());
        EXPECT_TRUE(reference == block);
        EXPECT_FALSE(reference.hasHashJob());
        for (const Record* const record : {&inner, &middle, &outer}) {
            EXPECT_EQ(record->m_DataCalls.load(), 1);
            EXPECT_EQ(record->m_Destroyed.load(), 1);
        }
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebBlockFuture, FutureMayYieldALibraryJobStillRunning)
{
    const TemporaryStore store;
    Record record;
    const QByteArray bytes(4096, 'j');
    const ZebDataReference reference =
        pending(new GivenFuture(&record, ZebDataBlockManager::instance().addBlock(bytes)));
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_FALSE(reference.hasHashJob());
    EXPECT_EQ(reference.hash(), resolvedBlock(bytes).hash());
}

TEST(ZebBlockFuture, FutureThatYieldsNullIsFatal)
{
    EXPECT_FATAL(
        {
            Record record;
            pending(new GivenFuture(&record)).resolveWork();
        },
        "Null Value for m_DataHash");
}

TEST(ZebBlockFuture, ChainThatEndsInNullIsFatal)
{
    EXPECT_FATAL(
        {
            Record record;
            pending(new GivenFuture(&record, pending(new GivenFuture(&record)))).resolveWork();
        },
        "Null Value for m_DataHash");
}

TEST(ZebBlockFuture, EveryWaitingOperationReportsANullYield)
{
    const std::pair<const char*, void (*)(const ZebDataReference&)> operations[] = {
        {"hash",
         [](const ZebDataReference& reference) {
             reference.hash();
         }},
        {"isInMemory",
         [](const ZebDataReference& reference) {
             reference.isInMemory();
         }},
        {"userId",
         [](const ZebDataReference& reference) {
             reference.userId();
         }},
        {"constAccessor",
         [](const ZebDataReference& reference) {
             reference.constAccessor();
         }},
    };
    for (const auto& operation : operations) {
        SCOPED_TRACE(operation.first);
        EXPECT_FATAL(
            {
                Record record;
                operation.second(pending(new GivenFuture(&record)));
            },
            "Null Value for m_DataHash");
    }
}

TEST(ZebBlockFuture, ReferenceWaitsUntilTheFutureHasEnded)
{
    const TemporaryStore store;
    const ZebDataReference block = resolvedBlock("worth waiting for");
    Record record;
    QSemaphore gate;
    std::atomic<bool> resolved{false};
    std::thread waiting([&resolved, mine = pending(new HeldFuture(&record, &gate, block)), &block] {
        mine.resolveWork();
        resolved.store(true);
        EXPECT_TRUE(mine == block);
    });
    EXPECT_TRUE(waitUntil([&] { return record.m_DataCalls.load() == 1; }));
    EXPECT_FALSE(resolved.load());
    EXPECT_EQ(record.m_Destroyed.load(), 0);
    gate.release();
    waiting.join();
    EXPECT_TRUE(resolved.load());
    EXPECT_EQ(record.m_Destroyed.load(), 1);
}

TEST(ZebBlockFuture, CopiesOfAPendingReferenceEachWaitAndEachResolve)
{
    const TemporaryStore store;
    const ZebDataReference block = resolvedBlock("shared by two threads");
    Record record;
    QSemaphore gate;
    ZebDataReference original = pending(new HeldFuture(&record, &gate, block));
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([mine = original, &block] {
            EXPECT_TRUE(mine.hasHashJob());
            EXPECT_EQ(mine.hash(), block.hash());
            EXPECT_FALSE(mine.hasHashJob());
        });
    }
    EXPECT_TRUE(waitUntil([&] { return record.m_DataCalls.load() == 2; }));
    gate.release(2);
    for (std::thread& thread : threads)
        thread.join();
    // Resolving a copy leaves the original as it was.
    EXPECT_TRUE(original.hasHashJob());
    EXPECT_EQ(record.m_Destroyed.load(), 0);
    original = ZebDataReference();
    EXPECT_EQ(record.m_Destroyed.load(), 1);
    EXPECT_EQ(record.m_DataCalls.load(), 2);
}
