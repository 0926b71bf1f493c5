// What every form of writer must do: queue, write, retry and end. How callers wait for it is tested
// in WriterFlushConformanceTest.cpp.

#include "io/WriterForms.h"

#include "support/CountedBlock.h"
#include "support/EndingBlock.h"
#include "support/FilesBelow.h"
#include "support/IsFree.h"
#include "support/ResourceLimit.h"
#include "support/SequencePoints.h"

#include <QDir>
#include <QTemporaryDir>
#include <QThread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr int s_DeadlineMs = 20000;

template <typename Form>
class WriterConformance : public ::testing::Test
{};
TYPED_TEST_SUITE(WriterConformance, WriterForms, WriterFormNames);

template <typename Form>
class OrderedWriterConformance : public ::testing::Test
{};
TYPED_TEST_SUITE(OrderedWriterConformance, OrderedWriterForms, WriterFormNames);

} // namespace

// The thread and its queue

TYPED_TEST(WriterConformance, StartsWithNothingToDo)
{
    TypeParam station;
    const ZebDataBlockWriteThread& writer = station.writer();
    static_assert(std::is_abstract_v<ZebDataBlockWriteThread>);
    EXPECT_FALSE(writer.isRunning());
    EXPECT_TRUE(writer.subCache().isEmpty());
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_EQ(writer.bytesInQueue(), 0);
    EXPECT_EQ(writer.requestsHandled(), 0);
    EXPECT_EQ(writer.requestsInProgress(), 0);
    EXPECT_EQ(writer.bytesWritten(), 0);
}

TYPED_TEST(WriterConformance, HasAQtClassAndAThreadNameOfItsOwn)
{
    TypeParam station;
    EXPECT_EQ(station.writer().objectName(), "TDX Write");
    EXPECT_STREQ(station.writer().metaObject()->className(), TypeParam::s_ClassName);
    EXPECT_EQ(station.writer().metaObject()->superClass(),
              &ZebDataBlockWriteThread::staticMetaObject);
    EXPECT_STREQ(ZebDataBlockWriteThread::staticMetaObject.className(), "ZebDataBlockWriteThread");
}

TYPED_TEST(WriterConformance, QueuesByPriorityAndCountsTheLogicalBytes)
{
    TypeParam station;
    const std::string compressed = "compressed, so it stores fewer bytes than it has";
    station.queue("four", 1);
    station.queue("seven__", 2);
    station.queue("two", 0);
    ASSERT_TRUE(station.block(compressed).compress());
    station.queue(compressed, 1);
    station.queue("four", 1);
    EXPECT_THAT(station.list(),
                ElementsAre("0 two", "1 four", "1 " + compressed, "1 four", "2 seven__"));
    EXPECT_EQ(station.writer().requests(), 5);
    EXPECT_EQ(station.writer().bytesInQueue(), 4 + 7 + 3 + qint64(compressed.size()) + 4);
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
    EXPECT_EQ(station.hash("four")->refCount(), 3) << "the station's and those of two requests";
}

TYPED_TEST(WriterConformance, NewWorkWakesTheThread)
{
    TypeParam station;
    EXPECT_TRUE(station.actionWakes([&] { station.queue("work"); }));
}

TYPED_TEST(WriterConformance, ABlockThatHasAFileIsNotQueued)
{
    TypeParam station;
    BlockInside::cached(station.block("cached")) = true;
    EXPECT_FALSE(station.actionWakes([&] { station.queue("cached"); }));
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
    EXPECT_EQ(station.hash("cached")->refCount(), 1);
}

TYPED_TEST(WriterConformance, ABlockThatHasAFileIsDeletedAtOnceWhenTheWriterOwnsIt)
{
    TypeParam station;
    std::atomic<int> deleted{0};
    auto* const block = new CountedBlock(QByteArray("owned"), &deleted);
    BlockInside::cached(*block) = true;
    station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, station.hash("owned"), block,
                                true);
    EXPECT_EQ(deleted, 1);
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_EQ(station.writer().requestsHandled(), 0);
}

TYPED_TEST(WriterConformance, DoesNotDeleteTheRequestsThatAreQueuedAtItsEnd)
{
    const MessageCapture capture;
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("still queued"));
    std::atomic<int> deleted{0};
    auto* const block = new CountedBlock(QByteArray("still queued"), &deleted);
    ZebDataBlockWriteRequest* request = nullptr;
    {
        const auto writer = TypeParam::makeWriter("/nowhere", 10);
        writer->writeBlock(ZebDataBlockManager::PreloadNormal, hash, block, true);
        request = WriterInside::requests(*writer).valueAt(0);
    }
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(request->block(), block);
    EXPECT_EQ(hash->refCount(), 2);
    delete request;
    EXPECT_EQ(deleted, 1);
    EXPECT_EQ(hash->refCount(), 1);
}

// Writing

TYPED_TEST(WriterConformance, WritesWhatIsQueuedAndCountsIt)
{
    TypeParam station;
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
    EXPECT_EQ(station.writer().bytesWritten(), payloads) << "the payloads, without the headers";
    for (const std::string& name : names) {
        EXPECT_EQ(BlockFiles::read(station.file(name)),
                  BlockFiles::fileOf(QByteArray::fromStdString(name)));
        EXPECT_TRUE(station.block(name).cached());
        EXPECT_EQ(station.hash(name)->refCount(), 1);
    }
    EXPECT_TRUE(station.messages().messages().isEmpty());
}

TYPED_TEST(WriterConformance, WritesACompressedBlockAsItIs)
{
    TypeParam station;
    const std::string name(30000, 'c');
    ASSERT_TRUE(station.block(name).compress(9));
    const QByteArray payload = BlockInside::storedBytes(station.block(name));
    station.queue(name);
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(BlockFiles::read(station.file(name)), BlockFiles::fileBytes(30000, payload));
}

TYPED_TEST(WriterConformance, KeepsAFileOfThirteenBytes)
{
    TypeParam station;
    BlockFiles::write(station.file("present"), QByteArray(13, 'q'));
    station.queue("present");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(BlockFiles::read(station.file("present")), QByteArray(13, 'q'));
    EXPECT_TRUE(station.block("present").cached());
    EXPECT_EQ(station.writer().requestsHandled(), TypeParam::s_CountsFoundFiles ? 1 : 0);
    EXPECT_EQ(station.writer().bytesWritten(), 0);
    EXPECT_EQ(station.hash("present")->refCount(), 1);
}

TYPED_TEST(WriterConformance, OverwritesATruncatedFileOfTwelveBytes)
{
    TypeParam station;
    BlockFiles::write(station.file("truncated"), QByteArray(12, 'q'));
    station.queue("truncated");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(BlockFiles::read(station.file("truncated")), BlockFiles::fileOf("truncated"));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    EXPECT_EQ(station.writer().bytesWritten(), payloadBytes("truncated"));
}

// A writer with two workers may exchange neighbours.
TYPED_TEST(OrderedWriterConformance, WritesInTheOrderOfPriorityAndThenOfArrival)
{
    TypeParam station;
    std::vector<std::string> order;
    const auto queue = [&](const std::string& name, ZebDataBlockManager::PreloadPriority priority) {
        const auto note = [&order, name](ZebDataBlock*) {
            order.push_back(name);
        };
        station.writer().writeBlock(priority, station.hash(name),
                                    new EndingBlock(QByteArray::fromStdString(name), note), true);
    };
    queue("low", ZebDataBlockManager::PreloadLow);
    queue("first", ZebDataBlockManager::PreloadNormal);
    queue("second", ZebDataBlockManager::PreloadNormal);
    queue("high", ZebDataBlockManager::PreloadHigh);
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_THAT(order, ElementsAre("high", "first", "second", "low"));
}

TYPED_TEST(WriterConformance, WritesBelowItsSubCache)
{
    TypeParam station;
    station.writer().setSubCache("sub");
    EXPECT_EQ(station.writer().subCache(), "sub");
    station.queue("below");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.file("below").startsWith(station.root() + "/sub/"));
    EXPECT_TRUE(station.hasFile("below"));
    station.writer().setSubCache(QString());
    BlockInside::cached(station.block("below")) = false;
    station.queue("below");
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(filesBelow({station.root()}).size(), 2);
}

TYPED_TEST(WriterConformance, WritesBelowARootThatIsRelativeToTheWorkingDirectory)
{
    const MessageCapture capture;
    const QTemporaryDir directory;
    // The store belongs to the thread that asks for it first; that must not be the writer.
    ZebDataBlockManager::instance();
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(directory.path()));
    {
        const auto hash = ZebHashManager::instance().getHash(QByteArray("relative"));
        const auto writer = TypeParam::makeWriter("root", 10);
        writer->writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                           new ZebDataBlock(QByteArray("relative")), true);
        writer->start();
        writer->flush();
        writer->closeDown();
        EXPECT_TRUE(writer->wait(s_DeadlineMs));
        EXPECT_EQ(
            BlockFiles::read(BlockFiles::pathOf(*hash, directory.path() + "/root", QString(), 10)),
            BlockFiles::fileOf("relative"));
    }
    EXPECT_EQ(filesBelow({directory.path()}).size(), 1);
    EXPECT_TRUE(QDir::setCurrent(before));
}

// With the delete lock held from the first step to the last, no other block can take the address of
// this one in between and be mistaken for it.
TYPED_TEST(WriterConformance, NotifiesTheManagerAndDeletesTheBlockUnderOneHoldOfTheDeleteLock)
{
    for (const bool hasFile : {false, true}) {
        TypeParam station;
        if (hasFile)
            BlockFiles::write(station.file("finished"), QByteArray(13, 'q'));
        std::atomic<int> deleted{0};
        std::atomic<bool> wasFlagged{true};
        std::atomic<bool> wasFree{true};
        auto* const block = new EndingBlock("finished", [&](ZebDataBlock* self) {
            wasFlagged = StoreInside::beingWritten().contains(self);
            wasFree = isFree(StoreInside::deleteLock());
            ++deleted;
        });
        StoreInside::beingWrittenSet() = {block};
        station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, station.hash("finished"),
                                    block, true);
        station.start();
        EXPECT_TRUE(station.drain());
        EXPECT_EQ(deleted, 1);
        EXPECT_FALSE(wasFlagged);
        EXPECT_FALSE(wasFree);
        EXPECT_THAT(StoreInside::beingWritten(), IsEmpty());
        EXPECT_EQ(station.writer().requestsHandled(),
                  hasFile && !TypeParam::s_CountsFoundFiles ? 0 : 1);
        EXPECT_TRUE(isFree(StoreInside::deleteLock()));
    }
}

TYPED_TEST(WriterConformance, DoesNotDeleteABlockThatItDoesNotOwn)
{
    TypeParam station;
    std::atomic<int> deleted{0};
    {
        CountedBlock block(QByteArray("not owned"), &deleted);
        station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, station.hash("not owned"),
                                    &block, false);
        station.start();
        EXPECT_TRUE(station.drain());
        EXPECT_EQ(deleted, 0);
        EXPECT_TRUE(block.cached());
    }
    EXPECT_EQ(deleted, 1);
}

// Failing writes

TYPED_TEST(WriterConformance, LogsAndEmitsEachFailedAttemptOnItsOwnThread)
{
    TypeParam station;
    FileInTheWay obstacle(station.bucket("stuck"));
    const QString expected = cannotOpen(station, "stuck");
    QStringList emitted;
    bool onTheWritersThread = true;
    station.onEachFailure([&](int failures, const QString& text) {
        emitted.append(text);
        onTheWritersThread = onTheWritersThread && QThread::currentThread() == &station.writer();
        if (failures == 5)
            obstacle.remove();
    });
    station.queue("stuck");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(emitted, QStringList({expected, expected, expected, expected, expected}));
    EXPECT_EQ(station.messages().debugLines(), emitted);
    EXPECT_TRUE(onTheWritersThread);
}

TYPED_TEST(WriterConformance, RetriesOnAFullDiskUntilThereIsRoom)
{
    TypeParam station;
    const std::string name(50000, 'x');
    ASSERT_TRUE(station.block(name).compress(0));
    QStringList emitted;
    std::unique_ptr<ResourceLimit> full;
    station.onEachFailure([&](int failures, const QString& text) {
        emitted.append(text);
        if (failures == 4)
            full.reset();
    });
    station.queue(name);
    full = std::make_unique<ResourceLimit>(RLIMIT_FSIZE, 20000);
    station.start();
    const bool drained = station.drain();
    full.reset();
    EXPECT_TRUE(drained);
    ASSERT_EQ(emitted.size(), 4);
    EXPECT_TRUE(emitted.first().startsWith("Cannot Write to File " + station.file(name)));
    const QByteArray payload = BlockInside::storedBytes(station.block(name));
    EXPECT_EQ(BlockFiles::read(station.file(name)), BlockFiles::fileBytes(50000, payload));
    EXPECT_EQ(station.writer().requestsHandled(), 1);
}

// The end of the thread

TYPED_TEST(WriterConformance, AThreadThatIsAskedToEndBeforeItStartsLeavesItsList)
{
    TypeParam station;
    station.queue("waiting");
    station.writer().closeDown();
    station.start();
    EXPECT_TRUE(station.writer().wait(s_DeadlineMs));
    EXPECT_THAT(station.list(), ElementsAre("1 waiting"));
    EXPECT_FALSE(station.hasFile("waiting"));
}

TYPED_TEST(WriterConformance, EndsOnlyWhenItsListIsEmpty)
{
    TypeParam station;
    FileInTheWay obstacle(station.bucket("first"));
    SequencePoints points;
    station.onEachFailure([&](int failures, const QString&) {
        if (failures == 1)
            points.reachedThenWait("failed", "queued");
    });
    for (const char* const name : {"first", "second", "third"})
        station.queue(name);
    station.start();
    EXPECT_TRUE(station.waitFor([&] { return points.arrivals("failed") > 0; }));
    station.writer().closeDown();
    EXPECT_TRUE(station.writer().isRunning()) << "closeDown() does not wait";
    station.queue("late");
    obstacle.remove();
    points.reached("queued");
    EXPECT_TRUE(station.writer().wait(s_DeadlineMs));
    EXPECT_THAT(station.list(), IsEmpty());
    for (const char* const name : {"first", "second", "third", "late"})
        EXPECT_TRUE(station.hasFile(name)) << name;
}

TYPED_TEST(WriterConformance, ClosingDownWakesTheThread)
{
    TypeParam station;
    EXPECT_TRUE(station.actionWakes([&] { station.writer().closeDown(); }));
}
