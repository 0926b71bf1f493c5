// What all writers share: the queue, the counters, the finishing of a block, and the manager's
// side. How the one-thread writer waits, fails and ends stands in
// ZebDataBlockWriteThread_Pattern1Test.

#include "io/ZebDataBlockWriteThread.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/BlockFiles.h"
#include "support/EndingBlock.h"
#include "support/Fatal.h"
#include "support/MessageCapture.h"
#include "support/PrivateAccess.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"
#include "support/WriterStation.h"
#include "support/ZebDataDeleteLocker.h"

#include <QDirIterator>
#include <QSet>
#include <QVector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using BlockSetMember = QSet<ZebDataBlock*> ZebDataBlockManager::*;
using WritersMember = QVector<ZebDataBlockWriteThread*> ZebDataBlockManager::*;

ZEBTDX_ACCESS(BeingWrittenTag, ZebDataBlockManager, BlockSetMember, m_BlocksBeingWritten)
ZEBTDX_ACCESS(WritersTag, ZebDataBlockManager, WritersMember, m_WriteThreads)
ZEBTDX_ACCESS(DeleteMutexTag, ZebDataBlockManager, ZebTdxMutex ZebDataBlockManager::*,
              m_DeleteMutex)
ZEBTDX_ACCESS(NextFenceTag, ZebDataBlockWriteThread, int ZebDataBlockWriteThread::*, m_NextFenceId)

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int s_DeadlineMs = 20000;

// How long a wake that must not come is waited for.
constexpr int s_NoWakeMs = 100;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

const QVector<ZebDataBlockWriteThread*>& writers()
{
    return manager().*privateMember(WritersTag());
}

QSet<ZebDataBlock*>& beingWritten()
{
    return manager().*privateMember(BeingWrittenTag());
}

bool otherThreadGetsTheDeleteLock()
{
    ZebTdxMutex& mutex = manager().*privateMember(DeleteMutexTag());
    bool got = false;
    std::thread([&] {
        got = mutex.tryLock();
        if (got)
            mutex.unlock();
    }).join();
    return got;
}

int filesBelow(const QString& root)
{
    int count = 0;
    QDirIterator files(root, QDir::Files, QDirIterator::Subdirectories);
    for (; files.hasNext(); files.next())
        ++count;
    return count;
}

} // namespace

// The thread and its queue

TEST(ZebDataBlockWriteThread, StartsWithNothingToDo)
{
    WriterStation station;
    ZebDataBlockWriteThread& writer = station.writer();
    static_assert(std::is_abstract_v<ZebDataBlockWriteThread>);
    EXPECT_EQ(writer.objectName(), "TDX Write");
    EXPECT_STREQ(ZebDataBlockWriteThread::staticMetaObject.className(), "ZebDataBlockWriteThread");
    EXPECT_FALSE(writer.isRunning());
    EXPECT_TRUE(writer.subCache().isEmpty());
    EXPECT_EQ(writer.requests(), 0);
    EXPECT_EQ(writer.bytesInQueue(), 0);
    EXPECT_EQ(writer.requestsHandled(), 0);
    EXPECT_EQ(writer.requestsInProgress(), 0);
    EXPECT_EQ(writer.bytesWritten(), 0);
}

TEST(ZebDataBlockWriteThread, QueuesByPriorityAndCountsTheLogicalBytes)
{
    WriterStation station;
    station.queue("four", 1);
    station.queue("seven__", 2);
    station.queue("two", 0);
    ASSERT_TRUE(station.block("compressed, so it is shorter than it says").compress());
    station.queue("compressed, so it is shorter than it says", 1);
    station.queue("four", 1);
    EXPECT_THAT(station.list(),
                ElementsAre("0 two", "1 four", "1 compressed, so it is shorter than it says",
                            "1 four", "2 seven__"));
    EXPECT_EQ(station.writer().requests(), 5);
    EXPECT_EQ(station.writer().bytesInQueue(), 4 + 7 + 3 + 41 + 4);
    EXPECT_EQ(station.writer().requestsInProgress(), 0);
    EXPECT_EQ(station.hash("four")->refCount(), 3) << "one of the station's, two of requests";
}

TEST(ZebDataBlockWriteThread, NewWorkWakesTheThread)
{
    WriterStation station;
    EXPECT_TRUE(station.actionWakes([&] { station.queue("work"); }, s_DeadlineMs));
}

TEST(ZebDataBlockWriteThread, ABlockThatHasAFileIsNotQueued)
{
    WriterStation station;
    ZebDataBlock& block = station.block("cached");
    block.*privateMember(BlockCachedMarkTag()) = true;
    EXPECT_FALSE(station.actionWakes([&] { station.queue("cached"); }, s_NoWakeMs));
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_EQ(station.writer().bytesInQueue(), 0);
    EXPECT_EQ(station.hash("cached")->refCount(), 1);
}

TEST(ZebDataBlockWriteThread, ABlockThatHasAFileIsDeletedAtOnceWhenItWasHandedOver)
{
    WriterStation station;
    int ended = 0;
    auto* const block = new EndingBlock("handed over", [&](ZebDataBlock*) { ++ended; });
    block->*privateMember(BlockCachedMarkTag()) = true;
    station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, station.hash("handed over"),
                                block, true);
    EXPECT_EQ(ended, 1);
    EXPECT_THAT(station.list(), IsEmpty());
    EXPECT_EQ(station.writer().requestsHandled(), 0);
}

TEST(ZebDataBlockWriteThread, LeavesTheRequestsThatAreQueuedAtItsEnd)
{
    const MessageCapture capture;
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("left behind"));
    int ended = 0;
    auto* const block = new EndingBlock("left behind", [&](ZebDataBlock*) { ++ended; });
    ZebDataBlockWriteRequest* request = nullptr;
    {
        ZebDataBlockWriteThread_Pattern1 writer("/nowhere", 10, nullptr);
        writer.writeBlock(ZebDataBlockManager::PreloadNormal, hash, block, true);
        request = (writer.*privateMember(WriterListTag())).valueAt(0);
    }
    EXPECT_EQ(ended, 0);
    EXPECT_EQ(request->block(), block);
    EXPECT_EQ(hash->refCount(), 2);
    delete request;
    EXPECT_EQ(ended, 1);
    EXPECT_EQ(hash->refCount(), 1);
}

// Writing

TEST(ZebDataBlockWriteThread, WritesWhatIsQueuedAndCountsIt)
{
    WriterStation station;
    const std::string names[] = {"a", "block", std::string(30000, 'x'), std::string(1, '\0')};
    qint64 payloads = 0;
    for (const std::string& name : names) {
        station.queue(name);
        payloads += qCompress(QByteArray::fromStdString(name), 2).size();
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

TEST(ZebDataBlockWriteThread, KeepsAFileOfThirteenBytesAndCountsTheRequestAsHandled)
{
    WriterStation station;
    BlockFiles::write(station.file("present"), QByteArray(13, 'q'));
    BlockFiles::write(station.file("stump"), QByteArray(12, 'q'));
    station.queue("present");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(BlockFiles::read(station.file("present")), QByteArray(13, 'q'));
    EXPECT_TRUE(station.block("present").cached());
    EXPECT_EQ(station.writer().requestsHandled(), 1);
    EXPECT_EQ(station.writer().bytesWritten(), 0);
    station.queue("stump");
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(BlockFiles::read(station.file("stump")), BlockFiles::fileOf("stump"));
    EXPECT_EQ(station.writer().requestsHandled(), 2);
    EXPECT_EQ(station.writer().bytesWritten(), qCompress(QByteArray("stump"), 2).size());
}

TEST(ZebDataBlockWriteThread, WritesInTheOrderOfUrgencyAndThenOfArrival)
{
    WriterStation station;
    std::vector<std::string> order;
    const auto hand = [&](const std::string& name, ZebDataBlockManager::PreloadPriority priority) {
        const auto note = [&order, name](ZebDataBlock*) {
            order.push_back(name);
        };
        station.writer().writeBlock(priority, station.hash(name),
                                    new EndingBlock(QByteArray::fromStdString(name), note), true);
    };
    hand("low", ZebDataBlockManager::PreloadLow);
    hand("first", ZebDataBlockManager::PreloadNormal);
    hand("second", ZebDataBlockManager::PreloadNormal);
    hand("high", ZebDataBlockManager::PreloadHigh);
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_THAT(order, ElementsAre("high", "first", "second", "low"));
}

TEST(ZebDataBlockWriteThread, WritesBelowItsSubCache)
{
    WriterStation station;
    station.writer().setSubCache("sub");
    EXPECT_EQ(station.writer().subCache(), "sub");
    station.queue("below");
    station.start();
    EXPECT_TRUE(station.drain());
    EXPECT_TRUE(station.file("below").startsWith(station.root() + "/sub/"));
    EXPECT_TRUE(station.hasFile("below"));
    station.writer().setSubCache(QString());
    station.block("below").*privateMember(BlockCachedMarkTag()) = false;
    station.queue("below");
    EXPECT_TRUE(station.drain());
    EXPECT_EQ(filesBelow(station.root()), 2);
}

TEST(ZebDataBlockWriteThread, WritesBelowARootThatIsRelativeToTheWorkingDirectory)
{
    const MessageCapture capture;
    const QTemporaryDir directory;
    // The store belongs to the thread that asks for it first; that must not be the writer.
    manager();
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(directory.path()));
    {
        const auto hash = ZebHashManager::instance().getHash(QByteArray("relative"));
        ZebDataBlockWriteThread_Pattern1 writer("root", 10, nullptr);
        writer.writeBlock(ZebDataBlockManager::PreloadNormal, hash,
                          new ZebDataBlock(QByteArray("relative")), true);
        writer.start();
        writer.flush();
        writer.closeDown();
        writer.wait();
        EXPECT_EQ(
            BlockFiles::read(BlockFiles::pathOf(*hash, directory.path() + "/root", QString(), 10)),
            BlockFiles::fileOf("relative"));
    }
    EXPECT_EQ(filesBelow(directory.path()), 1);
    EXPECT_TRUE(QDir::setCurrent(before));
}

// With the delete lock held from the first step to the last, no other block can take the address of
// this one in between and be taken for it.
TEST(ZebDataBlockWriteThread, TellsTheManagerBeforeTheBlockEndsUnderOneHoldOfTheDeleteLock)
{
    for (const bool hasFile : {false, true}) {
        WriterStation station;
        if (hasFile)
            BlockFiles::write(station.file("finished"), QByteArray(13, 'q'));
        std::atomic<int> ended{0};
        std::atomic<bool> wasFlagged{true};
        std::atomic<bool> wasOpen{true};
        auto* const block = new EndingBlock("finished", [&](ZebDataBlock* self) {
            wasFlagged = beingWritten().contains(self);
            wasOpen = otherThreadGetsTheDeleteLock();
            ++ended;
        });
        beingWritten().insert(block);
        station.writer().writeBlock(ZebDataBlockManager::PreloadNormal, station.hash("finished"),
                                    block, true);
        station.start();
        EXPECT_TRUE(station.drain());
        EXPECT_EQ(ended, 1);
        EXPECT_FALSE(wasFlagged);
        EXPECT_FALSE(wasOpen);
        EXPECT_EQ(station.writer().requestsHandled(), 1);
        EXPECT_TRUE(otherThreadGetsTheDeleteLock());
    }
}

TEST(ZebDataBlockWriteThread, LeavesABlockThatWasNotHandedOver)
{
    WriterStation station;
    int ended = 0;
    {
        EndingBlock block("not handed over", [&](ZebDataBlock*) { ++ended; });
        station.writer().writeBlock(ZebDataBlockManager::PreloadNormal,
                                    station.hash("not handed over"), &block, false);
        station.start();
        EXPECT_TRUE(station.drain());
        EXPECT_EQ(ended, 0);
        EXPECT_TRUE(block.cached());
    }
    EXPECT_EQ(ended, 1);
}

// The manager's side

TEST(ZebDataBlockWriteThread, EveryWriterPassesAFenceForTheManager)
{
    TemporaryStore::Options options;
    options.m_Roots = 2;
    TemporaryStore store(options);
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("of one root only"));
    manager().flushWrite(hash);
    for (const ZebDataBlockWriteThread* const writer : writers()) {
        EXPECT_EQ(writer->*privateMember(NextFenceTag()), 1);
        EXPECT_EQ(writer->requests(), 0);
        EXPECT_EQ(writer->requestsHandled(), 0);
    }
    manager().flushWrite(ZebSmartPointer<ZebDataHash>());
    for (const ZebDataBlockWriteThread* const writer : writers())
        EXPECT_EQ(writer->*privateMember(NextFenceTag()), 1) << "a null hash makes no fence";
}

TEST(ZebDataBlockWriteThread, WaitingForAWriteNeedsTheStore)
{
    EXPECT_FATAL(manager().flushWrite(ZebSmartPointer<ZebDataHash>()),
                 "Data Block Manager Not Initialized. Aborting");
}

TEST(ZebDataBlockWriteThread, AFailureReachesTheHostInTheManagersThread)
{
    ASSERT_EQ(manager().thread(), QThread::currentThread());
    TemporaryStore::Options options;
    options.m_Buckets = 1;
    TemporaryStore store(options);
    const QByteArray content("cannot be written yet");
    const ZebDataHash hash(content, ZebDataHash::Hash512);
    const QString expected = "Cannot Open File " +
                             BlockFiles::pathOf(hash, store.roots()[0], QString(), 1) + " : '" +
                             qt_error_string(ENOTDIR) + "'";
    FileInTheWay obstacle(BlockFiles::bucketOf(hash, store.roots()[0], QString(), 1));
    int received = 0;
    QObject receiver;
    QObject::connect(&manager(), &ZebDataBlockManager::writeError, &receiver,
                     [&](const QString& message) {
                         ++received;
                         EXPECT_EQ(message, expected);
                         EXPECT_EQ(QThread::currentThread(), manager().thread());
                         // Now, as each further attempt would queue one more message.
                         obstacle.remove();
                     });
    const ZebDataReference reference = manager().addBlock(content, ZebModifyAccessor::Cached, true);
    EXPECT_EQ(received, 0) << "only the event loop brings it";
    EXPECT_TRUE(waitUntil([&] { return received > 0; }));
    EXPECT_TRUE(store.messages().contains(expected));
    manager().flush();
    EXPECT_TRUE(QFile::exists(manager().getBlockDestination(QString(), reference.hash())));
}

TEST(ZebDataBlockWriteThread, EveryBlockOfFourRootsCanBeReadBackFromItsRoot)
{
    constexpr int count = 10000;
    TemporaryStore::Options options;
    options.m_Roots = 4;
    TemporaryStore store(options);
    const auto content = [](int number) {
        return "four roots " + QByteArray::number(number);
    };
    std::vector<ZebDataReference> references;
    for (int i = 0; i < count; ++i)
        references.push_back(manager().addBlock(content(i), ZebModifyAccessor::Cached, true));
    manager().flush(false, ZebDataBlockManager::WriteThreads);
    manager().freeAllBlocks();
    EXPECT_EQ(manager().liveBytes(), 0);
    int handled = 0;
    for (int root = 0; root < 4; ++root) {
        EXPECT_EQ(filesBelow(store.roots()[root]), writers()[root]->requestsHandled());
        EXPECT_GT(writers()[root]->requestsHandled(), count / 8);
        handled += writers()[root]->requestsHandled();
    }
    EXPECT_EQ(handled, count);
    for (int i = 0; i < count; ++i) {
        const QByteArray expected = content(i);
        int digits = 0;
        for (const QChar digit : references[static_cast<size_t>(i)].hash().left(4))
            digits += digit.digitValue();
        const ZebSmartPointer<ZebDataHash> hash = references[static_cast<size_t>(i)].hashPtr();
        ASSERT_TRUE(QFile::exists(
            BlockFiles::pathOf(*hash, store.roots()[digits % 4], QString(), options.m_Buckets)));
        const ZebConstAccessor accessor = references[static_cast<size_t>(i)].constAccessor();
        ASSERT_FALSE(accessor.isNull()) << i;
        ASSERT_EQ(QByteArray(reinterpret_cast<const char*>(accessor.data()),
                             static_cast<int>(accessor.size())),
                  expected);
    }
}
