// What is special to the writer without workers. What it shares with the other forms is tested in
// WriterConformanceTest.cpp and WriterFlushConformanceTest.cpp.

#include "io/ZebDataBlockWriteThread_Pattern1.h"

#include "io/WriterForms.h"
#include "support/ZebDataDeleteLocker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using ::testing::ElementsAre;

// What flush(hash) waits for

TEST(ZebDataBlockWriteThread_Pattern1, FlushWaitsForItsBlockAndNotForOthers)
{
    WriterStation station;
    FileInTheWay obstacle(station.bucket("stuck"));
    station.queue("stuck");
    station.queue("wanted");
    station.queue("later", 2);
    station.start();
    const auto flush = station.beginFlush("wanted");
    EXPECT_TRUE(station.waitFor(flush));
    EXPECT_TRUE(station.hasFile("wanted"));
    EXPECT_FALSE(station.hasFile("stuck"));
    EXPECT_FALSE(station.hasFile("later"));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    // Until then the writer retries "stuck" and never reaches "later".
    obstacle.remove();
    EXPECT_TRUE(station.drain());
}

TEST(ZebDataBlockWriteThread_Pattern1, ABlockIsInProgressAndNotHandledUntilItsRequestHasEnded)
{
    WriterStation station;
    station.queue("taken");
    {
        // The end of a request requires this lock.
        const ZebDataDeleteLocker locker;
        station.start();
        EXPECT_TRUE(station.waitFor([&] { return station.block("taken").cached(); }));
        EXPECT_TRUE(station.watch().waitsFor(StoreInside::deleteLock()));
        EXPECT_TRUE(station.hasFile("taken"));
        EXPECT_EQ(station.writer().bytesInQueue(), 0);
        EXPECT_EQ(station.writer().requestsInProgress(), 1);
        EXPECT_EQ(station.writer().requestsHandled(), 0);
    }
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
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

TEST(ZebDataBlockWriteThread_Pattern1, AFailedRequestReturnsToTheListAfterOthersOfItsPriority)
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
    station.onEachFailure([&](int failures, const QString&) {
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
              payloadBytes("stuck") + payloadBytes("b") + payloadBytes("c") + payloadBytes("late"));
}

TEST(ZebDataBlockWriteThread_Pattern1, AnEmptyPayloadFailsWithAnEmptyTextUntilAFileIsFound)
{
    WriterStation station;
    emptyPayload(station, "empty");
    QStringList emitted;
    station.onEachFailure([&](int failures, const QString& text) {
        emitted.append(text);
        EXPECT_EQ(BlockFiles::read(station.file("empty")).size(), 12);
        // The next attempt finds a file and ends the request.
        if (failures == 2)
            BlockFiles::write(station.file("empty"), QByteArray(13, 'q'));
    });
    station.queue("empty");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(emitted, QStringList({QString(), QString()}));
    EXPECT_TRUE(station.block("empty").cached());
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    EXPECT_EQ(station.writer().bytesWritten(), 0);
}
