#include "io/ZebDataBlockWriteThread_Pattern1.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/PrivateAccess.h"
#include "support/ResourceLimit.h"
#include "support/WaitUntil.h"
#include "support/WriterStation.h"
#include "support/ZebDataDeleteLocker.h"

#include <QSemaphore>
#include <QSet>
#include <QThread>
#include <QVector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

ZEBTDX_ACCESS(NextFenceTag, ZebDataBlockWriteThread, int ZebDataBlockWriteThread::*, m_NextFenceId)
ZEBTDX_ACCESS(FencesReachedTag, ZebDataBlockWriteThread, QSet<int> ZebDataBlockWriteThread::*,
              m_FencesReached)
ZEBTDX_ACCESS(FreeFencesTag, ZebDataBlockWriteThread, QVector<int> ZebDataBlockWriteThread::*,
              m_FreeFenceIds)
ZEBTDX_ACCESS(BlockBytesTag, ZebDataBlock, QByteArray ZebDataBlock::*, m_Data)
ZEBTDX_ACCESS(BlockIsCompressedTag, ZebDataBlock, bool ZebDataBlock::*, m_Compressed)

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr int s_DeadlineMs = 20000;

// How long something that must not happen is waited for.
constexpr int s_HeldOffMs = 100;

int nextFence(WriterStation& station)
{
    return station.writer().*privateMember(NextFenceTag());
}

QVector<int>& freeFences(WriterStation& station)
{
    return station.writer().*privateMember(FreeFencesTag());
}

// Waits until the list is as long as that, with the thread left alone.
bool hasEntries(WriterStation& station, size_t count)
{
    return waitUntil([&] { return station.list().size() == count; });
}

// Calls `onFailure` on the writer's thread for each failed attempt, with the number of failures so
// far, this one included.
void onEachFailure(WriterStation& station, std::function<void(int, const QString&)> onFailure)
{
    auto failures = std::make_shared<int>(0);
    QObject::connect(&station.writer(), &ZebDataBlockWriteThread::writeError,
                     [failures, onFailure](const QString& text) { onFailure(++*failures, text); });
}

QString cannotOpen(WriterStation& station, const std::string& name)
{
    return "Cannot Open File " + station.file(name) + " : '" + qt_error_string(ENOTDIR) + "'";
}

} // namespace

// flush(hash): the list

TEST(ZebDataBlockWriteThread_Pattern1, FlushOfANullHashReturnsAtOnceWithoutAFence)
{
    WriterStation station;
    station.queue("waiting");
    // Nobody would ever pass a fence of this writer, which is not started.
    station.writer().flush(ZebSmartPointer<ZebDataHash>());
    EXPECT_THAT(station.list(), ElementsAre("1 waiting"));
    EXPECT_EQ(nextFence(station), 0);
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushMovesTheFirstRequestAboveZeroAndPutsAFenceBehindZero)
{
    WriterStation station;
    for (const char* const name : {"a", "b", "wanted", "c"})
        station.queue(name, 1);
    station.queue("wanted", 2);
    station.queue("urgent", 0);
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(hasEntries(station, 7));
    EXPECT_THAT(station.list(),
                ElementsAre("0 urgent", "0 wanted", "0 fence 0", "1 a", "1 b", "1 c", "2 wanted"));
    EXPECT_EQ(station.writer().bytesInQueue(), 1 + 1 + 6 + 1 + 6 + 6);
    EXPECT_FALSE(station.isReady(flush));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("wanted"));
}

TEST(ZebDataBlockWriteThread_Pattern1, ARequestAtPriorityZeroStaysWhereItIs)
{
    WriterStation station;
    station.queue("wanted", 0);
    station.queue("urgent", 0);
    station.queue("other", 1);
    station.queue("wanted", 1);
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(hasEntries(station, 5));
    EXPECT_THAT(station.list(),
                ElementsAre("0 wanted", "0 urgent", "0 wanted", "0 fence 0", "1 other"));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushLooksForThisHashAndNotForOneOfEqualContent)
{
    WriterStation station;
    station.queue("other");
    station.queue("twin");
    const ZebSmartPointer<ZebDataHash> twin(new ZebDataHash(*station.hash("twin")));
    ASSERT_EQ(*twin, *station.hash("twin"));
    const std::future<void> flush =
        std::async(std::launch::async, [&] { station.writer().flush(twin); });
    EXPECT_TRUE(hasEntries(station, 3));
    EXPECT_THAT(station.list(), ElementsAre("0 fence 0", "1 other", "1 twin"));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushWithoutARequestWaitsForItsFenceAllTheSame)
{
    WriterStation station;
    const std::future<void> flush = station.beginFlush("never queued");
    EXPECT_TRUE(hasEntries(station, 1));
    EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
    station.start();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_THAT(station.list(), IsEmpty());
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushGivesTheThreadNoWake)
{
    WriterStation station;
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

// flush(hash): the numbers of fences

TEST(ZebDataBlockWriteThread_Pattern1, TakesTheNumberGivenBackLastAndANewOneWhenThereIsNone)
{
    WriterStation station;
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
    EXPECT_TRUE((station.writer().*privateMember(FencesReachedTag())).isEmpty());
    EXPECT_THAT(freeFences(station), UnorderedElementsAre(3, 5, 9, 10));
    station.stop();

    // What was given back last is taken first.
    const int last = freeFences(station).last();
    WriterList& list = station.writer().*privateMember(WriterListTag());
    const std::future<void> again = station.beginFlush("wanted");
    EXPECT_TRUE(hasEntries(station, 1));
    EXPECT_EQ(list.valueAt(0)->fence(), last);
    (station.writer().*privateMember(FencesReachedTag())).insert(last);
    EXPECT_TRUE(waitUntil([&] { return station.isReady(again); }));
    EXPECT_EQ(freeFences(station).last(), last);
}

TEST(ZebDataBlockWriteThread_Pattern1, NeedsNoMoreNumbersThanThereAreFlushesAtOneTime)
{
    constexpr int threads = 4;
    WriterStation station;
    station.start();
    const SleeplessWriter sleepless(station);
    std::atomic<int> missing{0};
    std::vector<std::thread> flushers;
    for (int thread = 0; thread < threads; ++thread) {
        flushers.emplace_back([&station, &missing, thread] {
            for (int round = 0; round < 15; ++round) {
                const QByteArray content =
                    QByteArray::number(thread) + " " + QByteArray::number(round);
                const auto hash = ZebHashManager::instance().getHash(content);
                station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                                            new ZebDataBlock(content), true);
                station.writer().flush(hash);
                if (!QFile::exists(BlockFiles::pathOf(*hash, station.root(), QString(),
                                                      WriterStation::s_Buckets)))
                    ++missing;
            }
        });
    }
    for (std::thread& flusher : flushers)
        flusher.join();
    EXPECT_EQ(missing, 0);
    EXPECT_GE(nextFence(station), 1);
    EXPECT_LE(nextFence(station), threads);
    EXPECT_EQ(freeFences(station).size(), nextFence(station));
    EXPECT_EQ(station.writer().requestsHandled(), threads * 15) << "fences are not counted";
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
}

// flush(hash): what it waits for

TEST(ZebDataBlockWriteThread_Pattern1, FlushWaitsForItsBlockAndNotForOthers)
{
    WriterStation station;
    FileInTheWay obstacle(station.bucket("stuck"));
    station.queue("stuck");
    station.queue("wanted");
    station.queue("later", 2);
    station.start();
    const std::future<void> flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("wanted"));
    EXPECT_FALSE(station.hasFile("stuck"));
    EXPECT_FALSE(station.hasFile("later"));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    // The writer would try for ever.
    obstacle.remove();
    EXPECT_TRUE(station.drain());
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushWaitsForTheBlockInHand)
{
    WriterStation station;
    station.queue("in hand");
    std::future<void> flush;
    {
        // The writer cannot finish a block meanwhile.
        const ZebDataDeleteLocker locker;
        station.start();
        EXPECT_TRUE(station.waitFor([&] { return station.hasFile("in hand"); }));
        EXPECT_EQ(station.writer().requestsInProgress(), 1);
        flush = station.beginFlush("in hand");
        EXPECT_TRUE(hasEntries(station, 1));
        EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
        EXPECT_EQ(station.writer().requestsHandled(), 0);
    }
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushOfABlockThatCannotBeWrittenPassesItsFence)
{
    WriterStation station;
    FileInTheWay obstacle(station.bucket("stuck"));
    station.queue("stuck");
    station.start();
    EXPECT_TRUE(station.waitFor(station.beginFlush("stuck")));
    EXPECT_FALSE(station.hasFile("stuck"));
    EXPECT_FALSE(station.block("stuck").cached());
    EXPECT_EQ(station.writer().requestsHandled(), 0);
    obstacle.remove();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.hasFile("stuck"));
}

// Failing writes

TEST(ZebDataBlockWriteThread_Pattern1, AFailedRequestGoesBehindItsEqualsAtItsOldPriority)
{
    WriterStation station;
    FileInTheWay obstacle(station.bucket("stuck"));
    station.queue("stuck", 1);
    station.queue("b", 1);
    station.queue("c", 1);
    station.queue("late", 2);
    const qint64 queued = station.writer().bytesInQueue();
    std::vector<std::vector<std::string>> lists;
    std::vector<qint64> bytes;
    std::vector<int> inProgress;
    onEachFailure(station, [&](int failures, const QString&) {
        lists.push_back(station.list());
        bytes.push_back(station.writer().bytesInQueue());
        inProgress.push_back(station.writer().requestsInProgress());
        if (failures == 3)
            obstacle.remove();
    });
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_THAT(lists,
                ElementsAre(ElementsAre("1 b", "1 c", "1 stuck", "2 late"),
                            ElementsAre("1 stuck", "2 late"), ElementsAre("1 stuck", "2 late")));
    // It counts as waiting again, and as in progress until its attempt is over.
    EXPECT_THAT(bytes, ElementsAre(queued, queued - 2, queued - 2));
    EXPECT_THAT(inProgress, ElementsAre(1, 1, 1));
    EXPECT_EQ(station.writer().requestsHandled(), 4);
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
    EXPECT_EQ(station.writer().bytesWritten(),
              qCompress("stuck", 2).size() + qCompress("b", 2).size() + qCompress("c", 2).size() +
                  qCompress("late", 2).size());
}

TEST(ZebDataBlockWriteThread_Pattern1, EachFailedAttemptLogsAndTells)
{
    WriterStation station;
    FileInTheWay obstacle(station.bucket("stuck"));
    const QString expected = cannotOpen(station, "stuck");
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

TEST(ZebDataBlockWriteThread_Pattern1, AFullDiskIsTriedUntilThereIsRoom)
{
    WriterStation station;
    const std::string name(50000, 'x');
    ASSERT_TRUE(station.block(name).compress(0));
    QStringList told;
    std::unique_ptr<ResourceLimit> full;
    onEachFailure(station, [&](int failures, const QString& text) {
        told.append(text);
        if (failures == 4)
            full.reset();
    });
    station.queue(name);
    full = std::make_unique<ResourceLimit>(RLIMIT_FSIZE, 20000);
    station.start();
    const bool drained = station.drain();
    full.reset();
    EXPECT_TRUE(drained);
    ASSERT_EQ(told.size(), 4);
    EXPECT_TRUE(told.first().startsWith("Cannot Write to File " + station.file(name)));
    const QByteArray payload = station.block(name).*privateMember(BlockBytesTag());
    EXPECT_EQ(BlockFiles::read(station.file(name)), BlockFiles::fileBytes(50000, payload));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

TEST(ZebDataBlockWriteThread_Pattern1, AnEmptyPayloadIsAFailureWithAnEmptyText)
{
    WriterStation station;
    station.block("empty").*privateMember(BlockBytesTag()) = QByteArray("");
    station.block("empty").*privateMember(BlockIsCompressedTag()) = true;
    QStringList told;
    onEachFailure(station, [&](int failures, const QString& text) {
        told.append(text);
        EXPECT_EQ(BlockFiles::read(station.file("empty")).size(), 12);
        // The next attempt finds a file and ends the request.
        if (failures == 2)
            BlockFiles::write(station.file("empty"), QByteArray(13, 'q'));
    });
    station.queue("empty");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(told, QStringList({QString(), QString()}));
    EXPECT_TRUE(station.block("empty").cached());
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    EXPECT_EQ(station.writer().bytesWritten(), 0);
}

// flush()

TEST(ZebDataBlockWriteThread_Pattern1, FlushReturnsWhenNothingWaits)
{
    WriterStation station;
    station.writer().flush();
    EXPECT_EQ(station.writer().requests(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushWaitsUntilTheFaultIsGone)
{
    WriterStation station;
    FileInTheWay obstacle(station.bucket("stuck"));
    std::atomic<int> attempts{0};
    onEachFailure(station, [&](int failures, const QString&) { attempts = failures; });
    station.queue("stuck");
    station.start();
    const std::future<void> flush = station.beginFlush();
    EXPECT_TRUE(station.waitFor([&] { return attempts > 20; }));
    EXPECT_FALSE(station.isReady(flush));
    obstacle.remove();
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.block("stuck").cached());
    EXPECT_EQ(station.writer().requests(), 0);
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
}

TEST(ZebDataBlockWriteThread_Pattern1, FlushWaitsForWhatHasLeftTheListAndStillExists)
{
    // A fence never counts as in progress, so it is the mark beside the counters that shows it.
    for (const bool isFence : {false, true}) {
        WriterStation station;
        std::future<void> fence;
        if (isFence)
            fence = station.beginFlush("in hand");
        else
            station.queue("in hand");
        EXPECT_TRUE(hasEntries(station, 1));
        std::future<void> flush;
        {
            // The end of a request waits for this lock.
            const ZebDataDeleteLocker locker;
            station.start();
            EXPECT_TRUE(station.waitFor([&] { return station.writer().requests() == 0; }));
            flush = station.beginFlush();
            EXPECT_FALSE(waitUntil([&] { return station.isReady(flush); }, s_HeldOffMs));
            EXPECT_EQ(station.writer().requestsInProgress(), isFence ? 0 : 1);
        }
        EXPECT_TRUE(station.waitFor(flush));
        if (isFence) {
            EXPECT_TRUE(station.waitFor(fence));
        }
        EXPECT_EQ(station.writer().requestsHandled(), isFence ? 0 : 1);
    }
}

// Between the list and the counters lies a moment that only many tries can meet. The file is there
// from the first try on, so that a try is short and the moment frequent.
TEST(ZebDataBlockWriteThread_Pattern1, FlushNeverReturnsEarly)
{
    constexpr int threads = 3;
    constexpr int rounds = 3000;
    WriterStation station;
    std::atomic<int> unwritten{0};
    std::atomic<int> unfinished{0};
    const auto hammer = [&](const QByteArray& content) {
        const auto hash = ZebHashManager::instance().getHash(content);
        // None ends before the writer has, whatever flush() does.
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (int round = 0; round < rounds; ++round) {
            blocks.push_back(std::make_unique<ZebDataBlock>(content));
            station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                                        blocks.back().get(), false);
            station.writer().flush();
            unwritten += blocks.back()->cached() ? 0 : 1;
            unfinished += hash->refCount() == 1 ? 0 : 1;
        }
        station.writer().flush(hash);
    };
    station.start();
    {
        const SleeplessWriter sleepless(station);
        std::vector<std::thread> hosts;
        for (int thread = 0; thread < threads; ++thread)
            hosts.emplace_back(
                [&hammer, thread] { hammer("hammer " + QByteArray::number(thread)); });
        for (std::thread& host : hosts)
            host.join();
    }
    EXPECT_EQ(unwritten, 0);
    EXPECT_EQ(unfinished, 0) << "a request still existed";
    EXPECT_EQ(station.writer().requestsHandled(), threads * rounds);
}

// The end of the thread

TEST(ZebDataBlockWriteThread_Pattern1, AThreadThatIsAskedToEndBeforeItBeginsTouchesNothing)
{
    WriterStation station;
    station.queue("waiting");
    station.writer().closeDown();
    station.start();
    EXPECT_TRUE(station.writer().wait(s_DeadlineMs));
    EXPECT_THAT(station.list(), ElementsAre("1 waiting"));
    EXPECT_FALSE(station.hasFile("waiting"));
}

TEST(ZebDataBlockWriteThread_Pattern1, EndsOnlyWhenItsListHasRunEmpty)
{
    WriterStation station;
    FileInTheWay obstacle(station.bucket("first"));
    QSemaphore failed;
    QSemaphore goOn;
    onEachFailure(station, [&](int failures, const QString&) {
        if (failures == 1) {
            failed.release();
            EXPECT_TRUE(goOn.tryAcquire(1, s_DeadlineMs));
        }
    });
    for (const char* const name : {"first", "second", "third"})
        station.queue(name);
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return failed.available() > 0; }));
    station.writer().closeDown();
    EXPECT_TRUE(station.writer().isRunning()) << "closing down does not wait";
    station.queue("late");
    obstacle.remove();
    goOn.release();
    EXPECT_TRUE(station.writer().wait(s_DeadlineMs));
    EXPECT_THAT(station.list(), IsEmpty());
    for (const char* const name : {"first", "second", "third", "late"})
        EXPECT_TRUE(station.hasFile(name)) << name;
}

TEST(ZebDataBlockWriteThread_Pattern1, ClosingDownWakesTheThread)
{
    WriterStation station;
    EXPECT_TRUE(station.actionWakes([&] { station.writer().closeDown(); }, s_DeadlineMs));
}

TEST(ZebDataBlockWriteThread_Pattern1, IsAKindOfItsOwnForQt)
{
    WriterStation station;
    EXPECT_STREQ(station.writer().metaObject()->className(), "ZebDataBlockWriteThread_Pattern1");
    EXPECT_EQ(station.writer().metaObject()->superClass(),
              &ZebDataBlockWriteThread::staticMetaObject);
    EXPECT_EQ(station.writer().objectName(), "TDX Write");
}
