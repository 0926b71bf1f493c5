// What one load of a block does, on whatever thread it is called.

#include "io/ZebDataBlockReadThread.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "manager/ZebDataBlockManager.h"
#include "support/BlockFiles.h"
#include "support/FlushProbe.h"
#include "support/PrivateAccess.h"
#include "support/TemporaryStore.h"
#include "support/WaitUntil.h"
#include "support/ZebDataDeleteLocker.h"

#include <QFileInfo>
#include <QSemaphore>
#include <QThreadPool>
#include <QVector>
#include <QtEndian>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

using WritersMember = QVector<ZebDataBlockWriteThread*> ZebDataBlockManager::*;

using DecompressTask = ZebDataBlock* (*)(QByteArray, const ZebSmartPointer<ZebDataHash>&, bool,
                                         qint64);

ZEBTDX_ACCESS(TaskTag, ZebDataBlockReadThread, DecompressTask, decompressAndMakeBlock)
ZEBTDX_ACCESS(WritersTag, ZebDataBlockManager, WritersMember, m_WriteThreads)
ZEBTDX_ACCESS(WriterConditionTag, ZebDataBlockWriteThread,
              QWaitCondition ZebDataBlockWriteThread::*, m_WaitCondition)

namespace {

using BlockFiles::text;
using Load = QFuture<ZebDataBlock*>;

constexpr int s_Buckets = 10;
constexpr int s_DeadlineMs = 20000;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

QVector<ZebDataBlockWriteThread*>& writers()
{
    return manager().*privateMember(WritersTag());
}

QByteArray bytesOf(const ZebDataBlock& block)
{
    return {reinterpret_cast<const char*>(block.constData()), static_cast<int>(block.size())};
}

QByteArray bytesOf(const ZebConstAccessor& accessor)
{
    return {reinterpret_cast<const char*>(accessor.data()), static_cast<int>(accessor.size())};
}

// A header that promises `length` bytes, and some other number of them behind it.
QByteArray fileWithLength(qint32 length, int present)
{
    QByteArray bytes = BlockFiles::fileBytes(1000, QByteArray(present, 'p'));
    qToLittleEndian<qint32>(length, bytes.data() + 8);
    return bytes;
}

bool isReady(const std::future<void>& call)
{
    return call.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

// A store with a reader that is not started, for the file of one content that the store does not
// know. The store's writers are out of the way unless a test asks for them.
class LoadStation
{
public:
    explicit LoadStation(const QByteArray& content = text(50))
        : m_Hash(ZebHashManager::instance().getHash(content)),
          m_Reader(m_Store.roots().first(), s_Buckets, 50, nullptr)
    {
        m_Store.messages().clear();
    }

    TemporaryStore& store() { return m_Store; }
    FlushProbe& probe() { return m_Probe; }
    ZebDataBlockReadThread& reader() { return m_Reader; }
    const ZebSmartPointer<ZebDataHash>& hash() const { return m_Hash; }

    QString file() const
    {
        return BlockFiles::pathOf(*m_Hash, m_Store.roots().first(), m_Reader.subCache(), s_Buckets);
    }
    QString bucket() const
    {
        return BlockFiles::bucketOf(*m_Hash, m_Store.roots().first(), m_Reader.subCache(),
                                    s_Buckets);
    }
    void write(const QByteArray& bytes) const { BlockFiles::write(file(), bytes); }

    Load load(bool makeLive = false)
    {
        Load future = m_Reader.loadBlock(m_Hash, makeLive);
        future.waitForFinished();
        return future;
    }

    // The block that a load without makeLive gives; null when it fails.
    std::unique_ptr<ZebDataBlock> loaded()
    {
        const Load future = load();
        return std::unique_ptr<ZebDataBlock>(future.resultCount() == 0 ? nullptr : future.result());
    }

    QString cannotRead() const { return "Cannot read data from file '" + file() + "'"; }

private:
    TemporaryStore m_Store;
    FlushProbe m_Probe;
    ZebSmartPointer<ZebDataHash> m_Hash;
    ZebDataBlockReadThread m_Reader;
};

// Sets the number of threads of Qt's global pool for the length of a scope.
class GlobalPoolSize
{
public:
    explicit GlobalPoolSize(int threads) : m_Before(QThreadPool::globalInstance()->maxThreadCount())
    {
        QThreadPool::globalInstance()->setMaxThreadCount(threads);
    }
    ~GlobalPoolSize() { QThreadPool::globalInstance()->setMaxThreadCount(m_Before); }
    GlobalPoolSize(const GlobalPoolSize&) = delete;
    GlobalPoolSize& operator=(const GlobalPoolSize&) = delete;

private:
    int m_Before;
};

} // namespace

// The task on the pool

TEST(ZebDataBlockReadThread_Load, TheTaskMakesTheBlockFromTheBytesAndNotByTheSize)
{
    LoadStation station;
    const auto task = privateMember(TaskTag());
    station.hash()->setPreloading(true);
    const std::unique_ptr<ZebDataBlock> block(
        task(qCompress(text(50), 9), station.hash(), false, 3));
    EXPECT_EQ(bytesOf(*block), text(50));
    EXPECT_TRUE(block->cached());
    EXPECT_FALSE(block->isCompressed());
    EXPECT_FALSE(station.hash()->isPreloading());
    EXPECT_EQ(station.reader().bytesRead(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    ZebDataBlock* const live = task(qCompress(text(60), 9), station.hash(), true, 3);
    EXPECT_EQ(manager().liveBytes(), text(60).size());
    EXPECT_EQ(bytesOf(ZebDataReference(station.hash()).constAccessor()), text(60));
    EXPECT_EQ(bytesOf(*live), text(60));
}

// A load that succeeds

TEST(ZebDataBlockReadThread_Load, GivesTheBlockToWhoeverAsksForIt)
{
    LoadStation station;
    station.write(BlockFiles::fileOf(text(50)));
    station.hash()->setPreloading(true);
    const std::unique_ptr<ZebDataBlock> block = station.loaded();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(*block), text(50));
    EXPECT_TRUE(block->cached());
    EXPECT_FALSE(block->isCompressed());
    EXPECT_FALSE(station.hash()->isPreloading());
    EXPECT_FALSE(manager().isInMemory(station.hash().data()));
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(station.reader().bytesRead(), text(50).size());
    EXPECT_EQ(station.reader().requestsHandled(), 0);
    EXPECT_EQ(station.probe().flushes(), 0);
    EXPECT_TRUE(station.store().messages().messages().isEmpty());
}

TEST(ZebDataBlockReadThread_Load, HandsTheBlockToTheManagerWhenItIsToBecomeLive)
{
    LoadStation station;
    station.write(BlockFiles::fileOf(text(50)));
    station.hash()->setPreloading(true);
    EXPECT_EQ(station.load(true).resultCount(), 1);
    EXPECT_TRUE(manager().isInMemory(station.hash().data()));
    EXPECT_EQ(manager().liveBytes(), text(50).size());
    EXPECT_FALSE(station.hash()->isPreloading());
    EXPECT_EQ(bytesOf(ZebDataReference(station.hash()).constAccessor()), text(50));
    // It has its file, so nothing was queued for it.
    EXPECT_EQ(station.reader().bytesRead(), text(50).size());
    EXPECT_EQ(station.probe().flushes(), 0);
}

TEST(ZebDataBlockReadThread_Load, ReadsBlocksOfEveryLengthAndCompression)
{
    for (const QByteArray& content :
         {QByteArray("x"), QByteArray(1 << 20, 'z'), BlockFiles::incompressible(100000)}) {
        for (const int level : {0, 2, 9}) {
            LoadStation station(content);
            station.write(BlockFiles::fileBytes(content.size(), qCompress(content, level)));
            const std::unique_ptr<ZebDataBlock> block = station.loaded();
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(bytesOf(*block), content);
        }
    }
}

TEST(ZebDataBlockReadThread_Load, ReadsFromItsSubCache)
{
    LoadStation station;
    station.reader().setSubCache("sub");
    EXPECT_EQ(station.reader().subCache(), "sub");
    EXPECT_TRUE(station.file().startsWith(station.store().roots().first() + "/sub/"));
    station.write(BlockFiles::fileOf(text(50)));
    EXPECT_NE(station.loaded(), nullptr);
    station.reader().setSubCache(QString());
    EXPECT_EQ(station.loaded(), nullptr);
}

TEST(ZebDataBlockReadThread_Load, NeverReadsBehindThePayload)
{
    LoadStation station;
    station.write(BlockFiles::fileOf(text(50)) + BlockFiles::incompressible(5000));
    const std::unique_ptr<ZebDataBlock> block = station.loaded();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(*block), text(50));
}

TEST(ZebDataBlockReadThread_Load, TakesTheSizeFromTheBytesAndOnlyCountsTheOneInTheHeader)
{
    qint64 expected = 0;
    LoadStation station;
    for (const qint64 told : {qint64(5), qint64(0), qint64(-7), qint64(1) << 40}) {
        station.write(BlockFiles::fileBytes(told, qCompress(text(50), 2)));
        const std::unique_ptr<ZebDataBlock> block = station.loaded();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(bytesOf(*block), text(50));
        expected += told;
        EXPECT_EQ(station.reader().bytesRead(), expected);
    }
    EXPECT_TRUE(station.store().messages().messages().isEmpty());
}

// Payloads that are no good

TEST(ZebDataBlockReadThread_Load, ADamagedPayloadBecomesAnEmptyBlockThatLives)
{
    QByteArray damaged = qCompress(text(50), 2);
    damaged[damaged.size() / 2] = static_cast<char>(~damaged[damaged.size() / 2]);
    for (const bool makeLive : {false, true}) {
        LoadStation station;
        station.write(BlockFiles::fileBytes(text(50).size(), damaged));
        station.hash()->setPreloading(true);
        const Load future = station.load(makeLive);
        ASSERT_EQ(future.resultCount(), 1);
        EXPECT_EQ(future.result()->size(), 0);
        EXPECT_TRUE(future.result()->cached());
        EXPECT_FALSE(future.result()->isCompressed());
        EXPECT_FALSE(station.hash()->isPreloading());
        EXPECT_EQ(station.reader().bytesRead(), text(50).size());
        EXPECT_EQ(station.probe().flushes(), 0) << "to the reader it was a success";
        EXPECT_EQ(station.store().messages().debugLines(),
                  QStringList("Failed to decompress block data."));
        EXPECT_EQ(manager().isInMemory(station.hash().data()), makeLive);
        if (makeLive) {
            EXPECT_EQ(ZebDataReference(station.hash()).constAccessor().size(), 0);
        } else {
            delete future.result();
        }
    }
}

TEST(ZebDataBlockReadThread_Load, APayloadOfNoBytesIsReadAndBecomesAnEmptyBlock)
{
    LoadStation station;
    station.write(BlockFiles::fileBytes(77, QByteArray()));
    const std::unique_ptr<ZebDataBlock> block = station.loaded();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->size(), 0);
    EXPECT_TRUE(block->cached());
    EXPECT_EQ(station.reader().bytesRead(), 77);
    EXPECT_EQ(station.probe().flushes(), 0);
    EXPECT_EQ(station.store().messages().debugLines(),
              QStringList("Failed to decompress block data."));
}

// A load that fails

TEST(ZebDataBlockReadThread_Load, AMissingFileIsTriedTwiceAndGivesACancelledFuture)
{
    LoadStation station;
    for (const bool wasPreloading : {false, true}) {
        station.store().messages().clear();
        station.hash()->setPreloading(wasPreloading);
        const int before = station.probe().flushes();
        const Load future = station.reader().loadBlock(station.hash(), true);
        EXPECT_TRUE(future.isStarted());
        EXPECT_TRUE(future.isFinished());
        EXPECT_TRUE(future.isCanceled());
        EXPECT_FALSE(future.isRunning());
        EXPECT_EQ(future.resultCount(), 0);
        EXPECT_EQ(station.probe().flushes() - before, 2) << "one behind each attempt";
        EXPECT_EQ(station.probe().lastHash(), station.hash().data());
        EXPECT_EQ(station.probe().lastThread(), QThread::currentThread());
        EXPECT_EQ(station.store().messages().debugLines(), QStringList(station.cannotRead()));
        EXPECT_EQ(station.hash()->isPreloading(), wasPreloading);
    }
    EXPECT_TRUE(station.cannotRead().contains("//" + station.hash()->toString() + "'"));
    EXPECT_EQ(station.reader().bytesRead(), 0);
    EXPECT_FALSE(manager().isInMemory(station.hash().data()));
}

TEST(ZebDataBlockReadThread_Load, AFileThatComesWithTheFlushIsReadByTheSecondAttempt)
{
    LoadStation station;
    station.probe().onFlush([&](int) { station.write(BlockFiles::fileOf(text(50))); });
    const std::unique_ptr<ZebDataBlock> block = station.loaded();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(*block), text(50));
    EXPECT_EQ(station.probe().flushes(), 1);
    EXPECT_EQ(station.reader().bytesRead(), text(50).size());
    EXPECT_TRUE(station.store().messages().messages().isEmpty());
}

TEST(ZebDataBlockReadThread_Load, TheFlushBehindTheSecondAttemptComesTooLate)
{
    LoadStation station;
    station.probe().onFlush([&](int number) {
        if (number == 2)
            station.write(BlockFiles::fileOf(text(50)));
    });
    EXPECT_EQ(station.loaded(), nullptr);
    EXPECT_EQ(station.probe().flushes(), 2);
    EXPECT_TRUE(QFileInfo::exists(station.file()));
    EXPECT_NE(station.loaded(), nullptr);
    EXPECT_EQ(station.probe().flushes(), 2);
}

TEST(ZebDataBlockReadThread_Load, AHalfWrittenFileIsReadOnceItIsWhole)
{
    const QByteArray whole = BlockFiles::fileOf(text(50));
    for (const int size : {0, 7, 8, 11, 12, whole.size() - 1}) {
        LoadStation station;
        station.write(whole.left(size));
        station.probe().onFlush([&](int) { station.write(whole); });
        const std::unique_ptr<ZebDataBlock> block = station.loaded();
        ASSERT_NE(block, nullptr) << size;
        EXPECT_EQ(bytesOf(*block), text(50)) << size;
        EXPECT_EQ(station.probe().flushes(), 1) << size;
    }
}

TEST(ZebDataBlockReadThread_Load, ALengthThatTheFileCannotKeepIsAFailedAttempt)
{
    constexpr qint32 least = std::numeric_limits<qint32>::min();
    constexpr qint32 most = std::numeric_limits<qint32>::max();
    const QByteArray files[] = {QByteArray(),
                                QByteArray(7, '\0'),
                                QByteArray(8, '\0'),
                                QByteArray(11, '\0'),
                                fileWithLength(-1, 40),
                                fileWithLength(least, 40),
                                fileWithLength(-12, 0),
                                fileWithLength(1, 0),
                                fileWithLength(41, 40),
                                fileWithLength(most, 40),
                                fileWithLength(most - 11, 40)};
    LoadStation station;
    for (const QByteArray& bytes : files) {
        station.store().messages().clear();
        station.write(bytes);
        const int before = station.probe().flushes();
        EXPECT_TRUE(station.load().isCanceled()) << bytes.toHex().constData();
        EXPECT_EQ(station.probe().flushes() - before, 2);
        EXPECT_EQ(station.store().messages().debugLines(), QStringList(station.cannotRead()));
        EXPECT_EQ(BlockFiles::read(station.file()), bytes) << "reading changes no file";
    }
    EXPECT_EQ(station.reader().bytesRead(), 0);
    // What is there in full can be had, although it is no payload.
    station.write(fileWithLength(40, 40));
    EXPECT_NE(station.loaded(), nullptr);
}

TEST(ZebDataBlockReadThread_Load, ALengthThatTheFileKeepsAndNoArrayCanIsAFailedAttempt)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer ends a process that asks for so much memory";
#endif
    constexpr qint32 most = std::numeric_limits<qint32>::max();
    LoadStation station;
    station.write(fileWithLength(most, 0));
    // Full of holes, so the disk needs no room for it.
    ASSERT_TRUE(QFile::resize(station.file(), qint64(BlockFiles::s_HeaderBytes) + most));
    EXPECT_TRUE(station.load().isCanceled());
    EXPECT_EQ(station.probe().flushes(), 2);
    EXPECT_EQ(station.store().messages().debugLines(), QStringList(station.cannotRead()));
}

TEST(ZebDataBlockReadThread_Load, MakesTheBucketDirectoryAgainAndFailsForWantOfTheFile)
{
    LoadStation station;
    EXPECT_FALSE(QFileInfo::exists(station.bucket()));
    EXPECT_TRUE(station.load().isCanceled());
    EXPECT_TRUE(QFileInfo(station.bucket()).isDir());
    EXPECT_FALSE(QFileInfo::exists(station.file()));
}

TEST(ZebDataBlockReadThread_Load, AReferenceOfAMissingBlockGivesANullAccessor)
{
    LoadStation station;
    EXPECT_TRUE(ZebDataReference(station.hash()).constAccessor().isNull());
    EXPECT_EQ(station.store().messages().count(station.cannotRead()), 1);
}

// A load and a write of one block

TEST(ZebDataBlockReadThread_Load, ReadsABlockWhoseWriteIsStillQueued)
{
    TemporaryStore store;
    ZebDataBlockReadThread reader(store.roots().first(), s_Buckets, 50, nullptr);
    ZebDataReference inHand;
    ZebDataReference queued;
    Load load;
    std::future<void> reading;
    {
        // The writer cannot finish the first block meanwhile, so the second stays behind it.
        const ZebDataDeleteLocker locker;
        inHand = manager().addBlock("in hand", ZebModifyAccessor::Cached, true);
        EXPECT_TRUE(waitUntil([&] { return writers()[0]->requestsInProgress() == 1; }));
        queued = manager().addBlock(text(50), ZebModifyAccessor::Cached, true);
        const ZebSmartPointer<ZebDataHash> hash = queued.hashPtr();
        reading = std::async(std::launch::async,
                             [&reader, &load, hash] { load = reader.loadBlock(hash, false); });
        // The block and the fence of the reader behind it.
        EXPECT_TRUE(waitUntil([] { return writers()[0]->requests() == 2; }));
        EXPECT_FALSE(QFileInfo::exists(manager().getBlockDestination(QString(), queued.hash())));
    }
    EXPECT_TRUE(waitUntil([&] { return isReady(reading); }));
    load.waitForFinished();
    ASSERT_EQ(load.resultCount(), 1);
    const std::unique_ptr<ZebDataBlock> block(load.result());
    EXPECT_EQ(bytesOf(*block), text(50));
}

TEST(ZebDataBlockReadThread_Load, AnAccessorWaitsForTheWriteOfItsBlock)
{
    TemporaryStore store;
    // A second writer of the same root, which does not run yet; the store ends it with its own.
    auto* const writer =
        new ZebDataBlockWriteThread_Pattern1(store.roots().first(), s_Buckets, nullptr);
    writers().append(writer);
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(text(50));
    writer->writeBlock(ZebDataBlockManager::PreloadNormal, hash, new ZebDataBlock(text(50)), true);
    QByteArray bytes;
    const std::future<void> reading = std::async(std::launch::async, [&bytes, hash] {
        const ZebConstAccessor accessor = ZebDataReference(hash).constAccessor();
        if (!accessor.isNull())
            bytes = bytesOf(accessor);
    });
    EXPECT_TRUE(waitUntil([&] {
        (writers()[0]->*privateMember(WriterConditionTag())).wakeAll();
        return writer->requests() == 2;
    }));
    writer->start();
    EXPECT_TRUE(waitUntil([&] {
        (writer->*privateMember(WriterConditionTag())).wakeAll();
        return isReady(reading);
    }));
    EXPECT_EQ(bytes, text(50));
}

TEST(ZebDataBlockReadThread_Load, TwoLoadsOfOneBlockAtATimeMakeItLiveOnce)
{
    LoadStation station;
    station.write(BlockFiles::fileOf(text(50)));
    std::vector<std::thread> hosts;
    std::atomic<int> good{0};
    for (int i = 0; i < 8; ++i) {
        hosts.emplace_back([&] {
            const ZebConstAccessor accessor = ZebDataReference(station.hash()).constAccessor();
            good += !accessor.isNull() && bytesOf(accessor) == text(50) ? 1 : 0;
        });
    }
    for (std::thread& host : hosts)
        host.join();
    EXPECT_EQ(good, 8);
    EXPECT_EQ(manager().liveBytes(), text(50).size());
}

// The pool

TEST(ZebDataBlockReadThread_Load, ALoadInsideAFullPoolEnds)
{
    LoadStation station;
    station.write(BlockFiles::fileOf(text(50)));
    const GlobalPoolSize one(1);
    QSemaphore begun;
    QSemaphore goOn;
    QThreadPool::globalInstance()->start([&] {
        begun.release();
        goOn.tryAcquire(1, 3 * s_DeadlineMs);
    });
    begun.acquire();
    std::unique_ptr<ZebDataBlock> block;
    const std::future<void> loading =
        std::async(std::launch::async, [&] { block = station.loaded(); });
    EXPECT_TRUE(waitUntil([&] { return isReady(loading); }));
    goOn.release();
    loading.wait();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(*block), text(50));
}

TEST(ZebDataBlockReadThread_Load, AccessorsOpenedInsideTasksOfAOneThreadPoolEnd)
{
    constexpr int count = 30;
    TemporaryStore store;
    std::vector<ZebDataReference> references;
    for (int i = 0; i < count; ++i)
        references.push_back(manager().addBlock(text(20 + i), ZebModifyAccessor::Cached, true));
    manager().flush();
    manager().freeAllBlocks();
    std::atomic<int> ended{0};
    std::atomic<int> good{0};
    {
        const GlobalPoolSize one(1);
        for (int i = 0; i < count; ++i) {
            const ZebDataReference reference = references[static_cast<size_t>(i)];
            QThreadPool::globalInstance()->start([reference, i, &ended, &good] {
                {
                    const ZebConstAccessor accessor = reference.constAccessor();
                    good += !accessor.isNull() && bytesOf(accessor) == text(20 + i) ? 1 : 0;
                }
                ++ended;
            });
        }
        const bool allEnded = waitUntil([&] { return ended == count; });
        EXPECT_TRUE(allEnded);
        // Room for all of them, so that the test ends when they wait for each other.
        if (!allEnded)
            QThreadPool::globalInstance()->setMaxThreadCount(2 * count);
        EXPECT_TRUE(waitUntil([&] { return ended == count; }));
    }
    EXPECT_EQ(good, count);
    EXPECT_TRUE(QThreadPool::globalInstance()->waitForDone(s_DeadlineMs));
}
