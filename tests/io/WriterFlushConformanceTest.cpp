// How callers wait for a writer of any form: flush(hash) with its fences, and flush().

#include "io/WriterForms.h"

#include "support/RunTogether.h"
#include "support/ZebDataDeleteLocker.h"

#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace {

template <typename Form>
class WriterFlushConformance : public ::testing::Test
{};
TYPED_TEST_SUITE(WriterFlushConformance, WriterForms, WriterFormNames);

// Has a fence reached without the writer's thread.
void reachFence(WriterStation& station, int fence)
{
    station.withFences([&] { WriterInside::fencesReached(station.writer()).insert(fence); });
}

void reachFence(Pattern2Station& station, int fence)
{
    station.withFences([&] { WriterInside::fencesReached(station.writer()).insert(fence); });
    Pattern2Inside::fenceCondition(station.writer()).wakeAll();
}

} // namespace

// flush(hash): the list

TYPED_TEST(WriterFlushConformance, ANullHashReturnsAtOnceWithoutAFence)
{
    TypeParam station;
    station.queue("waiting");
    // The writer is not started, so a flush with a fence would never return.
    station.writer().flush(ZebSmartPointer<ZebDataHash>());
    EXPECT_THAT(station.list(), ElementsAre("1 waiting"));
    EXPECT_EQ(station.nextFence(), 0);
}

TYPED_TEST(WriterFlushConformance, MovesTheFirstRequestAboveZeroAndPutsAFenceAfterZero)
{
    TypeParam station;
    for (const char* const name : {"a", "b", "wanted", "c"})
        station.queue(name, 1);
    station.queue("wanted", 2);
    station.queue("urgent", 0);
    const auto flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.hasEntries(7));
    EXPECT_THAT(station.list(),
                ElementsAre("0 urgent", "0 wanted", "0 fence 0", "1 a", "1 b", "1 c", "2 wanted"));
    EXPECT_EQ(station.writer().bytesInQueue(), 1 + 1 + 6 + 1 + 6 + 6);
    EXPECT_TRUE(station.waitsForFence(flush));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("wanted"));
    EXPECT_TRUE(station.hasFile("urgent"));
    EXPECT_TRUE(station.drain());
}

TYPED_TEST(WriterFlushConformance, ARequestAtPriorityZeroKeepsItsPlace)
{
    TypeParam station;
    station.queue("wanted", 0);
    station.queue("urgent", 0);
    station.queue("other", 1);
    station.queue("wanted", 1);
    const auto flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.hasEntries(5));
    EXPECT_THAT(station.list(),
                ElementsAre("0 wanted", "0 urgent", "0 wanted", "0 fence 0", "1 other"));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
}

TYPED_TEST(WriterFlushConformance, ComparesTheHashObjectAndNotItsDigest)
{
    TypeParam station;
    station.queue("other");
    station.queue("twin");
    const ZebSmartPointer<ZebDataHash> twin(new ZebDataHash(*station.hash("twin")));
    ASSERT_EQ(*twin, *station.hash("twin"));
    const auto flush =
        std::make_unique<BlockedThread>([&station, twin] { station.writer().flush(twin); });
    EXPECT_TRUE(station.hasEntries(3));
    EXPECT_THAT(station.list(), ElementsAre("0 fence 0", "1 other", "1 twin"));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
}

TYPED_TEST(WriterFlushConformance, WithoutARequestItWaitsForItsFence)
{
    TypeParam station;
    const auto flush = station.beginFlush("never queued");
    EXPECT_TRUE(station.waitsForFence(flush));
    EXPECT_THAT(station.list(), ElementsAre("0 fence 0"));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_EQ(station.writer().requestsHandled(), 0) << "fences are not counted";
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
}

TYPED_TEST(WriterFlushConformance, DoesNotWakeTheThread)
{
    TypeParam station;
    typename TypeParam::Flush flush;
    EXPECT_FALSE(station.actionWakes([&] {
        flush = station.beginFlush("wanted");
        EXPECT_TRUE(station.waitsForFence(flush));
    }));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    station.stop();
    EXPECT_FALSE(station.actionWakes([&] { station.writer().flush(); }));
}

TYPED_TEST(WriterFlushConformance, AnIdleWriterReachesAFenceByItself)
{
    TypeParam station;
    station.start();
    station.queue("before");
    EXPECT_TRUE(station.drain());
    // From here on nothing wakes the thread; its own wait is limited.
    const auto flush = station.beginFlush("wanted");
    EXPECT_TRUE(waitUntil([&] { return flush->hasEnded(); }));
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_TRUE(station.fencesReached().isEmpty());
}

// flush(hash): the numbers of fences

TYPED_TEST(WriterFlushConformance, TakesTheNumberGivenBackLastAndANewOneWhenNoneIsFree)
{
    TypeParam station;
    station.withFences([&] {
        WriterInside::freeFenceIds(station.writer()) = {3, 5};
        WriterInside::nextFenceId(station.writer()) = 9;
    });
    std::vector<typename TypeParam::Flush> flushes;
    for (const char* const expected : {"0 fence 5", "0 fence 3", "0 fence 9", "0 fence 10"}) {
        flushes.push_back(station.beginFlush("wanted"));
        EXPECT_TRUE(station.hasEntries(flushes.size()));
        EXPECT_EQ(station.list().back(), expected);
    }
    EXPECT_EQ(station.nextFence(), 11);
    EXPECT_TRUE(station.freeFences().isEmpty());
    station.start();
    for (const auto& flush : flushes)
        EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.fencesReached().isEmpty());
    EXPECT_THAT(station.freeFences(), UnorderedElementsAre(3, 5, 9, 10));
    station.stop();

    const int last = station.freeFences().last();
    const auto again = station.beginFlush("wanted");
    EXPECT_TRUE(station.waitsForFence(again));
    EXPECT_THAT(station.list(), ElementsAre("0 fence " + std::to_string(last)));
    reachFence(station, last);
    EXPECT_TRUE(waitUntil([&] { return again->hasEnded(); }));
    EXPECT_EQ(station.freeFences().last(), last);
}

// A number that were reached twice would let the next flush with that number return early.
TYPED_TEST(WriterFlushConformance, ConcurrentFlushesWaitForTheirBlocksAndShareTheNumbers)
{
    constexpr int threads = 4;
    constexpr int rounds = TypeParam::s_FlushRounds;
    TypeParam station;
    station.start();
    const SleeplessWriter sleepless(station);
    std::atomic<int> missing{0};
    runTogether(threads, [&](int thread) {
        for (int round = 0; round < rounds; ++round) {
            const QByteArray bytes = QByteArray::number(thread) + " " + QByteArray::number(round);
            const auto hash = ZebHashManager::instance().getHash(bytes);
            station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                                        new ZebDataBlock(bytes), true);
            station.writer().flush(hash);
            if (!QFile::exists(
                    BlockFiles::pathOf(*hash, station.root(), QString(), TypeParam::s_Buckets)))
                ++missing;
        }
    });
    EXPECT_EQ(missing, 0);
    EXPECT_GE(station.nextFence(), 1);
    EXPECT_LE(station.nextFence(), threads) << "no more numbers than flushes at one time";
    EXPECT_TRUE(station.fencesReached().isEmpty());
    EXPECT_EQ(station.freeFences().size(), station.nextFence());
    EXPECT_EQ(station.writer().requestsHandled(), threads * rounds) << "fences are not counted";
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
}

// flush(hash): what it waits for

TYPED_TEST(WriterFlushConformance, WaitsForTheEndOfARequestThatHasLeftTheList)
{
    TypeParam station;
    station.queue("taken");
    typename TypeParam::Flush flush;
    {
        // The end of a request requires this lock.
        const ZebDataDeleteLocker locker;
        station.start();
        EXPECT_TRUE(station.waitFor([&] { return station.block("taken").cached(); }));
        flush = station.beginFlush("taken");
        EXPECT_TRUE(station.waitsForFence(flush));
        EXPECT_THAT(station.list(), ElementsAre("0 fence 0"));
    }
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("taken"));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

// flush()

TYPED_TEST(WriterFlushConformance, ReturnsAtOnceWithNothingQueued)
{
    TypeParam station;
    // The writer is not started, so a flush that waits would never return.
    station.writer().flush();
    EXPECT_EQ(station.writer().requests(), 0);
}

TYPED_TEST(WriterFlushConformance, WaitsUntilAFailingWriteSucceeds)
{
    TypeParam station;
    FileInTheWay obstacle(station.bucket("stuck"));
    std::atomic<int> attempts{0};
    station.onEachFailure([&](int failures, const QString&) { attempts = failures; });
    station.queue("stuck");
    station.start();
    const auto flush = station.beginFlush();
    EXPECT_TRUE(station.waitFor([&] { return attempts > 20; }));
    EXPECT_TRUE(station.waitsForTheEnd(flush));
    obstacle.remove();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.block("stuck").cached());
    EXPECT_EQ(station.writer().requests(), 0);
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
}

TYPED_TEST(WriterFlushConformance, WaitsForARequestThatHasLeftTheListAndStillExists)
{
    enum Kind
    {
        Write,
        FoundFile,
        Fence
    };
    for (const Kind kind : {Write, FoundFile, Fence}) {
        TypeParam station;
        typename TypeParam::Flush fence;
        if (kind == FoundFile)
            BlockFiles::write(station.file("taken"), QByteArray(13, 'q'));
        if (kind == Fence)
            fence = station.beginFlush("taken");
        else
            station.queue("taken");
        EXPECT_TRUE(station.hasEntries(1));
        const int inProgress = TypeParam::s_InProgressToTheEnd && kind != Fence ? 1 : 0;
        typename TypeParam::Flush flush;
        {
            // The end of a request requires this lock.
            const ZebDataDeleteLocker locker;
            station.start();
            EXPECT_TRUE(station.waitFor([&] { return station.writer().requests() == 0; }));
            if (kind != Fence) {
                EXPECT_TRUE(station.waitFor([&] { return station.block("taken").cached(); }));
            }
            EXPECT_TRUE(station.waitFor(
                [&] { return station.writer().requestsInProgress() == inProgress; }));
            flush = station.beginFlush();
            EXPECT_TRUE(station.waitsForTheEnd(flush)) << kind;
            EXPECT_EQ(station.writer().requestsInProgress(), inProgress);
        }
        EXPECT_TRUE(station.waitFor(flush));
        if (kind == Fence) {
            EXPECT_TRUE(station.waitFor(fence));
        }
        const bool counts = kind == Write || (kind == FoundFile && TypeParam::s_CountsFoundFiles);
        EXPECT_EQ(station.writer().requestsHandled(), counts ? 1 : 0);
    }
}

// A request passes from the list to the counters, and with workers through two queues, and only
// many attempts hit the moments in between. Blocks that have a file keep an attempt short.
TYPED_TEST(WriterFlushConformance, NeverReturnsEarly)
{
    constexpr int threads = 3;
    constexpr int rounds = TypeParam::s_DrainRounds;
    constexpr int filesPerThread = 1 + rounds / TypeParam::s_DrainRoundsPerFile;
    TypeParam station;
    std::atomic<int> unwritten{0};
    std::atomic<int> unfinished{0};
    const auto work = [&](int thread) {
        const QByteArray name = "thread " + QByteArray::number(thread);
        // The blocks outlive the writer's work even if flush() returns early.
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (int round = 1; round <= rounds; ++round) {
            const bool isNew = round % TypeParam::s_DrainRoundsPerFile == 0;
            const QByteArray bytes = isNew ? name + " " + QByteArray::number(round) : name;
            const auto hash = ZebHashManager::instance().getHash(bytes);
            blocks.push_back(std::make_unique<ZebDataBlock>(bytes));
            station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                                        blocks.back().get(), false);
            station.writer().flush();
            unwritten += blocks.back()->cached() ? 0 : 1;
            unfinished += hash->refCount() == 1 ? 0 : 1;
        }
        station.writer().flush(ZebHashManager::instance().getHash(name));
    };
    station.start();
    {
        const SleeplessWriter sleepless(station);
        runTogether(threads, work);
    }
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(unwritten, 0);
    EXPECT_EQ(unfinished, 0) << "a request still existed";
    EXPECT_EQ(station.writer().requestsHandled(),
              threads * (TypeParam::s_CountsFoundFiles ? rounds : filesPerThread));
}
