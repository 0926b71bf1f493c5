// Threads that add, read, share and drop blocks at once. Each test is bounded by a number of steps
// and ends with every count of the library back where it was.

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "support/Manager.h"
#include "support/RunTogether.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"

#include <QMutex>
#include <QMutexLocker>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int s_Threads = 4;
constexpr int s_Slots = 8;
constexpr int s_SharedBlobs = 16;

// Blob number `number`, of 1 byte to about 20 KiB, with the number at its end.
QByteArray blobOf(quint32 number)
{
    std::minstd_rand random(number + 1);
    const int size = 1 + static_cast<int>(random() % 20000);
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; i += 61)
        bytes[i] = static_cast<char>(random() >> 8);
    // So blobs of one size differ, too.
    return bytes + QByteArray::number(number);
}

// The counts that must be as before after everything has been dropped.
struct Counts
{
    qint64 m_LiveBytes = manager().liveBytes();
    qint64 m_LiveBlocks = manager().liveBlocks();
    qint64 m_ManagedBlocks = manager().managedBlocks();
    int m_References = ZebDataReference::referenceCount();
    int m_Allocated = ZebDataReference::allocCount();
    int m_Jobs = ZebBlockFuture::numHashJobs();
    int m_Hashes = ZebDataHash::hashCount();

    bool operator==(const Counts& other) const
    {
        return m_LiveBytes == other.m_LiveBytes && m_LiveBlocks == other.m_LiveBlocks &&
               m_ManagedBlocks == other.m_ManagedBlocks && m_References == other.m_References &&
               m_Allocated == other.m_Allocated && m_Jobs == other.m_Jobs &&
               m_Hashes == other.m_Hashes;
    }
};

void expectCounts(const Counts& before)
{
    waitUntil([&] { return Counts() == before; });
    const Counts now;
    EXPECT_EQ(now.m_LiveBytes, before.m_LiveBytes);
    EXPECT_EQ(now.m_LiveBlocks, before.m_LiveBlocks);
    EXPECT_EQ(now.m_ManagedBlocks, before.m_ManagedBlocks);
    EXPECT_EQ(now.m_References, before.m_References);
    EXPECT_EQ(now.m_Allocated, before.m_Allocated);
    EXPECT_EQ(now.m_Jobs, before.m_Jobs);
    EXPECT_EQ(now.m_Hashes, before.m_Hashes);
}

// A reference and the bytes that it must lead to.
struct Slot
{
    ZebDataReference m_Reference;
    std::shared_ptr<const QByteArray> m_Bytes;
};

// Slots that threads hand to each other.
class Exchange
{
public:
    /// Stores a copy of `slot` in a random place and returns what was there.
    Slot swap(const Slot& slot, quint32 random)
    {
        const QMutexLocker locker(&m_Mutex);
        Slot& place = m_Slots[random % s_Slots];
        const Slot old = place;
        place = slot;
        return old;
    }

private:
    QMutex m_Mutex;
    Slot m_Slots[s_Slots];
};

// An open accessor and the bytes that it must show.
struct Opened
{
    std::unique_ptr<ZebConstAccessor> m_Accessor;
    std::shared_ptr<const QByteArray> m_Bytes;
};

// One thread's random walk.
class Walker
{
public:
    Walker(quint32 seed, Exchange* exchange) : m_Random(seed), m_Seed(seed), m_Exchange(exchange) {}

    void walk(int steps)
    {
        for (int i = 0; i < steps && m_Error.empty(); ++i)
            step();
        for (const Opened& opened : m_Opened)
            check(opened);
    }

    /// The first error, empty if there was none.
    const std::string& error() const { return m_Error; }

private:
    quint32 random() { return static_cast<quint32>(m_Random() >> 4); }
    Slot& anySlot() { return m_Slots[random() % s_Slots]; }
    Opened& anyOpened() { return m_Opened[random() % s_Slots]; }

    void step()
    {
        switch (random() % 12) {
        case 0:
        case 1:
            add();
            break;
        case 2:
        case 3:
        case 4:
            open();
            break;
        case 5:
            copyAccessor();
            break;
        case 6:
        case 7:
            check(anyOpened());
            anyOpened() = Opened();
            break;
        case 8:
            anySlot() = m_Exchange->swap(anySlot(), random());
            break;
        case 9:
            anySlot() = Slot();
            break;
        case 10:
            anySlot() = anySlot();
            break;
        default:
            modify();
            break;
        }
    }

    void add()
    {
        // Half of the blocks are common to all threads, the others belong to one thread.
        const bool own = random() % 2 == 0;
        const quint32 number = own ? (m_Seed << 20) + ++m_OwnBlocks : random() % s_SharedBlobs;
        const auto bytes = std::make_shared<const QByteArray>(blobOf(number));
        Slot& slot = anySlot();
        slot.m_Bytes = bytes;
        switch (random() % 5) {
        case 0:
            slot.m_Reference = manager().addBlock(*bytes, ZebModifyAccessor::Cached, true);
            break;
        case 1:
            slot.m_Reference = manager().addBlock(*bytes, ZebModifyAccessor::DontCache);
            break;
        case 2:
            slot.m_Reference = manager().createNewBlock(*bytes).release();
            break;
        default:
            slot.m_Reference = manager().addBlock(*bytes);
            break;
        }
    }

    void open()
    {
        const Slot& slot = anySlot();
        if (slot.m_Reference.isNull())
            return;
        Opened& opened = anyOpened();
        opened.m_Accessor = std::make_unique<ZebConstAccessor>(slot.m_Reference.constAccessor());
        opened.m_Bytes = slot.m_Bytes;
        check(opened);
    }

    void copyAccessor()
    {
        const Opened& from = anyOpened();
        if (from.m_Accessor == nullptr)
            return;
        Opened copy;
        copy.m_Accessor = std::make_unique<ZebConstAccessor>(*from.m_Accessor);
        copy.m_Bytes = from.m_Bytes;
        if (copy.m_Accessor->count() < 2)
            m_Error = "a copied accessor is alone";
        anyOpened() = std::move(copy);
    }

    void modify()
    {
        const Slot& slot = anySlot();
        if (slot.m_Reference.isNull() || !slot.m_Reference.isInMemory())
            return;
        const ZebModifyAccessor accessor = slot.m_Reference.modifyAccessor();
        if (accessor.isNull() || accessor.count() != 1 || accessor.size() != slot.m_Bytes->size() ||
            std::memcmp(accessor.data(), slot.m_Bytes->constData(),
                        static_cast<size_t>(accessor.size())) != 0)
            m_Error = "a private copy differs";
    }

    void check(const Opened& opened)
    {
        if (opened.m_Accessor == nullptr)
            return;
        const ZebConstAccessor& accessor = *opened.m_Accessor;
        if (accessor.isNull())
            m_Error = "a block could not be had";
        else if (accessor.count() < 1)
            m_Error = "an open accessor is not counted";
        else if (accessor.size() != opened.m_Bytes->size() ||
                 std::memcmp(accessor.data(), opened.m_Bytes->constData(),
                             static_cast<size_t>(accessor.size())) != 0)
            m_Error = "a block shows other bytes";
    }

    std::minstd_rand m_Random;
    quint32 m_Seed;
    quint32 m_OwnBlocks = 0;
    Exchange* m_Exchange;
    Slot m_Slots[s_Slots];
    Opened m_Opened[s_Slots];
    std::string m_Error;
};

} // namespace

TEST(AccessorStress, RandomWalksRestoreAllCounts)
{
    const TemporaryStore store;
    const Counts before;
    {
        Exchange exchange;
        runTogether(s_Threads, [&](int i) {
            Walker walker(static_cast<quint32>(i) + 1, &exchange);
            walker.walk(10000);
            EXPECT_EQ(walker.error(), "") << "thread " << i;
        });
    }
    expectCounts(before);
}

TEST(AccessorStress, AllThreadsOpenAndCloseOneBlock)
{
    const TemporaryStore store;
    const Counts before;
    {
        const QByteArray bytes(64, 'o');
        const ZebDataReference reference =
            manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
        const qint64 evictable = manager().liveBlocks();
        std::atomic<int> wrong{0};
        runTogether(s_Threads, [&](int) {
            const ZebDataReference mine(reference);
            for (int round = 0; round < 40000; ++round) {
                const ZebConstAccessor accessor = mine.constAccessor();
                if (accessor.isNull() || accessor.count() < 1 || accessor.count() > s_Threads ||
                    accessor.data()[round % 64] != 'o')
                    wrong.fetch_add(1);
            }
        });
        EXPECT_EQ(wrong.load(), 0);
        EXPECT_EQ(manager().liveBlocks(), evictable);
        EXPECT_EQ(reference.constAccessor().count(), 1);
    }
    expectCounts(before);
}

TEST(AccessorStress, LastReleaseRacesWithAdmissionOfTheSameBytes)
{
    const TemporaryStore store;
    const Counts before;
    std::atomic<int> wrong{0};
    runTogether(s_Threads, [&](int thread) {
        for (int round = 0; round < 3000; ++round) {
            // All threads add, read and drop the same few blobs at about the same time.
            const QByteArray bytes = "contended " + QByteArray::number(round % 3);
            const bool immediate = (round + thread) % 2 == 0;
            const ZebDataReference reference =
                manager().addBlock(bytes, ZebModifyAccessor::Cached, immediate);
            const ZebConstAccessor accessor = reference.constAccessor();
            if (accessor.isNull() || accessor.size() != bytes.size() ||
                std::memcmp(accessor.data(), bytes.constData(),
                            static_cast<size_t>(bytes.size())) != 0)
                wrong.fetch_add(1);
        }
    });
    EXPECT_EQ(wrong.load(), 0);
    expectCounts(before);
}

TEST(AccessorStress, CopiesOfPendingReferencesResolveEverywhere)
{
    const TemporaryStore store;
    const Counts before;
    std::atomic<int> wrong{0};
    for (int round = 0; round < 150; ++round) {
        std::vector<ZebDataReference> references;
        for (int i = 0; i < 4; ++i) {
            references.push_back(manager().addBlock(blobOf(static_cast<quint32>(round * 4 + i))));
        }
        std::vector<std::vector<ZebDataReference>> copies(s_Threads, references);
        references.clear();
        runTogether(s_Threads, [&](int thread) {
            std::vector<ZebDataReference>& mine = copies[static_cast<size_t>(thread)];
            for (int i = 0; i < 4; ++i) {
                const ZebDataReference& reference = mine[static_cast<size_t>((i + thread) % 4)];
                const int number = round * 4 + (i + thread) % 4;
                // Every other reference is dropped while it is pending.
                if ((i + thread + round) % 2 == 0 && !reference.isInMemory())
                    wrong.fetch_add(1);
                if ((i + round) % 3 == 0 &&
                    reference.constAccessor().size() != blobOf(static_cast<quint32>(number)).size())
                    wrong.fetch_add(1);
            }
            mine.clear();
        });
    }
    EXPECT_EQ(wrong.load(), 0);
    expectCounts(before);
}
