// Many threads on a store that holds a tenth of their data in memory: every byte read is checked,
// and afterwards nothing is left over.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebBlockFuture.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebHashManager.h"
#include "support/FakeMemory.h"
#include "support/Manager.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <ostream>
#include <random>
#include <thread>
#include <vector>

#include <malloc.h>
#include <unistd.h>

using testing::IsEmpty;

namespace {

constexpr int s_DurationMs = 8000;
constexpr int s_ShortDurationMs = 4000;
constexpr int s_LongDurationMs = 60000;
constexpr int s_WarmUpShare = 4;

constexpr int s_Roots = 4;
constexpr int s_Threads = 4;
constexpr int s_CompressionThreads = 2;
constexpr int s_MemoryShare = 10;
constexpr quint32 s_Contents = 1024;
constexpr std::size_t s_SlotsPerThread = 256;

// By how many bytes the process may grow in a run: the heap keeps pages that are partly in use. A
// sanitizer holds freed memory back on purpose.
#ifdef __SANITIZE_ADDRESS__
constexpr qint64 s_MaxGrowth = qint64(512) * 1024 * 1024;
#else
constexpr qint64 s_MaxGrowth = qint64(16) * 1024 * 1024;
#endif

// Distinct blocks come in pairs of one size, so that a block can be changed into its partner.
int sizeOf(quint32 content)
{
    const quint32 pair = content / 2;
    return static_cast<int>(16 + pair * 2654435761U % 16384U);
}

quint32 partnerOf(quint32 content)
{
    return content ^ 1U;
}

qint64 totalBytes()
{
    qint64 total = 0;
    for (quint32 content = 0; content < s_Contents; ++content)
        total += sizeOf(content);
    return total;
}

int openFiles()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::AllEntries | QDir::System).size();
}

qint64 residentMemory()
{
    ::malloc_trim(0);
    QFile file(QStringLiteral("/proc/self/statm"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').value(1).toLongLong() * ::sysconf(_SC_PAGESIZE);
}

// What must be the same before and after.
struct Counts
{
    int hashes = ZebDataHash::hashCount();
    int interned = ZebHashManager::instance().hashCount();
    int references = ZebDataReference::referenceCount();
    int jobs = ZebBlockFuture::numHashJobs();
    int lruNodes = m_LruNodeCount.loadRelaxed();

    bool operator==(const Counts& other) const
    {
        return hashes == other.hashes && interned == other.interned &&
               references == other.references && jobs == other.jobs && lruNodes == other.lruNodes;
    }
};

std::ostream& operator<<(std::ostream& out, const Counts& counts)
{
    return out << counts.hashes << " hashes, " << counts.interned << " interned, "
               << counts.references << " references, " << counts.jobs << " jobs, "
               << counts.lruNodes << " nodes";
}

// How many operations of each kind the threads have done.
struct OperationCounts
{
    std::atomic<qint64> added{0};
    std::atomic<qint64> read{0};
    std::atomic<qint64> modified{0};
    std::atomic<qint64> wrong{0};
};

// One thread of the load.
class Worker
{
public:
    Worker(quint32 seed, OperationCounts& counts) : m_Random(seed), m_Counts(counts) {}

    void run(int durationMs)
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < durationMs) {
            for (int i = 0; i < 16; ++i)
                act(m_Slots.at(below(s_SlotsPerThread)));
            // What a host does that adds faster than its disks take.
            if (manager().isWriteThreadsFull())
                manager().flush(false, ZebDataBlockManager::WriteThreads);
        }
    }

private:
    struct Slot
    {
        ZebDataReference reference;
        quint32 content = 0;
    };

    quint32 below(quint32 end) { return static_cast<quint32>(m_Random() % end); }

    void act(Slot& slot)
    {
        const quint32 choice = below(1000);
        if (slot.reference.isNull() || choice < 300)
            add(slot, choice);
        else if (choice < 750)
            read(slot);
        else if (choice < 850)
            modify(slot);
        else if (choice < 950)
            slot.reference = ZebDataReference();
        else if (choice < 999)
            ask(slot, choice);
        else
            wholeStore();
    }

    void add(Slot& slot, quint32 choice)
    {
        slot.content = below(s_Contents);
        const bool cached = choice % 20 != 0;
        slot.reference = manager().addBlock(
            testBytes(sizeOf(slot.content), slot.content),
            cached ? ZebModifyAccessor::Cached : ZebModifyAccessor::DontCache, choice % 2 == 0);
        ++m_Counts.added;
    }

    void read(const Slot& slot)
    {
        if (!holdsTestBytes(slot.reference, sizeOf(slot.content), slot.content))
            ++m_Counts.wrong;
        ++m_Counts.read;
    }

    void modify(Slot& slot)
    {
        ZebModifyAccessor accessor = slot.reference.modifyAccessor();
        const auto size = static_cast<std::size_t>(sizeOf(slot.content));
        const QByteArray expected = testBytes(sizeOf(slot.content), slot.content);
        if (accessor.isNull() || accessor.size() != expected.size() ||
            std::memcmp(accessor.data(), expected.constData(), size) != 0) {
            ++m_Counts.wrong;
            return;
        }
        slot.content = partnerOf(slot.content);
        const QByteArray changed = testBytes(sizeOf(slot.content), slot.content);
        std::memcpy(accessor.data(), changed.constData(), size);
        slot.reference = accessor.release(ZebModifyAccessor::Cached, below(2) == 0);
        ++m_Counts.modified;
    }

    // Queries and preloads.
    void ask(const Slot& slot, quint32 choice)
    {
        switch (choice % 4) {
        case 0:
            slot.reference.preload(ZebDataBlockManager::PreloadLow);
            break;
        case 1:
            slot.reference.isInMemory();
            break;
        case 2:
            manager().isBlockBeingWritten(slot.reference);
            break;
        default:
            if (manager().blockSize(slot.reference.hashPtr().data()) != sizeOf(slot.content))
                ++m_Counts.wrong;
            break;
        }
    }

    void wholeStore()
    {
        if (below(2) == 0)
            manager().flushMemory(below(2) == 0);
        else
            manager().flush(true, ZebDataBlockManager::AllThreads);
    }

    std::mt19937 m_Random;
    OperationCounts& m_Counts;
    std::array<Slot, s_SlotsPerThread> m_Slots;
};

class StoreStress
{
public:
    explicit StoreStress(int durationMs, int compressionThreads = 0)
        : m_DurationMs(durationMs), m_CompressionThreads(compressionThreads)
    {}

    // Runs twice, and compares what the process holds after each run: what is built at first use
    // exists after the first one.
    void run()
    {
        const FakeMemory memory;
        runOnce(m_DurationMs / s_WarmUpShare, false);
        const int files = openFiles();
        const qint64 bytes = residentMemory();
        runOnce(m_DurationMs - m_DurationMs / s_WarmUpShare, true);
        EXPECT_LE(openFiles(), files);
        EXPECT_LE(residentMemory() - bytes, s_MaxGrowth);
    }

private:
    void runOnce(int durationMs, bool isLong) const
    {
        const Counts before;
        TemporaryStore::Options options;
        options.m_Roots = s_Roots;
        options.m_CompressionThreads = m_CompressionThreads;
        options.m_Memory = totalBytes() / s_MemoryShare;
        TemporaryStore store(options);
        manager().flushMemory(true);
        store.messages().clear();

        OperationCounts counts;
        {
            std::vector<Worker> workers;
            for (quint32 i = 0; i < s_Threads; ++i)
                workers.emplace_back(i + 1, counts);
            std::vector<std::thread> threads;
            for (Worker& worker : workers)
                threads.emplace_back([&worker, durationMs] { worker.run(durationMs); });
            for (std::thread& thread : threads)
                thread.join();
            EXPECT_EQ(counts.wrong, 0);
            if (isLong)
                expectAllCounted(counts);
            expectNoComplaint(store.messages());
            manager().flush(true, ZebDataBlockManager::AllThreads);
            EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
            EXPECT_THAT(StoreInside::toFreeAfterWriting(), IsEmpty());
        }
        store.cleanUp();
        // Its idle threads end, too: each keeps a file open.
        ZebThreadPoolManager::instance()
            .threadPool(ZebThreadPoolManager::HashingThreadPool)
            ->waitForDone();
        EXPECT_EQ(manager().liveBlocks(), 0);
        EXPECT_EQ(manager().liveBytes(), 0);
        EXPECT_EQ(StoreInside::residentBlocks(), 0);
        EXPECT_EQ(Counts(), before);
    }

    // A run without operations of each kind tests nothing.
    static void expectAllCounted(const OperationCounts& counts)
    {
        EXPECT_GT(counts.added, 0);
        EXPECT_GT(counts.read, 0);
        EXPECT_GT(counts.modified, 0);
        EXPECT_GT(StoreInside::blocksFreed(), 0);
        EXPECT_GT(StoreInside::writesHandled(), 0);
        qint64 bytesRead = 0;
        for (const ZebDataBlockReadThread* const reader : StoreInside::readers())
            bytesRead += reader->bytesRead();
        EXPECT_GT(bytesRead, manager().maxDataCacheSize()) << "more came back than memory holds";
    }

    static void expectNoComplaint(const MessageCapture& messages)
    {
        for (const QString& line : messages.debugLines()) {
            EXPECT_FALSE(line.contains(QStringLiteral("Cannot")) ||
                         line.contains(QStringLiteral("Failed")))
                << line.toStdString();
        }
    }

    int m_DurationMs;
    int m_CompressionThreads;
};

} // namespace

TEST(StoreStress, EveryByteComesBackAndNothingIsLeftOver)
{
    StoreStress(s_DurationMs).run();
}

TEST(StoreStress, TheSameHoldsWithCompressionWorkers)
{
    StoreStress(s_ShortDurationMs, s_CompressionThreads).run();
}

// scripts/soak.sh runs it.
TEST(StoreStress, DISABLED_TheSameInARunOfAMinute)
{
    StoreStress(s_LongDurationMs).run();
}
