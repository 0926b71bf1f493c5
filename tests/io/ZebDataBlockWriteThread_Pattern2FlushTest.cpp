// How callers wait for the writer with workers: its fences, and the end of its work.

#include "io/ZebDataBlockWriteThread_Pattern2.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/Pattern2Inside.h"
#include "support/PrivateAccess.h"
#include "support/WaitUntil.h"
#include "support/WriterStation.h"
#include "support/ZebDataDeleteLocker.h"

#include <QMutexLocker>
#include <QSet>
#include <QVector>
#include <QWriteLocker>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using Pattern2 = ZebDataBlockWriteThread_Pattern2;

ZEBTDX_ACCESS(NextFenceTag, ZebDataBlockWriteThread, int ZebDataBlockWriteThread::*, m_NextFenceId)
ZEBTDX_ACCESS(FencesReachedTag, ZebDataBlockWriteThread, QSet<int> ZebDataBlockWriteThread::*,
              m_FencesReached)
ZEBTDX_ACCESS(FreeFencesTag, ZebDataBlockWriteThread, QVector<int> ZebDataBlockWriteThread::*,
              m_FreeFenceIds)
ZEBTDX_ACCESS(FenceMutexTag, Pattern2, QMutex Pattern2::*, m_FenceMutex)
ZEBTDX_ACCESS(FenceConditionTag, Pattern2, QWaitCondition Pattern2::*, m_FenceCondition)
ZEBTDX_ACCESS(FlushMutexTag, Pattern2, QMutex Pattern2::*, m_FlushMutex)
ZEBTDX_ACCESS(FlushConditionTag, Pattern2, QWaitCondition Pattern2::*, m_FlushCondition)

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// How long something that must not happen is waited for.
constexpr int s_HeldOffMs = 100;

int nextFence(Pattern2Station& station)
{
    const QMutexLocker locker(&(station.writer().*privateMember(FenceMutexTag())));
    return station.writer().*privateMember(NextFenceTag());
}

QSet<int> fencesReached(Pattern2Station& station)
{
    const QMutexLocker locker(&(station.writer().*privateMember(FenceMutexTag())));
    return station.writer().*privateMember(FencesReachedTag());
}

QVector<int>& freeFences(Pattern2Station& station)
{
    return station.writer().*privateMember(FreeFencesTag());
}

// Waits until the list is as long as that, with the thread left alone.
bool hasEntries(Pattern2Station& station, size_t count)
{
    return waitUntil([&] { return station.list().size() == count; });
}

// A request goes with no pass of the writer.
void takeFirstAway(Pattern2Station& station)
{
    const QWriteLocker locker(&(station.writer().*privateMember(WriterLockTag())));
    delete (station.writer().*privateMember(WriterListTag())).takeFirst();
}

} // namespace

// flush(hash): the list and the numbers

TEST(ZebDataBlockWriteThread_Pattern2Flush, OfANullHashReturnsAtOnceWithoutAFence)
{
    Pattern2Station station(1);
    station.queue("waiting");
    // Nobody would ever pass a fence of this writer, which is not started.
    station.writer().flush(ZebSmartPointer<ZebDataHash>());
    EXPECT_THAT(station.list(), ElementsAre("1 waiting"));
    EXPECT_EQ(nextFence(station), 0);
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, MovesTheFirstRequestAboveZeroAndPutsAFenceBehindZero)
{
    Pattern2Station station(2);
    for (const char* const name : {"a", "b", "wanted", "c"})
        station.queue(name, 1);
    station.queue("wanted", 2);
    station.queue("urgent", 0);
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(hasEntries(station, 7));
    EXPECT_THAT(station.list(),
                ElementsAre("0 urgent", "0 wanted", "0 fence 0", "1 a", "1 b", "1 c", "2 wanted"));
    EXPECT_FALSE(station.isReady(flush));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("wanted"));
    EXPECT_TRUE(station.hasFile("urgent"));
    EXPECT_TRUE(station.drain());
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, LeavesARequestAtPriorityZeroWhereItIs)
{
    Pattern2Station station(1);
    station.queue("wanted", 0);
    station.queue("urgent", 0);
    station.queue("wanted", 1);
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(hasEntries(station, 4));
    EXPECT_THAT(station.list(), ElementsAre("0 wanted", "0 urgent", "0 wanted", "0 fence 0"));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, TakesTheNumberGivenBackLastAndANewOneWhenThereIsNone)
{
    Pattern2Station station(1);
    freeFences(station) = {3, 5};
    station.writer().*privateMember(NextFenceTag()) = 9;
    std::vector<std::future<void>> flushes;
    for (const char* const expected : {"0 fence 5", "0 fence 3", "0 fence 9", "0 fence 10"}) {
        flushes.push_back(station.beginFlush("wanted"));
        EXPECT_TRUE(hasEntries(station, flushes.size()));
        EXPECT_EQ(station.list().back(), expected);
    }
    EXPECT_EQ(nextFence(station), 11);
    EXPECT_TRUE(freeFences(station).isEmpty());
    station.start();
    for (const std::future<void>& flush : flushes)
        EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(fencesReached(station).isEmpty());
    EXPECT_THAT(freeFences(station), UnorderedElementsAre(3, 5, 9, 10));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, TheNumbersHaveALockOfTheirOwn)
{
    Pattern2Station station(1);
    std::future<void> flush;
    {
        const QWriteLocker locker(&(station.writer().*privateMember(WriterLockTag())));
        flush = station.beginFlush("wanted");
        EXPECT_TRUE(waitUntil([&] { return nextFence(station) == 1; }));
        EXPECT_TRUE((station.writer().*privateMember(WriterListTag())).isEmpty())
            << "the list waits for its own";
    }
    EXPECT_TRUE(hasEntries(station, 1));
    std::future<void> second;
    {
        const QMutexLocker locker(&(station.writer().*privateMember(FenceMutexTag())));
        second = station.beginFlush("wanted");
        EXPECT_FALSE(waitUntil([&] { return station.list().size() > 1; }, s_HeldOffMs));
    }
    EXPECT_TRUE(hasEntries(station, 2));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.waitFor(second));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, GivesTheThreadNoWake)
{
    Pattern2Station station(1);
    std::future<void> flush;
    EXPECT_FALSE(station.actionWakes(
        [&] {
            flush = station.beginFlush("wanted");
            EXPECT_TRUE(hasEntries(station, 1));
        },
        s_HeldOffMs));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    station.stop();
    EXPECT_FALSE(station.actionWakes([&] { station.writer().flush(); }, s_HeldOffMs));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, WaitsOnAConditionForItsFence)
{
    Pattern2Station station(1);
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(hasEntries(station, 1));
    {
        const QMutexLocker locker(&(station.writer().*privateMember(FenceMutexTag())));
        (station.writer().*privateMember(FencesReachedTag())).insert(0);
    }
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs)) << "it polls";
    (station.writer().*privateMember(FenceConditionTag())).wakeAll();
    EXPECT_TRUE(waitUntil([&] { return station.isReady(flush); }));
    EXPECT_TRUE(fencesReached(station).isEmpty());
    EXPECT_THAT(freeFences(station), ElementsAre(0));
}

// flush(hash): the barrier

TEST(ZebDataBlockWriteThread_Pattern2Flush, TheFenceWaitsForEverythingWithTheWorkers)
{
    Pattern2Station station(2);
    HeldWorker held(station, "unrelated");
    station.queue("unrelated");
    station.start();
    EXPECT_TRUE(held.isHeld());
    station.queue("wanted");
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.waitFor([&] { return station.block("wanted").cached(); }));
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
    EXPECT_TRUE(fencesReached(station).isEmpty());
    held.release();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("unrelated"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, TheFenceWaitsForItsBlockThatIsWithAWorkerAlready)
{
    Pattern2Station station(1);
    HeldWorker held(station, "wanted");
    station.queue("wanted");
    station.start();
    EXPECT_TRUE(held.isHeld());
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_FALSE(station.isReady(flush));
    held.release();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("wanted"));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, NothingBehindTheFenceIsTakenUpBeforeIt)
{
    Pattern2Station station(2);
    HeldWorker held(station, "held");
    station.queue("held");
    const std::future<void> flush = station.beginFlush("held");
    EXPECT_TRUE(hasEntries(station, 2));
    station.queue("later");
    EXPECT_THAT(station.list(), ElementsAre("0 held", "0 fence 0", "1 later"));
    station.start();
    EXPECT_TRUE(held.isHeld());
    EXPECT_TRUE(hasEntries(station, 1)) << "the fence has been taken up";
    EXPECT_FALSE(waitUntil([&] { return station.list().empty(); }, s_HeldOffMs));
    EXPECT_FALSE(station.isReady(flush));
    held.release();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.hasFile("later"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, AFenceOfAnEmptyWriterIsReached)
{
    Pattern2Station station(1);
    station.start();
    EXPECT_TRUE(station.waitFor(station.beginFlush("never queued")));
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_EQ(station.writer().requestsHandled(), 0) << "fences are not counted";
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, AFenceOfASleepingWriterIsReachedUnaided)
{
    Pattern2Station station(1);
    station.start();
    station.queue("before");
    EXPECT_TRUE(station.drain());
    // Nothing wakes the thread from here on: it has to end its wait by itself.
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(waitUntil([&] { return station.isReady(flush); }));
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_TRUE(fencesReached(station).isEmpty());
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, AFailingWriteHoldsEveryFenceBack)
{
    Pattern2Station station(1);
    FileInTheWay obstacle(station.bucket("stuck"));
    std::atomic<int> failures{0};
    QObject::connect(&station.writer(), &ZebDataBlockWriteThread::writeError,
                     [&failures] { ++failures; });
    station.queue("stuck");
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return failures > 0; }));
    const std::future<void> flush = station.beginFlush("unrelated");
    const std::future<void> whole = station.beginFlush();
    EXPECT_TRUE(hasEntries(station, 0)) << "the fence has left the list";
    const int before = failures;
    EXPECT_TRUE(station.waitFor([&] { return failures > before + 20; }));
    EXPECT_FALSE(station.isReady(flush));
    EXPECT_FALSE(station.isReady(whole));
    obstacle.remove();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.waitFor(whole));
    EXPECT_TRUE(station.hasFile("stuck"));
}

// A number that is reached twice would let its next user through.
TEST(ZebDataBlockWriteThread_Pattern2Flush, EachFenceIsReachedOnceAndBehindItsBlock)
{
    constexpr int threads = 4;
    constexpr int rounds = 60;
    Pattern2Station station(2);
    station.start();
    const SleeplessWriter sleepless(station);
    std::atomic<int> missing{0};
    std::vector<std::thread> flushers;
    for (int thread = 0; thread < threads; ++thread) {
        flushers.emplace_back([&station, &missing, thread] {
            for (int round = 0; round < rounds; ++round) {
                const QByteArray content =
                    QByteArray::number(thread) + " " + QByteArray::number(round);
                const auto hash = ZebHashManager::instance().getHash(content);
                station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                                            new ZebDataBlock(content), true);
                station.writer().flush(hash);
                if (!QFile::exists(BlockFiles::pathOf(*hash, station.root(), QString(),
                                                      Pattern2Station::s_Buckets)))
                    ++missing;
            }
        });
    }
    for (std::thread& flusher : flushers)
        flusher.join();
    EXPECT_EQ(missing, 0);
    EXPECT_LE(nextFence(station), threads);
    EXPECT_TRUE(fencesReached(station).isEmpty());
    EXPECT_EQ(freeFences(station).size(), nextFence(station));
    EXPECT_EQ(station.writer().requestsHandled(), threads * rounds);
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, AFenceWhoseWaiterHasGoneOnIsNotReachedAgain)
{
    Pattern2Station station(1);
    station.start();
    const SleeplessWriter sleepless(station);
    // New work comes at many moments of the writer's pause behind the fence, so that its pass goes
    // on.
    for (int round = 0; round < 30; ++round) {
        station.writer().flush(station.hash("wanted"));
        waitUntil([] { return false; }, round % 6);
        station.queue("new " + std::to_string(round));
        EXPECT_TRUE(station.drain());
        EXPECT_TRUE(fencesReached(station).isEmpty()) << round;
    }
}

// flush()

TEST(ZebDataBlockWriteThread_Pattern2Flush, ReturnsAtOnceWithNothingQueued)
{
    Pattern2Station station(1);
    // No pass of this writer ever ends, since it is not started.
    station.writer().flush();
    EXPECT_EQ(station.writer().requests(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, WaitsOnAConditionForTheEndOfAPass)
{
    Pattern2Station station(1);
    station.queue("taken away");
    const std::future<void> flush = station.beginFlush();
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
    takeFirstAway(station);
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs)) << "it polls";
    const auto endOfPass = [&] {
        const QMutexLocker locker(&(station.writer().*privateMember(FlushMutexTag())));
        (station.writer().*privateMember(FlushConditionTag())).wakeAll();
    };
    endOfPass();
    EXPECT_TRUE(waitUntil([&] { return station.isReady(flush); }));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, TheEndOfAnEmptyPassLetsItReturn)
{
    Pattern2Station station(1);
    station.queue("taken away");
    const std::future<void> flush = station.beginFlush();
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
    takeFirstAway(station);
    station.start();
    EXPECT_TRUE(waitUntil([&] { return station.isReady(flush); }));
    EXPECT_EQ(station.writer().requestsHandled(), 0);
    EXPECT_FALSE(station.hasFile("taken away"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, LooksAgainAfterEachPass)
{
    Pattern2Station station(1);
    station.queue("still there");
    const std::future<void> flush = station.beginFlush();
    for (int pass = 0; pass < 10; ++pass) {
        const QMutexLocker locker(&(station.writer().*privateMember(FlushMutexTag())));
        (station.writer().*privateMember(FlushConditionTag())).wakeAll();
    }
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("still there"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, WaitsForWhatIsWithTheWorkers)
{
    Pattern2Station station(2);
    HeldWorker held(station, "held");
    station.queue("held");
    station.start();
    EXPECT_TRUE(held.isHeld());
    const std::future<void> flush = station.beginFlush();
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
    held.release();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("held"));
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, WaitsForWhatHasLeftTheListAndStillExists)
{
    // Neither is ever in progress, so it is the mark beside the counters that shows them.
    for (const bool isFence : {false, true}) {
        Pattern2Station station(1);
        std::future<void> fence;
        if (isFence) {
            fence = station.beginFlush("in hand");
        } else {
            BlockFiles::write(station.file("in hand"), QByteArray(13, 'q'));
            station.queue("in hand");
        }
        EXPECT_TRUE(hasEntries(station, 1));
        std::future<void> flush;
        {
            // The end of a request waits for this lock.
            const ZebDataDeleteLocker locker;
            station.start();
            EXPECT_TRUE(station.waitFor([&] { return station.writer().requests() == 0; }));
            flush = station.beginFlush();
            EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
            EXPECT_EQ(station.writer().requestsInProgress(), 0);
        }
        EXPECT_TRUE(station.waitFor(flush));
        if (isFence) {
            EXPECT_TRUE(station.waitFor(fence));
        }
    }
}

// Between the list, the queues and the counters lie moments that only many tries can meet. The file
// is there from the first try on, so that a try is short.
TEST(ZebDataBlockWriteThread_Pattern2Flush, NeverReturnsEarly)
{
    constexpr int threads = 3;
    constexpr int rounds = 80;
    Pattern2Station station(2);
    std::atomic<int> unwritten{0};
    std::atomic<int> unfinished{0};
    const auto hammer = [&](const QByteArray& content) {
        // None ends before the writer has, whatever flush() does.
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (int round = 0; round < rounds; ++round) {
            const QByteArray bytes = round % 2 == 0 ? content : content + QByteArray::number(round);
            const auto hash = ZebHashManager::instance().getHash(bytes);
            blocks.push_back(std::make_unique<ZebDataBlock>(bytes));
            station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                                        blocks.back().get(), false);
            station.writer().flush();
            unwritten += blocks.back()->cached() ? 0 : 1;
            unfinished += hash->refCount() == 1 ? 0 : 1;
        }
    };
    station.start();
    {
        const SleeplessWriter sleepless(station);
        std::vector<std::thread> hosts;
        for (int thread = 0; thread < threads; ++thread) {
            hosts.emplace_back(
                [&hammer, thread] { hammer("hammer " + QByteArray::number(thread)); });
        }
        for (std::thread& host : hosts)
            host.join();
    }
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(unwritten, 0);
    EXPECT_EQ(unfinished, 0) << "a request still existed";
}
