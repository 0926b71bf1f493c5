// Many pending references, which several threads make, copy, resolve and drop in random order.
// Each test is bounded by a number of references and ends with every count back where it was.

#include "data/ZebDataReference.h"
#include "data/ZebHashingJob.h"
#include "support/Manager.h"
#include "support/RunTogether.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"

#include <QMutex>
#include <QMutexLocker>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr int s_Threads = 4;
constexpr int s_ReferencesInAll = 100000;
constexpr int s_Slots = 16;
constexpr int s_Block = 64;

// How many blobs all threads have in common. Few, so that a block is often released by one thread
// while another adds it.
constexpr quint32 s_Shared = 24;

// Each distinct block leaves a file, so only one in so many blocks is distinct.
constexpr quint32 s_OwnInterval = 40;

// The counts that must be as before after everything has been dropped.
std::array<qint64, 8> counts()
{
    return {manager().liveBytes(),
            manager().liveBlocks(),
            manager().managedBlocks(),
            ZebDataReference::referenceCount(),
            ZebDataReference::allocCount(),
            ZebBlockFuture::numHashJobs(),
            ZebDataHash::hashCount(),
            ZebHashingJob::liveHashJobCount() + ZebHashingJob::unfinishedHashJobCount()};
}

// A reference and the blob that it must lead to.
struct Slot
{
    ZebDataReference m_Reference;
    quint32 m_Blob = 0;
};

// Slots that threads hand to each other, pending or not.
class Exchange
{
public:
    void swap(Slot* slot, quint32 random)
    {
        const QMutexLocker locker(&m_Mutex);
        Slot& place = m_Slots[random % s_Slots];
        place.m_Reference.swap(slot->m_Reference);
        std::swap(place.m_Blob, slot->m_Blob);
    }

private:
    QMutex m_Mutex;
    Slot m_Slots[s_Slots];
};

// One thread's random walk over pending references.
class Walker
{
public:
    Walker(quint32 number, Exchange* exchange)
        : m_Random(number + 1), m_Number(number), m_Exchange(exchange)
    {}

    // Makes that many references, and after each some steps of other kinds.
    void walk(int references)
    {
        for (int i = 0; i < references && m_Error.empty(); ++i) {
            make();
            step();
            step();
        }
    }

    // The first error, empty if there was none.
    const std::string& error() const { return m_Error; }

private:
    quint32 random() { return static_cast<quint32>(m_Random() >> 4); }
    Slot& anySlot() { return m_Slots[random() % s_Slots]; }

    void make()
    {
        // The old reference of the slot is dropped here, pending or not.
        Slot& slot = anySlot();
        const bool own = random() % s_OwnInterval == 0;
        slot.m_Blob = own ? (m_Number + 1) * s_ReferencesInAll + ++m_Own : random() % s_Shared;
        slot.m_Reference =
            manager().addBlock(testBytes(s_Block, slot.m_Blob), ZebModifyAccessor::Cached);
        if (!slot.m_Reference.hasHashJob())
            m_Error = "a new reference is not pending";
    }

    void step()
    {
        switch (random() % 8) {
        case 0:
        case 1:
            anySlot() = Slot(anySlot());
            break;
        case 2:
            anySlot() = Slot();
            break;
        case 3:
        case 4:
            m_Exchange->swap(&anySlot(), random());
            break;
        case 5:
            resolve();
            break;
        case 6:
            read();
            break;
        default:
            compare();
            break;
        }
    }

    void resolve()
    {
        const Slot& slot = anySlot();
        slot.m_Reference.resolveWork();
        if (slot.m_Reference.hasHashJob())
            m_Error = "a resolved reference is pending";
    }

    void read()
    {
        const Slot& slot = anySlot();
        if (!slot.m_Reference.isNull() && !holdsTestBytes(slot.m_Reference, s_Block, slot.m_Blob))
            m_Error = "a block shows other bytes";
    }

    // Two copies of one pending reference resolve separately and become equal.
    void compare()
    {
        const Slot& slot = anySlot();
        const ZebDataReference copy(slot.m_Reference);
        if (copy != slot.m_Reference)
            m_Error = "a copy differs";
        copy.resolveWork();
        slot.m_Reference.resolveWork();
        if (copy != slot.m_Reference)
            m_Error = "a copy has become another block";
    }

    std::minstd_rand m_Random;
    quint32 m_Number;
    quint32 m_Own = 0;
    Exchange* m_Exchange;
    Slot m_Slots[s_Slots];
    std::string m_Error;
};

} // namespace

TEST(PendingReferenceStress, HundredThousandRandomStepsRestoreAllCounts)
{
    const TemporaryStore store;
    const auto before = counts();
    {
        Exchange exchange;
        runTogether(s_Threads, [&](int i) {
            Walker walker(static_cast<quint32>(i), &exchange);
            walker.walk(s_ReferencesInAll / s_Threads);
            EXPECT_EQ(walker.error(), "") << "thread " << i;
        });
    }
    // Dropping a pending reference waits for its job, so no task is left. A writer may still hold a
    // hash.
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), before[5]);
    manager().flush();
    waitUntil([&] { return counts() == before; });
    EXPECT_EQ(counts(), before);
}

TEST(PendingReferenceStress, DroppedUnresolvedByTheirThread)
{
    constexpr int perThread = 10000;
    const TemporaryStore store;
    const auto before = counts();
    runTogether(s_Threads, [&](int thread) {
        for (int i = 0; i < perThread; ++i) {
            // Two threads at a time add the same blob.
            const auto blob = static_cast<quint32>(thread / 2 * 8 + i % 8);
            manager().addBlock(testBytes(s_Block, blob));
        }
    });
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), before[5]);
    manager().flush();
    waitUntil([&] { return counts() == before; });
    EXPECT_EQ(counts(), before);
}

TEST(PendingReferenceStress, MadeInABatchAndResolvedByAnotherThread)
{
    constexpr int rounds = 20;
    constexpr int perBatch = 100;
    const TemporaryStore store;
    const auto before = counts();
    std::atomic<int> wrong{0};
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::vector<ZebDataReference>> batches(s_Threads);
        runTogether(s_Threads, [&](int thread) {
            for (int i = 0; i < perBatch; ++i)
                batches[static_cast<std::size_t>(thread)].push_back(
                    manager().addBlock(testBytes(s_Block, static_cast<quint32>(i))));
        });
        runTogether(s_Threads, [&](int thread) {
            auto& theirs = batches[static_cast<std::size_t>((thread + 1) % s_Threads)];
            for (int i = 0; i < perBatch; ++i) {
                if (!holdsTestBytes(theirs[static_cast<std::size_t>(i)], s_Block,
                                    static_cast<quint32>(i)))
                    ++wrong;
            }
        });
        // Equal bytes are one block, however many jobs added them.
        for (const auto& batch : batches)
            wrong += batch == batches.front() ? 0 : 1;
        EXPECT_EQ(manager().managedBlocks(), perBatch);
        EXPECT_EQ(ZebBlockFuture::numHashJobs(), before[5]);
    }
    EXPECT_EQ(wrong, 0);
    manager().flush();
    waitUntil([&] { return counts() == before; });
    EXPECT_EQ(counts(), before);
}
