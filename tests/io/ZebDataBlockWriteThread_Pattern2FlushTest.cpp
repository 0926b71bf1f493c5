// How callers wait for the writer with workers: what is special to its fences and to the end of its
// work. What it shares with the other forms is tested in WriterFlushConformanceTest.cpp.

#include "io/ZebDataBlockWriteThread_Pattern2.h"

#include "io/WriterForms.h"
#include "support/HeldWorker.h"

#include <QWriteLocker>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include <sys/syscall.h>

namespace {

using ::testing::ElementsAre;

// Removes the first request without the writer.
void removeFirst(Pattern2Station& station)
{
    const QWriteLocker locker(&WriterInside::lock(station.writer()));
    delete WriterInside::requests(station.writer()).takeFirst();
}

} // namespace

// flush(hash): locks and waiting

TEST(ZebDataBlockWriteThread_Pattern2Flush, TakesItsNumberUnderTheFenceMutexAlone)
{
    Pattern2Station station(1);
    QReadWriteLock& listLock = WriterInside::lock(station.writer());
    listLock.lockForWrite();
    const auto first = station.beginFlush("wanted");
    EXPECT_TRUE(first->waitsFor(listLock));
    EXPECT_EQ(station.nextFence(), 1) << "the number is taken before the list's lock";
    EXPECT_TRUE(WriterInside::requests(station.writer()).isEmpty());
    listLock.unlock();
    EXPECT_TRUE(station.waitsForFence(first));

    Pattern2Station::Flush second;
    station.withFences([&] {
        second = station.beginFlush("wanted");
        EXPECT_TRUE(second->waitsFor(Pattern2Inside::fenceMutex(station.writer())));
        EXPECT_EQ(WriterInside::nextFenceId(station.writer()), 1);
        const bool isFree = listLock.tryLockForRead();
        EXPECT_TRUE(isFree) << "the flush waits for the mutex without the list's lock";
        if (isFree)
            listLock.unlock();
    });
    EXPECT_TRUE(station.waitsForFence(second));
    EXPECT_THAT(station.list(), ElementsAre("0 fence 0", "0 fence 1"));
    station.start();
    EXPECT_TRUE(station.waitFor(first));
    EXPECT_TRUE(station.waitFor(second));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, SleepsAtAConditionUntilItsFenceIsReached)
{
    Pattern2Station station(1);
    const auto flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.waitsForFence(flush));
    station.withFences([&] { WriterInside::fencesReached(station.writer()).insert(0); });
    EXPECT_TRUE(flush->standsStill()) << "it does not poll";
    EXPECT_TRUE(station.waitsForFence(flush));
    Pattern2Inside::fenceCondition(station.writer()).wakeAll();
    EXPECT_TRUE(flush->ends());
    EXPECT_TRUE(station.fencesReached().isEmpty());
    EXPECT_THAT(station.freeFences(), ElementsAre(0));
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
    const auto flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.waitsForFence(flush));
    EXPECT_TRUE(station.waitFor([&] { return station.block("wanted").cached(); }));
    EXPECT_TRUE(station.waitFor([&] { return station.writer().requests() == 0; }));
    EXPECT_TRUE(station.waitsForFence(flush));
    EXPECT_TRUE(station.fencesReached().isEmpty());
    held.release();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("unrelated"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, TheFenceWaitsForItsBlockThatAWorkerHasAlready)
{
    Pattern2Station station(1);
    HeldWorker held(station, "wanted");
    station.queue("wanted");
    station.start();
    EXPECT_TRUE(held.isHeld());
    const auto flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.waitsForFence(flush));
    EXPECT_TRUE(station.waitFor([&] { return station.writer().requests() == 0; }));
    EXPECT_TRUE(station.waitsForFence(flush));
    held.release();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("wanted"));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, AFailingWriteHoldsEveryFenceAndEverythingAfterIt)
{
    Pattern2Station station(2);
    FileInTheWay obstacle(station.bucket("stuck"));
    std::atomic<int> failures{0};
    station.onEachFailure([&failures](int count, const QString&) { failures = count; });
    station.queue("stuck");
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return failures > 0; }));
    const auto flush = station.beginFlush("unrelated");
    const auto whole = station.beginFlush();
    EXPECT_TRUE(station.waitsForFence(flush));
    EXPECT_TRUE(station.hasEntries(0)) << "the writer is at the fence";
    station.queue("later");
    const int before = failures;
    // Each failure is one more round of the writer, in which it could take the next request.
    EXPECT_TRUE(station.waitFor([&] { return failures > before + 20; }));
    EXPECT_THAT(station.list(), ElementsAre("1 later"));
    EXPECT_TRUE(station.waitsForFence(flush));
    EXPECT_TRUE(station.waitsForTheEnd(whole));
    obstacle.remove();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.waitFor(whole));
    EXPECT_TRUE(station.hasFile("stuck"));
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.hasFile("later"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, AFenceWhoseFlushHasReturnedIsNotReachedAgain)
{
    Pattern2Station station(1);
    station.start();
    const ThreadWatch writer = station.watch();
    const SleeplessWriter sleepless(station);
    // New work comes while the writer pauses after the fence, and its pass continues. In every
    // second round the work comes at once.
    for (int round = 0; round < 30; ++round) {
        station.writer().flush(station.hash("wanted"));
        if (round % 2 == 0) {
            EXPECT_TRUE(pollUntil([&] { return writer.isInCall(SYS_clock_nanosleep); }));
        }
        station.queue("new " + std::to_string(round));
        EXPECT_TRUE(station.drain());
        EXPECT_TRUE(station.fencesReached().isEmpty()) << round;
    }
}

// flush()

TEST(ZebDataBlockWriteThread_Pattern2Flush, SleepsAtAConditionUntilAPassEnds)
{
    Pattern2Station station(1);
    station.queue("removed");
    const auto flush = station.beginFlush();
    EXPECT_TRUE(station.waitsForTheEnd(flush));
    removeFirst(station);
    EXPECT_TRUE(flush->standsStill()) << "it does not poll";
    EXPECT_TRUE(station.waitsForTheEnd(flush));
    Pattern2Inside::endPass(station.writer());
    EXPECT_TRUE(flush->ends());
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, ReturnsAtTheEndOfAPassThatFindsNothing)
{
    Pattern2Station station(1);
    station.queue("removed");
    const auto flush = station.beginFlush();
    EXPECT_TRUE(station.waitsForTheEnd(flush));
    removeFirst(station);
    station.start();
    EXPECT_TRUE(flush->ends());
    EXPECT_EQ(station.writer().requestsHandled(), 0);
    EXPECT_FALSE(station.hasFile("removed"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, ChecksAgainAfterEachPass)
{
    Pattern2Station station(1);
    station.queue("still queued");
    const auto flush = station.beginFlush();
    for (int pass = 0; pass < 10; ++pass) {
        EXPECT_TRUE(station.waitsForTheEnd(flush)) << pass;
        Pattern2Inside::endPass(station.writer());
    }
    EXPECT_TRUE(station.waitsForTheEnd(flush));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("still queued"));
}

TEST(ZebDataBlockWriteThread_Pattern2Flush, WaitsForBlocksWithTheWorkers)
{
    Pattern2Station station(2);
    HeldWorker held(station, "held");
    station.queue("held");
    station.start();
    EXPECT_TRUE(held.isHeld());
    const auto flush = station.beginFlush();
    EXPECT_TRUE(station.waitsForTheEnd(flush));
    held.release();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("held"));
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
}
