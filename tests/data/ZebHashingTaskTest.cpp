#include "data/ZebHashingTask.h"

#include "data/ZebDataBlock.h"
#include "data/ZebHashingJob.h"
#include "hash/SkeinLaneForm.h"
#include "hash/ZebHashManager.h"
#include "support/BlockedThread.h"
#include "support/BusyHashingPool.h"
#include "support/BytesOf.h"
#include "support/Manager.h"
#include "support/MessageCapture.h"
#include "support/Registry.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WaitUntil.h"
#include "support/ZebDataDeleteLocker.h"

#include <QElapsedTimer>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <random>
#include <thread>
#include <utility>
#include <vector>

namespace {

using HashPointer = ZebSmartPointer<ZebDataHash>;
using FuturePointer = ZebSmartPointer<ZebBlockFuture>;

QThreadPool& hashingPool()
{
    return BusyHashingPool::pool();
}

int lanes()
{
    return static_cast<int>(ZebSkein::SkeinLaneForm::best().lanes);
}

int fewest()
{
    return static_cast<int>(ZebSkein::SkeinLaneForm::best().fewest);
}

QByteArray numbered(int number)
{
    return testBytes(1000 + 64 * number, static_cast<quint32>(number));
}

ZebDataReference pending(ZebDataBlock* block)
{
    return ZebDataReference(FuturePointer(new ZebHashingJob(block)));
}

QString textOf(const QByteArray& bytes)
{
    return ZebDataHash(bytes, ZebDataHash::Hash512).toString();
}

// Adds `count` distinct blocks while the pool is busy, and queues a check after the first of them,
// which counts the hashes that are live by then. A task that runs alone leaves all others for
// later.
int liveAfterTheFirst(int count)
{
    std::vector<QString> texts;
    for (int i = 0; i < count; ++i)
        texts.push_back(textOf(numbered(i)));
    std::vector<ZebDataReference> references;
    int live = 0;
    BusyHashingPool busy;
    for (int i = 0; i < count; ++i) {
        references.push_back(manager().addBlock(numbered(i)));
        if (i == 0) {
            hashingPool().start([&] {
                for (const QString& text : texts)
                    live += registry().isHashLive(text) ? 1 : 0;
            });
        }
    }
    busy.release();
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(bytesOf(references[static_cast<std::size_t>(i)]), numbered(i)) << i;
    return live;
}

} // namespace

#define SKIP_WITHOUT_LANES()                                                                       \
    if (ZebSkein::SkeinLaneForm::best().absorb == nullptr)                                         \
    GTEST_SKIP() << "this processor has no lanes"

// Which tasks run together

TEST(ZebHashingTask, WaitingTasksRunTogetherWithTheTaskThatBegins)
{
    SKIP_WITHOUT_LANES();
    const TemporaryStore store;
    EXPECT_EQ(liveAfterTheFirst(lanes()), lanes());
}

TEST(ZebHashingTask, NoMoreThanALaneSetRunsTogether)
{
    SKIP_WITHOUT_LANES();
    const TemporaryStore store;
    EXPECT_EQ(liveAfterTheFirst(2 * lanes() + 1), lanes());
}

TEST(ZebHashingTask, TooFewForTheLanesRunOneByOne)
{
    SKIP_WITHOUT_LANES();
    const TemporaryStore store;
    EXPECT_EQ(liveAfterTheFirst(fewest() - 1), 1);
    EXPECT_EQ(liveAfterTheFirst(fewest()), fewest());
}

TEST(ZebHashingTask, WaitingThreadRunsItsOwnTaskOnly)
{
    const TemporaryStore store;
    const BusyHashingPool busy;
    std::vector<ZebDataReference> references;
    for (int i = 0; i < 20; ++i)
        references.push_back(manager().addBlock(numbered(i)));
    const int registered = registry().hashCount();
    EXPECT_EQ(bytesOf(references[7]), numbered(7));
    EXPECT_EQ(registry().hashCount(), registered + 1);
    // The same for a dropped reference: when its block has been written, its hash is released
    // again, and no other hash has been registered.
    references[3] = ZebDataReference();
    EXPECT_TRUE(waitUntil([&] { return registry().hashCount() == registered + 1; }));
}

TEST(ZebHashingTask, TasksWithAThreadEachRunAlone)
{
    const TemporaryStore store;
    hashingPool().waitForDone();
    const int threads = hashingPool().maxThreadCount();
    hashingPool().setMaxThreadCount(4);
    std::vector<HashPointer> hashes;
    std::vector<ZebDataReference> references;
    {
        // Each task waits for this lock to admit its block. The blocks of a set are admitted one
        // after the other, so only tasks that run alone all get there.
        const ZebDataDeleteLocker deleteLocker;
        for (int i = 0; i < 4; ++i)
            hashes.push_back(registry().getHash(numbered(i)));
        const int holders = hashes.front()->refCount();
        for (int i = 0; i < 4; ++i)
            references.push_back(manager().addBlock(numbered(i)));
        for (const HashPointer& hash : hashes)
            EXPECT_TRUE(waitUntil([&] { return hash->refCount() > holders; }));
    }
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(bytesOf(references[static_cast<std::size_t>(i)]), numbered(i));
    hashingPool().setMaxThreadCount(threads);
}

TEST(ZebHashingTask, BlocksAreAdmittedInTheOrderInWhichTheyWereQueued)
{
    const TemporaryStore store;
    std::vector<ZebDataReference> references;
    {
        const BusyHashingPool busy;
        // Longer blocks begin first in the lanes, so the order of the sizes differs from that of
        // the tasks.
        for (int i = 0; i < 3 * lanes(); ++i)
            references.push_back(manager().addBlock(numbered((7 * i) % 31)));
    }
    std::vector<ZebDataHash*> expected;
    for (const ZebDataReference& reference : references)
        expected.push_back(reference.hashPtr().data());
    EXPECT_EQ(StoreInside::evictable(), expected);
}

// The results are those of tasks that run alone

TEST(ZebHashingTask, EveryTaskOfASetYieldsItsOwnBlock)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    std::vector<QByteArray> blobs = {QByteArray(), "x", QByteArray(64, 'b'),
                                     QByteArray(100000, 'l')};
    for (int i = 0; i < 40; ++i)
        blobs.push_back(numbered(i % 30));
    std::vector<ZebDataReference> references;
    {
        const BusyHashingPool busy;
        for (std::size_t i = 0; i < blobs.size(); ++i) {
            // Alternately by bytes and by block.
            references.push_back(i % 2 == 0 ? manager().addBlock(blobs[i])
                                            : pending(new ZebDataBlock(blobs[i])));
        }
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + static_cast<int>(blobs.size()));
    for (std::size_t i = 0; i < blobs.size(); ++i) {
        EXPECT_TRUE(references[i].hasHashJob()) << i;
        EXPECT_EQ(references[i].hash(), textOf(blobs[i])) << i;
        EXPECT_EQ(bytesOf(references[i]), blobs[i]) << i;
        EXPECT_FALSE(references[i].hasHashJob()) << i;
    }
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebHashingTask, BlockOfASetIsTheResidentOne)
{
    const TemporaryStore store;
    std::vector<const unsigned char*> addresses;
    std::vector<ZebDataReference> references;
    {
        const BusyHashingPool busy;
        for (int i = 0; i < 10; ++i) {
            auto* const block = new ZebDataBlock(numbered(i));
            addresses.push_back(block->constData());
            references.push_back(pending(block));
        }
    }
    for (std::size_t i = 0; i < references.size(); ++i)
        EXPECT_EQ(references[i].constAccessor().data(), addresses[i]) << i;
}

TEST(ZebHashingTask, CompressedBlockInASetKeepsTheDigestOfItsStoredBytes)
{
    const TemporaryStore store;
    std::vector<ZebDataReference> references;
    std::vector<QString> expected;
    {
        const BusyHashingPool busy;
        for (int i = 0; i < 10; ++i) {
            auto* const block = new ZebDataBlock(numbered(i));
            ASSERT_TRUE(block->compress(2));
            expected.push_back(block->hash()->toString());
            references.push_back(pending(block));
        }
    }
    for (std::size_t i = 0; i < references.size(); ++i)
        EXPECT_EQ(references[i].hash(), expected[i]) << i;
}

TEST(ZebHashingTask, NullBlocksInASetYieldNull)
{
    const TemporaryStore store;
    std::vector<FuturePointer> jobs;
    {
        const BusyHashingPool busy;
        for (int i = 0; i < 20; ++i) {
            jobs.emplace_back(i % 3 == 0 ? new ZebHashingJob(static_cast<ZebDataBlock*>(nullptr))
                                         : new ZebHashingJob(numbered(i)));
        }
    }
    for (int i = 0; i < 20; ++i) {
        const ZebDataReference reference = jobs[static_cast<std::size_t>(i)]->data();
        EXPECT_EQ(reference.hash(), i % 3 == 0 ? QString("NULL") : textOf(numbered(i))) << i;
    }
}

TEST(ZebHashingTask, RegistryCountsASetAsSingleLookUps)
{
    const TemporaryStore store;
    std::vector<ZebDataReference> references;
    BusyHashingPool busy;
    registry().clearStats();
    for (int i = 0; i < 10; ++i)
        references.push_back(manager().addBlock(numbered(i / 2)));
    busy.release();
    const MessageCapture capture;
    registry().dumpStats();
    EXPECT_TRUE(capture.contains("Requests 10"));
    EXPECT_TRUE(capture.contains("Cache Hits 5"));
    EXPECT_TRUE(capture.contains("Cache Misses 5"));
}

TEST(ZebHashingTask, NothingOfAFinishedTaskIsKeptInThePool)
{
    SKIP_WITHOUT_LANES();
    const TemporaryStore store;
    const int references = ZebDataReference::referenceCount();
    QByteArray bytes = numbered(1);
    bool detached = false;
    bool resultHasGone = false;
    {
        BusyHashingPool busy;
        FuturePointer first(new ZebHashingJob(numbered(0)));
        FuturePointer second(new ZebHashingJob(bytes));
        FuturePointer third(new ZebHashingJob(numbered(2)));
        // The pool has ended the first only; the others are in its queue, finished.
        hashingPool().start(
            [&] {
                first = FuturePointer();
                second = FuturePointer();
                third = FuturePointer();
                detached = bytes.isDetached();
                resultHasGone = ZebDataReference::referenceCount() == references;
            },
            0);
        busy.release();
    }
    EXPECT_TRUE(detached);
    EXPECT_TRUE(resultHasGone);
}

// Waiting for a task of a set

TEST(ZebHashingTask, DroppingAReferenceWaitsForItsRunningSet)
{
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    std::vector<HashPointer> hashes;
    std::vector<ZebDataReference> references;
    std::atomic<int> admitted{0};
    std::deque<BlockedThread> threads;
    {
        BusyHashingPool busy;
        for (int i = 0; i < 8; ++i) {
            hashes.push_back(registry().getHash(numbered(i)));
            references.push_back(manager().addBlock(numbered(i)));
        }
        {
            // The task that begins needs this lock, so its whole set waits.
            const ZebDataDeleteLocker deleteLocker;
            const int holders = hashes.front()->refCount();
            busy.open();
            EXPECT_TRUE(waitUntil([&] {
                return std::any_of(hashes.begin(), hashes.end(), [&](const HashPointer& hash) {
                    return hash->refCount() > holders;
                });
            }));
            for (std::size_t i = 0; i < references.size(); ++i) {
                threads.emplace_back([&, i] {
                    references[i] = ZebDataReference();
                    admitted.fetch_add(manager().isInMemory(hashes[i].data()) ? 1 : 0);
                });
            }
            for (const BlockedThread& thread : threads)
                EXPECT_TRUE(thread.standsStill());
            EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive + 8);
        }
        for (const BlockedThread& thread : threads)
            EXPECT_TRUE(thread.ends());
    }
    EXPECT_EQ(admitted.load(), 8);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
}

TEST(ZebHashingTask, ManyThreadsAddResolveAndDrop)
{
    constexpr int threadCount = 4;
    constexpr qint64 durationMs = 1500;
    const TemporaryStore store;
    const int alive = ZebBlockFuture::numHashJobs();
    const int registered = registry().hashCount();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < threadCount; ++seed) {
        threads.emplace_back([&wrong, seed] {
            std::mt19937 random(seed);
            QElapsedTimer timer;
            timer.start();
            while (timer.elapsed() < durationMs) {
                std::vector<std::pair<int, ZebDataReference>> references;
                const auto count = random() % 30;
                for (auto i = count; i > 0; --i) {
                    const int number = static_cast<int>(random() % 200);
                    references.emplace_back(number, manager().addBlock(numbered(number)));
                }
                std::shuffle(references.begin(), references.end(), random);
                for (auto& [number, reference] : references) {
                    if (random() % 4 == 0)
                        reference = ZebDataReference();
                    else if (bytesOf(reference) != numbered(number))
                        wrong.fetch_add(1);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(ZebBlockFuture::numHashJobs(), alive);
    EXPECT_TRUE(waitUntil([&] { return registry().hashCount() == registered; }));
}
