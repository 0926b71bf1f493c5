// The store with compression workers: which writers have them, that nothing stalls however many
// there are, and that bytes can be read again.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "support/FailingDisk.h"
#include "support/FakeMemory.h"
#include "support/FilesBelow.h"
#include "support/Manager.h"
#include "support/Pattern2Inside.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"

#include <QFile>
#include <QObject>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using testing::IsEmpty;

namespace {

constexpr int s_Block = 1000;

constexpr int s_LivesByHand = 1000;
constexpr int s_LivesPerRound = 9;

TemporaryStore::Options options(int roots, int compressionThreads)
{
    TemporaryStore::Options options;
    options.m_Roots = roots;
    options.m_CompressionThreads = compressionThreads;
    return options;
}

ZebDataReference add(int size, quint32 seed)
{
    return manager().addBlock(testBytes(size, seed), ZebModifyAccessor::Cached, true);
}

// Ends the process with a message when a scope takes too long: a hang could print nothing.
class Watchdog
{
public:
    explicit Watchdog(const std::string& what)
        : m_Thread([this, what] {
              std::unique_lock<std::mutex> lock(m_Mutex);
              if (m_Changed.wait_for(lock, s_Deadline, [this] { return m_IsOver; }))
                  return;
              std::fprintf(stderr, "stalled: %s\n", what.c_str());
              std::abort();
          })
    {}
    ~Watchdog()
    {
        {
            const std::lock_guard<std::mutex> lock(m_Mutex);
            m_IsOver = true;
        }
        m_Changed.notify_all();
        m_Thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    static constexpr std::chrono::seconds s_Deadline{60};

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_IsOver = false;
    std::thread m_Thread;
};

// One life of a store: bursts of blocks, each waited for in another way. Fails when a block is not
// on disk, or has other bytes.
void liveThroughBursts(int roots, int workers, quint32 round)
{
    constexpr quint32 burst = 24;
    const Watchdog watchdog(std::to_string(roots) + " roots, " + std::to_string(workers) +
                            " workers, round " + std::to_string(round));
    const TemporaryStore store(options(roots, workers));
    std::vector<ZebDataReference> references;
    // Sizes from small to several times what a worker compresses between two looks of its writer.
    const auto sizeOf = [round](quint32 i) {
        return static_cast<int>(16 + (i * 2654435761U + round * 40503U) % 8192U);
    };
    const auto addBurst = [&] {
        const auto first = static_cast<quint32>(references.size());
        for (quint32 i = first; i < first + burst; ++i)
            references.push_back(add(sizeOf(i), i));
    };
    addBurst();
    manager().flush(false, ZebDataBlockManager::WriteThreads);
    addBurst();
    // Not each time: an idle writer sees its fence only after a second.
    if (round % 8 == 0) {
        manager().flushWrite(references.back().hashPtr());
        ASSERT_TRUE(StoreInside::hasFile(references.back()));
    }
    addBurst();
    manager().freeAllBlocks();
    ASSERT_EQ(filesBelow(store.roots()).size(), static_cast<int>(references.size()));
    for (quint32 i = round % 7; i < references.size(); i += 7)
        ASSERT_TRUE(holdsTestBytes(references[i], sizeOf(i), i)) << i;
    addBurst();
}

// Lives of stores one after another in this process, with all counts of roots and workers.
void liveManyTimes(quint32 rounds)
{
    const FakeMemory memory;
    for (quint32 round = 0; round < rounds; ++round) {
        for (const int roots : {1, 2, 4}) {
            for (const int workers : {1, 2, 8}) {
                liveThroughBursts(roots, workers, round);
                ASSERT_EQ(Pattern2Inside::freeWorkers(), 0);
                ASSERT_FALSE(testing::Test::HasFailure());
            }
        }
    }
}

} // namespace

// setup

TEST(ZebDataBlockManagerDiskThreadsCompression, NoWorkersMakeWritersThatCompressThemselves)
{
    for (const int workers : {0, -1, -100}) {
        const TemporaryStore store(options(2, workers));
        ASSERT_EQ(StoreInside::writers().size(), 2);
        for (ZebDataBlockWriteThread* const writer : StoreInside::writers())
            EXPECT_NE(qobject_cast<ZebDataBlockWriteThread_Pattern1*>(writer), nullptr);
        EXPECT_TRUE(manager().findChildren<ZebDataBlockCompressionThread*>().isEmpty());
        EXPECT_EQ(Pattern2Inside::freeWorkers(), 0);
    }
}

TEST(ZebDataBlockManagerDiskThreadsCompression, EveryWriterHasThatManyWorkersOfItsOwn)
{
    {
        const TemporaryStore store(options(3, 2));
        ASSERT_EQ(StoreInside::writers().size(), 3);
        EXPECT_EQ(manager().getWriteThreadCount(), 3);
        for (ZebDataBlockWriteThread* const writer : StoreInside::writers()) {
            auto* const pattern2 = qobject_cast<ZebDataBlockWriteThread_Pattern2*>(writer);
            ASSERT_NE(pattern2, nullptr);
            EXPECT_TRUE(pattern2->isRunning());
            EXPECT_EQ(Pattern2Inside::workers(*pattern2).size(), 2);
        }
        EXPECT_TRUE(Pattern2Inside::workersAreFree(6));
    }
    EXPECT_EQ(Pattern2Inside::freeWorkers(), 0);
}

TEST(ZebDataBlockManagerDiskThreadsCompression, AFailureIsReportedAndTheBlockStillWritten)
{
    TemporaryStore::Options one = options(1, 2);
    one.m_Buckets = 1;
    const TemporaryStore store(one);
    FailingDisk disk(store.roots());
    int received = 0;
    QObject receiver;
    QObject::connect(
        &manager(), &ZebDataBlockManager::writeError, &receiver, [&](const QString& message) {
            EXPECT_TRUE(message.startsWith("Cannot Open File ")) << qPrintable(message);
            // Now, as each further attempt would queue one more message.
            if (++received == 1)
                disk.recover();
        });
    const ZebDataReference reference = add(s_Block, 1);
    EXPECT_TRUE(waitUntil([&] { return received > 0; }));
    manager().flush();
    EXPECT_TRUE(StoreInside::hasFile(reference));
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
}

TEST(ZebDataBlockManagerDiskThreadsCompression, BlocksAtTheWorkersCountAsQueued)
{
    TemporaryStore::Options one = options(1, 1);
    one.m_Buckets = 1;
    const TemporaryStore store(one);
    FailingDisk disk(store.roots());
    const ZebDataReference reference = add(s_Block, 1);
    EXPECT_TRUE(waitUntil([] { return StoreInside::writers().first()->requests() == 0; }));
    EXPECT_EQ(StoreInside::writers().first()->bytesInQueue(), s_Block);
    EXPECT_TRUE(manager().isBlockBeingWritten(reference));
    disk.recover();
    manager().flush();
    EXPECT_EQ(StoreInside::writers().first()->bytesInQueue(), 0);
    EXPECT_FALSE(manager().isBlockBeingWritten(reference));
}

TEST(ZebDataBlockManagerDiskThreadsCompression, ABlockOnItsWayToTheDiskCanBeRead)
{
    const FakeMemory memory;
    TemporaryStore::Options small = options(2, 2);
    small.m_Memory = 100 * s_Block;
    const TemporaryStore store(small);
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 400; ++i)
        references.push_back(add(s_Block, i));
    // Most are evicted by now, some of them with their write still queued.
    for (quint32 i = 0; i < references.size(); ++i)
        EXPECT_TRUE(holdsTestBytes(references[i], s_Block, i)) << i;
}

// Stalls. Permits of the workers are shared by all roots, so wake-ups are missed all the time.

TEST(ZebDataBlockManagerDiskThreadsCompression, NothingStallsWithAnyNumberOfRootsAndWorkers)
{
    liveManyTimes(1);
}

// Takes about ten minutes; scripts/soak.sh runs it.
TEST(ZebDataBlockManagerDiskThreadsCompression, DISABLED_NothingStallsInAThousandLives)
{
    liveManyTimes(s_LivesByHand / s_LivesPerRound + 1);
}
