// The writer with workers: how a block passes, what it counts, how it fails and ends. Its fences
// and its waiting stand in ZebDataBlockWriteThread_Pattern2FlushTest.

#include "io/ZebDataBlockWriteThread_Pattern2.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/EndingBlock.h"
#include "support/Pattern2Inside.h"
#include "support/PrivateAccess.h"
#include "support/StoreInside.h"
#include "support/WaitUntil.h"
#include "support/WriterStation.h"
#include "support/ZebDataDeleteLocker.h"

#include <QDir>
#include <QMutexLocker>
#include <QSemaphore>
#include <QWriteLocker>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

ZEBTDX_ACCESS(RequestPayloadTag, ZebDataBlockWriteRequest, QByteArray ZebDataBlockWriteRequest::*,
              m_CompressedData)
ZEBTDX_ACCESS(WriteQueueTag, ZebDataBlockWriteThread_Pattern2,
              RequestQueue ZebDataBlockWriteThread_Pattern2::*, m_WriteQueue)
ZEBTDX_ACCESS(WriteQueueMutexTag, ZebDataBlockWriteThread_Pattern2,
              QMutex ZebDataBlockWriteThread_Pattern2::*, m_WriteQueueMutex)
ZEBTDX_ACCESS(WriterInProgressTag, ZebDataBlockWriteThread, QAtomicInt ZebDataBlockWriteThread::*,
              m_RequestsInProgress)
ZEBTDX_ACCESS(WriterTakenTag, ZebDataBlockWriteThread, int ZebDataBlockWriteThread::*,
              m_RequestsTaken)
ZEBTDX_ACCESS(WriterBytesTag, ZebDataBlockWriteThread, qint64 ZebDataBlockWriteThread::*,
              m_BytesInQueue)
ZEBTDX_ACCESS(BlockBytesTag, ZebDataBlock, QByteArray ZebDataBlock::*, m_Data)
ZEBTDX_ACCESS(BlockIsCompressedTag, ZebDataBlock, bool ZebDataBlock::*, m_Compressed)

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int s_DeadlineMs = 20000;

// How long something that must not happen is waited for.
constexpr int s_HeldOffMs = 100;

// The requests that wait to be written, by their blocks' contents.
std::vector<std::string> writeQueue(Pattern2Station& station)
{
    const QMutexLocker locker(&(station.writer().*privateMember(WriteQueueMutexTag())));
    std::vector<std::string> names;
    for (ZebDataBlockWriteRequest* const request :
         qAsConst(station.writer().*privateMember(WriteQueueTag()))) {
        const ZebDataBlock* const block = request->block();
        names.emplace_back(reinterpret_cast<const char*>(block->constData()),
                           static_cast<size_t>(block->size()));
    }
    return names;
}

// Calls `onFailure` on the writer's thread for each failed attempt, with the number of failures so
// far, this one included.
void onEachFailure(Pattern2Station& station, std::function<void(int, const QString&)> onFailure)
{
    auto failures = std::make_shared<int>(0);
    QObject::connect(&station.writer(), &ZebDataBlockWriteThread::writeError,
                     [failures, onFailure](const QString& text) { onFailure(++*failures, text); });
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

// Counts a request of the test's as one that has left the list for a worker.
void countAsTaken(Pattern2Station& station, const ZebDataBlockWriteRequest* request)
{
    const QWriteLocker locker(&(station.writer().*privateMember(WriterLockTag())));
    ++(station.writer().*privateMember(WriterTakenTag()));
    station.writer().*privateMember(WriterBytesTag()) += request->blockSize();
    (station.writer().*privateMember(WriterInProgressTag())).fetchAndAddOrdered(1);
}

qint64 payloadBytes(const std::string& name)
{
    return qCompress(QByteArray::fromStdString(name), 2).size();
}

} // namespace

// How a block passes

TEST(ZebDataBlockWriteThread_Pattern2, StartsItsWorkersAndEndsThemWithItself)
{
    {
        Pattern2Station station(3);
        EXPECT_EQ(station.writer().objectName(), "TDX Write");
        EXPECT_STREQ(station.writer().metaObject()->className(),
                     "ZebDataBlockWriteThread_Pattern2");
        EXPECT_EQ(station.writer().metaObject()->superClass(),
                  &ZebDataBlockWriteThread::staticMetaObject);
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

TEST(ZebDataBlockWriteThread_Pattern2, WritesTheSameFilesAsTheWriterWithoutWorkers)
{
    Pattern2Station station(2);
    const std::string names[] = {"a", "block", std::string(30000, 'x'), std::string(1, '\0')};
    qint64 payloads = 0;
    for (const std::string& name : names) {
        station.queue(name);
        payloads += payloadBytes(name);
    }
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(station.writer().requests(), 0);
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
    EXPECT_EQ(station.writer().requestsHandled(), 4);
    EXPECT_EQ(station.writer().bytesWritten(), payloads);
    for (const std::string& name : names) {
        EXPECT_EQ(BlockFiles::read(station.file(name)),
                  BlockFiles::fileOf(QByteArray::fromStdString(name)));
        EXPECT_TRUE(station.block(name).cached());
        EXPECT_EQ(station.hash(name)->refCount(), 1);
    }
    EXPECT_TRUE(station.messages().messages().isEmpty());
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

TEST(ZebDataBlockWriteThread_Pattern2, ACompressedBlockIsWrittenAsItIs)
{
    Pattern2Station station(1);
    const std::string name(30000, 'c');
    ASSERT_TRUE(station.block(name).compress(9));
    const QByteArray payload = station.block(name).*privateMember(BlockBytesTag());
    station.queue(name);
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(BlockFiles::read(station.file(name)), BlockFiles::fileBytes(30000, payload));
}

TEST(ZebDataBlockWriteThread_Pattern2, WritesBelowItsSubCache)
{
    Pattern2Station station(1);
    station.writer().setSubCache("sub");
    station.queue("below");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.file("below").startsWith(station.root() + "/sub/"));
    EXPECT_TRUE(station.hasFile("below"));
}

// With the delete lock held from the first step to the last, no other block can take the address of
// this one in between and be taken for it.
TEST(ZebDataBlockWriteThread_Pattern2, TellsTheManagerBeforeTheBlockEndsUnderOneHoldOfTheDeleteLock)
{
    for (const bool hasFile : {false, true}) {
        Pattern2Station station(1);
        if (hasFile)
            BlockFiles::write(station.file("finished"), QByteArray(13, 'q'));
        std::atomic<int> ended{0};
        std::atomic<bool> wasFlagged{true};
        std::atomic<bool> wasOpen{true};
        auto* const block = new EndingBlock("finished", [&](ZebDataBlock* self) {
            wasFlagged = StoreInside::beingWritten().contains(self);
            std::thread([&wasOpen] {
                wasOpen = StoreInside::deleteLock().tryLock();
                if (wasOpen)
                    StoreInside::deleteLock().unlock();
            }).join();
            ++ended;
        });
        StoreInside::manager().*privateMember(StoreBeingWrittenTag()) = {block};
        station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, station.hash("finished"),
                                    block, true);
        station.start();
        EXPECT_TRUE(station.drain());
        EXPECT_EQ(ended, 1);
        EXPECT_FALSE(wasFlagged);
        EXPECT_FALSE(wasOpen);
        EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
    }
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

TEST(ZebDataBlockWriteThread_Pattern2, AWrittenBlockIsNoLongerInProgressWhenTheManagerIsTold)
{
    Pattern2Station station(1);
    StoreInside::manager().*privateMember(StoreBeingWrittenTag()) = {&station.block("written")};
    station.queue("written");
    {
        // The manager is told with this lock taken.
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

TEST(ZebDataBlockWriteThread_Pattern2, AFoundFileReachesNoWorkerAndCountsNowhere)
{
    Pattern2Station station(1);
    const auto compressions = countCompressions(station);
    BlockFiles::write(station.file("present"), QByteArray(13, 'q'));
    station.queue("present");
    std::future<void> flush;
    {
        // The end of a request waits for this lock.
        const ZebDataDeleteLocker locker;
        station.start();
        EXPECT_TRUE(station.waitFor([&] { return station.block("present").cached(); }));
        EXPECT_TRUE(station.waitFor([&] { return station.writer().bytesInQueue() == 0; }));
        EXPECT_EQ(station.writer().requestsInProgress(), 0);
        flush = station.beginFlush();
        EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
    }
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_EQ(BlockFiles::read(station.file("present")), QByteArray(13, 'q'));
    EXPECT_EQ(*compressions, 0);
    EXPECT_EQ(station.writer().requestsHandled(), 0);
    EXPECT_EQ(station.writer().bytesWritten(), 0);
    EXPECT_EQ(station.hash("present")->refCount(), 1);
}

TEST(ZebDataBlockWriteThread_Pattern2, AFileOfTwelveBytesIsOverwrittenAndCounts)
{
    Pattern2Station station(1);
    BlockFiles::write(station.file("stump"), QByteArray(12, 'q'));
    station.queue("stump");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(BlockFiles::read(station.file("stump")), BlockFiles::fileOf("stump"));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    EXPECT_EQ(station.writer().bytesWritten(), payloadBytes("stump"));
}

// Failing writes

TEST(ZebDataBlockWriteThread_Pattern2, AFailedRequestGoesToTheTailOfTheWriteQueue)
{
    Pattern2Station station(1);
    FileInTheWay obstacle(station.bucket("stuck"));
    std::vector<std::vector<std::string>> queues;
    std::vector<int> waiting;
    std::vector<int> inProgress;
    std::vector<qint64> bytes;
    QSemaphore failedOnce;
    QSemaphore goOn;
    onEachFailure(station, [&](int failures, const QString&) {
        if (failures == 1) {
            failedOnce.release();
            EXPECT_TRUE(goOn.tryAcquire(1, s_DeadlineMs));
        }
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
    EXPECT_TRUE(station.waitFor([&] { return failedOnce.available() > 0; }));
    // The writer stands in its first failure; what comes back from a worker meanwhile is behind.
    auto* const request =
        new ZebDataBlockWriteRequest(station.hash("next"), &station.block("next"), false);
    request->setFileName(station.root(), QString(), WriterStation::s_Buckets);
    countAsTaken(station, request);
    station.writer().pushWrite(request);
    goOn.release();
    EXPECT_TRUE(station.drain());
    EXPECT_THAT(queues, ElementsAre(ElementsAre("stuck", "next"), ElementsAre("next", "stuck")));
    EXPECT_THAT(waiting, ElementsAre(0, 0)) << "the list does not see it again";
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
    onEachFailure(station, [&](int failures, const QString&) {
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

TEST(ZebDataBlockWriteThread_Pattern2, ABlockMakesItsDirectoryAgainWhenThatHasGone)
{
    Pattern2Station station(1);
    HeldWorker held(station, "block");
    int failures = 0;
    onEachFailure(station, [&](int count, const QString&) {
        failures = count;
        ASSERT_TRUE(QFile::remove(station.bucket("block")));
    });
    station.queue("block");
    station.start();
    EXPECT_TRUE(held.isHeld());
    ASSERT_TRUE(QDir(station.bucket("block")).removeRecursively());
    // Once there is a file in its place, and then nothing at all.
    BlockFiles::write(station.bucket("block"), "in the way");
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(BlockFiles::read(station.file("block")), BlockFiles::fileOf("block"));
}

TEST(ZebDataBlockWriteThread_Pattern2, EachFailedAttemptLogsAndTells)
{
    Pattern2Station station(1);
    FileInTheWay obstacle(station.bucket("stuck"));
    const QString expected =
        "Cannot Open File " + station.file("stuck") + " : '" + qt_error_string(ENOTDIR) + "'";
    QStringList told;
    bool inTheWritersThread = true;
    onEachFailure(station, [&](int failures, const QString& text) {
        told.append(text);
        inTheWritersThread = inTheWritersThread && QThread::currentThread() == &station.writer();
        if (failures == 5)
            obstacle.remove();
    });
    station.queue("stuck");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(told, QStringList({expected, expected, expected, expected, expected}));
    EXPECT_EQ(station.messages().debugLines(), told);
    EXPECT_TRUE(inTheWritersThread);
}

TEST(ZebDataBlockWriteThread_Pattern2, AnEmptyPayloadGoesOnToTheFileAndIsAFailureWithAnEmptyText)
{
    Pattern2Station station(1);
    station.block("empty").*privateMember(BlockBytesTag()) = QByteArray("");
    station.block("empty").*privateMember(BlockIsCompressedTag()) = true;
    QStringList told;
    onEachFailure(station, [&](int failures, const QString& text) {
        told.append(text);
        EXPECT_EQ(BlockFiles::read(station.file("empty")).size(), 12);
        // Nothing else would end it: a retry asks for no file.
        if (failures == 3) {
            const QMutexLocker locker(&(station.writer().*privateMember(WriteQueueMutexTag())));
            ZebDataBlockWriteRequest* const request =
                (station.writer().*privateMember(WriteQueueTag())).last();
            request->*privateMember(RequestPayloadTag()) = "payload";
        }
    });
    station.queue("empty");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(told, QStringList({QString(), QString(), QString()}));
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
    EXPECT_FALSE(
        waitUntil([&] { return Pattern2Inside::queued(station.writer()) > 0; }, s_HeldOffMs));
    EXPECT_FALSE(station.hasFile("block"));
    const std::unique_ptr<ZebDataBlockCompressionThread> worker(
        Pattern2Inside::makeWorker(station.writer()));
    worker->start();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.hasFile("block"));
}

TEST(ZebDataBlockWriteThread_Pattern2, TakesNoMoreInThanThereAreWorkers)
{
    Pattern2Station station(1);
    HeldWorker held(station, "held");
    station.queue("held");
    for (const char* const name : {"a", "b", "c"})
        station.queue(name);
    station.start();
    EXPECT_TRUE(held.isHeld());
    // One more stands before the workers' queue.
    EXPECT_TRUE(station.waitFor([&] { return station.writer().requests() == 2; }));
    EXPECT_FALSE(
        waitUntil([&] { return Pattern2Inside::queued(station.writer()) > 0; }, s_HeldOffMs));
    EXPECT_EQ(station.writer().requests(), 2);
    held.release();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(station.writer().requestsHandled(), 4);
}

namespace {

// Two writers with one worker each. The first one's worker has "held" in hand, and "lost" lies in
// its queue by the permit of the other one's worker: no wake will come for it.
class LostWake : public testing::Test
{
protected:
    LostWake()
        : m_Station(1), m_Other(std::make_unique<Pattern2Station>(1)), m_Held(m_Station, "held")
    {
        EXPECT_TRUE(Pattern2Inside::workersAreFree(2));
        m_Station.queue("held");
        m_Station.start();
        EXPECT_TRUE(m_Held.isHeld());
        m_Station.queue("lost");
        EXPECT_TRUE(
            m_Station.waitFor([this] { return Pattern2Inside::queued(m_Station.writer()) == 1; }));
        EXPECT_EQ(Pattern2Inside::freeWorkers(), 0);
    }

    Pattern2Station m_Station;
    std::unique_ptr<Pattern2Station> m_Other;
    HeldWorker m_Held;
};

} // namespace

TEST_F(LostWake, TheIdleWriterWakesItsWorkerAgain)
{
    m_Held.release();
    EXPECT_TRUE(m_Station.drain());
    EXPECT_TRUE(m_Station.hasFile("lost"));
}

TEST_F(LostWake, TheWriterAtAFenceWakesItsWorkerAgain)
{
    const std::future<void> flush = m_Station.beginFlush("lost");
    EXPECT_TRUE(m_Station.waitFor([this] { return m_Station.writer().requests() == 0; }));
    m_Held.release();
    EXPECT_TRUE(m_Station.waitFor(flush));
    EXPECT_TRUE(m_Station.hasFile("lost"));
}

TEST_F(LostWake, TheWriterThatWaitsForAPermitWakesItsWorkerAgain)
{
    m_Station.queue("next");
    EXPECT_TRUE(m_Station.waitFor([this] { return m_Station.writer().requestsInProgress() == 3; }));
    // With the other worker gone its permit is owed, and this one's next goes there.
    m_Other.reset();
    m_Held.release();
    EXPECT_TRUE(m_Station.drain());
    EXPECT_TRUE(m_Station.hasFile("lost"));
    EXPECT_TRUE(m_Station.hasFile("next"));
    EXPECT_TRUE(Pattern2Inside::workersAreFree(1));
}

// The end of the thread

TEST(ZebDataBlockWriteThread_Pattern2, AThreadThatIsAskedToEndBeforeItBeginsTouchesNothing)
{
    Pattern2Station station(1);
    station.queue("waiting");
    station.writer().closeDown();
    station.start();
    EXPECT_TRUE(station.writer().wait(s_DeadlineMs));
    EXPECT_THAT(station.list(), ElementsAre("1 waiting"));
    EXPECT_FALSE(station.hasFile("waiting"));
}

TEST(ZebDataBlockWriteThread_Pattern2, EndsOnlyWhenEverythingIsWritten)
{
    Pattern2Station station(2);
    HeldWorker held(station, "held");
    station.queue("held");
    station.queue("other");
    station.start();
    EXPECT_TRUE(held.isHeld());
    station.writer().closeDown();
    EXPECT_TRUE(station.writer().isRunning()) << "closing down does not wait";
    station.queue("late");
    held.release();
    EXPECT_TRUE(station.writer().wait(s_DeadlineMs));
    EXPECT_THAT(station.list(), IsEmpty());
    for (const char* const name : {"held", "other", "late"})
        EXPECT_TRUE(station.hasFile(name)) << name;
}

TEST(ZebDataBlockWriteThread_Pattern2, ClosingDownWakesTheThread)
{
    Pattern2Station station(1);
    EXPECT_TRUE(station.actionWakes([&] { station.writer().closeDown(); }, s_DeadlineMs));
}
