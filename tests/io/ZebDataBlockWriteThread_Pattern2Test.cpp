// What is special to the writer with workers: how a block passes its queues, what it counts, how it
// fails and ends. How callers wait for it is tested in
// ZebDataBlockWriteThread_Pattern2FlushTest.cpp, what it shares with the other forms in
// WriterConformanceTest.cpp and WriterFlushConformanceTest.cpp.

#include "io/ZebDataBlockWriteThread_Pattern2.h"

#include "io/WriterForms.h"
#include "support/HeldWorker.h"
#include "support/RequestInside.h"
#include "support/SequencePoints.h"
#include "support/ZebDataDeleteLocker.h"

#include <QDir>
#include <QWriteLocker>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int s_DeadlineMs = 20000;

// The requests that wait to be written, by the bytes of their blocks.
std::vector<std::string> writeQueue(Pattern2Station& station)
{
    return Pattern2Inside::withWriteQueue(station.writer(), [](const RequestQueue& queue) {
        std::vector<std::string> names;
        for (ZebDataBlockWriteRequest* const request : queue) {
            const ZebDataBlock* const block = request->block();
            names.emplace_back(reinterpret_cast<const char*>(block->constData()),
                               static_cast<size_t>(block->size()));
        }
        return names;
    });
}

// Counts the payloads that workers make.
std::shared_ptr<std::atomic<int>> countCompressions(Pattern2Station& station)
{
    auto count = std::make_shared<std::atomic<int>>(0);
    for (ZebDataBlockCompressionThread* const worker : Pattern2Inside::workers(station.writer())) {
        QObject::connect(
            worker, &ZebDataBlockCompressionThread::compressed, &station.writer(),
            [count] { ++*count; }, Qt::DirectConnection);
    }
    return count;
}

// Counts a request of the test's as one that a worker has taken from the list.
void countAsTaken(Pattern2Station& station, const ZebDataBlockWriteRequest* request)
{
    const QWriteLocker locker(&WriterInside::lock(station.writer()));
    ++WriterInside::requestsTaken(station.writer());
    WriterInside::bytesInQueue(station.writer()) += request->blockSize();
    WriterInside::requestsInProgress(station.writer()).fetchAndAddOrdered(1);
}

// Whether the writer waits for a free worker of the process.
bool waitsForAWorker(Pattern2Station& station)
{
    return station.watch().waitsFor(ZebDataBlockCompressionThread::AvailableThreads);
}

} // namespace

// How a block passes

TEST(ZebDataBlockWriteThread_Pattern2, StartsItsWorkersAndEndsThemWithItself)
{
    {
        Pattern2Station station(3);
        EXPECT_EQ(Pattern2Inside::workers(station.writer()).size(), 3);
        for (ZebDataBlockCompressionThread* const worker :
             Pattern2Inside::workers(station.writer())) {
            EXPECT_EQ(worker->objectName(), "TDX Compression");
            EXPECT_EQ(worker->parent(), &station.writer());
        }
        EXPECT_TRUE(Pattern2Inside::workersAreFree(3));
        EXPECT_FALSE(station.writer().isRunning());
    }
    EXPECT_EQ(Pattern2Inside::freeWorkers(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern2, AWorkerMakesThePayloadBeforeTheFileIsOpened)
{
    Pattern2Station station(1);
    HeldWorker held(station, "block");
    station.queue("block");
    station.start();
    EXPECT_TRUE(held.isHeld());
    EXPECT_FALSE(station.hasFile("block"));
    EXPECT_TRUE(QDir(station.bucket("block")).exists()) << "it has its name already";
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.hasFile("block"));
}

TEST(ZebDataBlockWriteThread_Pattern2, BlocksReachTheDiskInTheOrderInWhichWorkersFinish)
{
    Pattern2Station station(2);
    HeldWorker held(station, "urgent");
    station.queue("urgent", ZebDataBlockManager::PreloadHigh);
    station.queue("later", ZebDataBlockManager::PreloadLow);
    station.start();
    EXPECT_TRUE(held.isHeld());
    EXPECT_TRUE(station.waitFor([&] { return station.block("later").cached(); }));
    EXPECT_FALSE(station.hasFile("urgent"));
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.hasFile("urgent"));
}

// What it counts

TEST(ZebDataBlockWriteThread_Pattern2, BytesInQueueFallOnlyWhenTheBlockIsWritten)
{
    Pattern2Station station(2);
    HeldWorker held(station, "held");
    station.queue("held");
    station.queue("passes");
    station.start();
    EXPECT_TRUE(held.isHeld());
    EXPECT_TRUE(station.waitFor([&] { return station.writer().requestsHandled() == 1; }));
    EXPECT_EQ(station.writer().requests(), 0);
    EXPECT_EQ(station.writer().bytesInQueue(), 4) << "it has left the list, and is not written";
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern2, ABlockIsInProgressFromItsWorkerToItsFile)
{
    Pattern2Station station(2);
    HeldWorker held(station, "held");
    station.queue("held");
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
    station.start();
    EXPECT_TRUE(held.isHeld());
    EXPECT_EQ(station.writer().requestsInProgress(), 1);
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern2, AWrittenBlockIsNoLongerInProgressWhenTheManagerIsNotified)
{
    Pattern2Station station(1);
    StoreInside::beingWrittenSet() = {&station.block("written")};
    station.queue("written");
    {
        // The manager is notified with this lock held.
        const ZebDataDeleteLocker locker;
        station.start();
        EXPECT_TRUE(station.waitFor([&] { return station.writer().requestsHandled() == 1; }));
        EXPECT_TRUE(station.waitFor([&] { return station.writer().requestsInProgress() == 0; }));
        EXPECT_EQ(station.writer().bytesInQueue(), 0);
        EXPECT_TRUE(StoreInside::beingWritten().contains(&station.block("written")));
    }
    EXPECT_TRUE(station.drain());
    EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
}

TEST(ZebDataBlockWriteThread_Pattern2, ABlockWhoseFileIsFoundReachesNoWorkerAndCountsNowhere)
{
    Pattern2Station station(1);
    const auto compressions = countCompressions(station);
    BlockFiles::write(station.file("present"), QByteArray(13, 'q'));
    station.queue("present");
    Pattern2Station::Flush flush;
    {
        // The end of a request requires this lock.
        const ZebDataDeleteLocker locker;
        station.start();
        EXPECT_TRUE(station.waitFor([&] { return station.block("present").cached(); }));
        EXPECT_TRUE(station.waitFor([&] { return station.writer().bytesInQueue() == 0; }));
        EXPECT_EQ(station.writer().requestsInProgress(), 0);
        flush = station.beginFlush();
        EXPECT_TRUE(station.waitsForTheEnd(flush));
    }
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_EQ(*compressions, 0);
    EXPECT_EQ(station.writer().requestsHandled(), 0);
}

// Failing writes

TEST(ZebDataBlockWriteThread_Pattern2, AFailedRequestReturnsToTheTailOfTheWriteQueue)
{
    Pattern2Station station(1);
    FileInTheWay obstacle(station.bucket("stuck"));
    std::vector<std::vector<std::string>> queues;
    std::vector<int> waiting;
    std::vector<int> inProgress;
    std::vector<qint64> bytes;
    SequencePoints points;
    station.onEachFailure([&](int failures, const QString&) {
        if (failures == 1)
            points.reachedThenWait("failed", "next is queued");
        if (failures <= 2) {
            queues.push_back(writeQueue(station));
            waiting.push_back(station.writer().requests());
            inProgress.push_back(station.writer().requestsInProgress());
            bytes.push_back(station.writer().bytesInQueue());
        }
        if (failures == 2)
            obstacle.remove();
    });
    station.queue("stuck");
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return points.arrivals("failed") > 0; }));
    // The writer handles its first failure. A request that a worker returns now comes after it.
    auto* const request =
        new ZebDataBlockWriteRequest(station.hash("next"), &station.block("next"), false);
    request->setFileName(station.root(), QString(), WriterStation::s_Buckets);
    countAsTaken(station, request);
    station.writer().pushWrite(request);
    points.reached("next is queued");
    EXPECT_TRUE(station.drain());
    EXPECT_THAT(queues, ElementsAre(ElementsAre("stuck", "next"), ElementsAre("next", "stuck")));
    EXPECT_THAT(waiting, ElementsAre(0, 0)) << "it does not return to the list";
    EXPECT_THAT(inProgress, ElementsAre(2, 2)) << "it stays in progress";
    EXPECT_THAT(bytes, ElementsAre(9, 9)) << "it stays in the queue";
    EXPECT_TRUE(station.hasFile("stuck"));
    EXPECT_TRUE(station.hasFile("next"));
}

TEST(ZebDataBlockWriteThread_Pattern2, ARetryKeepsItsNameAndItsPayload)
{
    Pattern2Station station(1);
    const auto compressions = countCompressions(station);
    const QString file = station.file("stuck");
    FileInTheWay obstacle(station.bucket("stuck"));
    station.onEachFailure([&](int failures, const QString&) {
        station.writer().setSubCache("elsewhere");
        if (failures == 5)
            obstacle.remove();
    });
    station.queue("stuck");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(*compressions, 1);
    EXPECT_EQ(BlockFiles::read(file), BlockFiles::fileOf("stuck"));
    EXPECT_FALSE(QDir(station.root() + "/elsewhere").exists());
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

TEST(ZebDataBlockWriteThread_Pattern2, ARetryMakesTheDirectoryAgainWhenItWasRemoved)
{
    Pattern2Station station(1);
    HeldWorker held(station, "block");
    int failures = 0;
    station.onEachFailure([&](int count, const QString&) {
        failures = count;
        ASSERT_TRUE(QFile::remove(station.bucket("block")));
    });
    station.queue("block");
    station.start();
    EXPECT_TRUE(held.isHeld());
    ASSERT_TRUE(QDir(station.bucket("block")).removeRecursively());
    // First a file is in its place, then nothing.
    BlockFiles::write(station.bucket("block"), "in the way");
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(BlockFiles::read(station.file("block")), BlockFiles::fileOf("block"));
}

TEST(ZebDataBlockWriteThread_Pattern2, AnEmptyPayloadIsWrittenAndFailsWithAnEmptyText)
{
    Pattern2Station station(1);
    emptyPayload(station, "empty");
    QStringList emitted;
    station.onEachFailure([&](int failures, const QString& text) {
        emitted.append(text);
        EXPECT_EQ(BlockFiles::read(station.file("empty")).size(), 12);
        // Only this ends it: a retry does not look for a file.
        if (failures == 3) {
            Pattern2Inside::withWriteQueue(station.writer(), [](RequestQueue& queue) {
                RequestInside::payload(*queue.last()) = "payload";
            });
        }
    });
    station.queue("empty");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(emitted, QStringList({QString(), QString(), QString()}));
    EXPECT_EQ(station.messages().debugLines(), QStringList("Failed to compress data block."));
    EXPECT_EQ(station.writer().bytesWritten(), 7);
}

// The workers of the process

TEST(ZebDataBlockWriteThread_Pattern2, ABlockWaitsUntilAWorkerRuns)
{
    Pattern2Station station(0);
    station.queue("block");
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return station.writer().requestsInProgress() == 1; }));
    EXPECT_TRUE(waitsForAWorker(station));
    EXPECT_EQ(Pattern2Inside::queued(station.writer()), 0);
    EXPECT_FALSE(station.hasFile("block"));
    const std::unique_ptr<ZebDataBlockCompressionThread> worker(
        Pattern2Inside::makeWorker(station.writer()));
    worker->start();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.hasFile("block"));
}

TEST(ZebDataBlockWriteThread_Pattern2, TakesOneBlockMoreThanThereAreWorkers)
{
    Pattern2Station station(1);
    HeldWorker held(station, "held");
    station.queue("held");
    for (const char* const name : {"a", "b", "c"})
        station.queue(name);
    station.start();
    EXPECT_TRUE(held.isHeld());
    // The writer holds one more, for which it waits for a free worker.
    EXPECT_TRUE(station.waitFor([&] { return station.writer().requests() == 2; }));
    EXPECT_TRUE(waitsForAWorker(station));
    EXPECT_EQ(Pattern2Inside::queued(station.writer()), 0);
    EXPECT_EQ(station.writer().requests(), 2);
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(station.writer().requestsHandled(), 4);
}

namespace {

// Two writers with one worker each. The first worker holds "held", and "missed" is in its queue
// with the permit of the other writer's worker: its wake-up found no worker asleep.
class Pattern2MissedWakeUp : public testing::Test
{
protected:
    Pattern2MissedWakeUp()
        : m_Station(1), m_Other(std::make_unique<Pattern2Station>(1)), m_Held(m_Station, "held")
    {
        EXPECT_TRUE(Pattern2Inside::workersAreFree(2));
        m_Station.queue("held");
        m_Station.start();
        EXPECT_TRUE(m_Held.isHeld());
        m_Station.queue("missed");
        EXPECT_TRUE(
            m_Station.waitFor([this] { return Pattern2Inside::queued(m_Station.writer()) == 1; }));
        EXPECT_EQ(Pattern2Inside::freeWorkers(), 0);
    }

    Pattern2Station m_Station;
    std::unique_ptr<Pattern2Station> m_Other;
    HeldWorker m_Held;
};

} // namespace

TEST_F(Pattern2MissedWakeUp, TheIdleWriterWakesItsWorkerAgain)
{
    m_Held.release();
    EXPECT_TRUE(m_Station.drain());
    EXPECT_TRUE(m_Station.hasFile("missed"));
}

TEST_F(Pattern2MissedWakeUp, TheWriterAtAFenceWakesItsWorkerAgain)
{
    const auto flush = m_Station.beginFlush("missed");
    EXPECT_TRUE(m_Station.waitsForFence(flush));
    EXPECT_TRUE(m_Station.waitFor([this] { return m_Station.writer().requests() == 0; }));
    m_Held.release();
    EXPECT_TRUE(m_Station.waitFor(flush));
    EXPECT_TRUE(m_Station.hasFile("missed"));
}

TEST_F(Pattern2MissedWakeUp, TheWriterThatWaitsForAPermitWakesItsWorkerAgain)
{
    m_Station.queue("next");
    EXPECT_TRUE(m_Station.waitFor([this] { return m_Station.writer().requestsInProgress() == 3; }));
    // The other worker ends while its permit is in use, so this worker's next permit replaces it.
    m_Other.reset();
    m_Held.release();
    EXPECT_TRUE(m_Station.drain());
    EXPECT_TRUE(m_Station.hasFile("missed"));
    EXPECT_TRUE(m_Station.hasFile("next"));
    EXPECT_TRUE(Pattern2Inside::workersAreFree(1));
}

// The end of the thread

TEST(ZebDataBlockWriteThread_Pattern2, EndsOnlyWhenEverythingIsWritten)
{
    Pattern2Station station(2);
    HeldWorker held(station, "held");
    station.queue("held");
    station.queue("other");
    station.start();
    EXPECT_TRUE(held.isHeld());
    station.writer().closeDown();
    EXPECT_TRUE(station.writer().isRunning()) << "closeDown() does not wait";
    station.queue("late");
    held.release();
    EXPECT_TRUE(station.writer().wait(s_DeadlineMs));
    EXPECT_THAT(station.list(), IsEmpty());
    for (const char* const name : {"held", "other", "late"})
        EXPECT_TRUE(station.hasFile(name)) << name;
}
