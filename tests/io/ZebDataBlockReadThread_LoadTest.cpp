// What one load of a block does, on any thread.

#include "io/ZebDataBlockReadThread.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "support/BlockFiles.h"
#include "support/BlockedThread.h"
#include "support/BytesOf.h"
#include "support/FlushProbe.h"
#include "support/ReaderInside.h"
#include "support/RunTogether.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/UnexpectedFiles.h"
#include "support/WaitUntil.h"
#include "support/WriterInside.h"
#include "support/ZebDataDeleteLocker.h"

#include <QDir>
#include <QFileInfo>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QThreadPool>
#include <QtEndian>

#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>
#include <vector>

namespace {

using BlockFiles::text;
using Load = QFuture<ZebDataBlock*>;

constexpr int s_Buckets = 10;
constexpr int s_DeadlineMs = 20000;

using StoreInside::manager;
using StoreInside::writers;

// A header with the payload length `length`, and `present` bytes of payload.
QByteArray fileWithLength(qint32 length, int present)
{
    QByteArray bytes = BlockFiles::fileBytes(1000, QByteArray(present, 'p'));
    qToLittleEndian<qint32>(length, bytes.data() + 8);
    return bytes;
}

// A store, and a reader that is not started for the file of one block that is not in the store. A
// probe replaces the store's writers.
class LoadStation
{
public:
    explicit LoadStation(const QByteArray& plain = text(50))
        : m_Hash(ZebHashManager::instance().getHash(plain)),
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

    // The block that a load without makeLive returns; null when it fails.
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

// Sets the number of threads of Qt's global pool for the duration of a scope.
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
    station.hash()->setPreloading(true);
    const std::unique_ptr<ZebDataBlock> block(
        ReaderInside::decompressAndMakeBlock(qCompress(text(50), 9), station.hash(), false, 3));
    EXPECT_EQ(bytesOf(*block), text(50));
    EXPECT_TRUE(block->cached());
    EXPECT_FALSE(block->isCompressed());
    EXPECT_FALSE(station.hash()->isPreloading());
    EXPECT_EQ(station.reader().bytesRead(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    ZebDataBlock* const live =
        ReaderInside::decompressAndMakeBlock(qCompress(text(60), 9), station.hash(), true, 3);
    EXPECT_EQ(manager().liveBytes(), text(60).size());
    EXPECT_EQ(bytesOf(ZebDataReference(station.hash()).constAccessor()), text(60));
    EXPECT_EQ(bytesOf(*live), text(60));
}

// A load that succeeds

TEST(ZebDataBlockReadThread_Load, ReturnsTheBlockToTheCaller)
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

TEST(ZebDataBlockReadThread_Load, HandsTheBlockToTheManagerWithMakeLive)
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
    for (const QByteArray& plain :
         {QByteArray("x"), QByteArray(1 << 20, 'z'), BlockFiles::incompressible(100000)}) {
        for (const int level : {0, 2, 9}) {
            LoadStation station(plain);
            station.write(BlockFiles::fileBytes(plain.size(), qCompress(plain, level)));
            const std::unique_ptr<ZebDataBlock> block = station.loaded();
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(bytesOf(*block), plain);
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

TEST(ZebDataBlockReadThread_Load, NeverReadsAfterThePayload)
{
    LoadStation station;
    station.write(BlockFiles::fileOf(text(50)) + BlockFiles::incompressible(5000));
    const std::unique_ptr<ZebDataBlock> block = station.loaded();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(*block), text(50));
}

TEST(ZebDataBlockReadThread_Load, TakesTheSizeFromThePayloadAndOnlyCountsTheOneInTheHeader)
{
    qint64 expected = 0;
    LoadStation station;
    for (const qint64 size : {qint64(5), qint64(0), qint64(-7), qint64(1) << 40}) {
        station.write(BlockFiles::fileBytes(size, qCompress(text(50), 2)));
        const std::unique_ptr<ZebDataBlock> block = station.loaded();
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(bytesOf(*block), text(50));
        expected += size;
        EXPECT_EQ(station.reader().bytesRead(), expected);
    }
    EXPECT_TRUE(station.store().messages().messages().isEmpty());
}

// Damaged payloads

TEST(ZebDataBlockReadThread_Load, ADamagedPayloadBecomesAnEmptyResidentBlock)
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
        EXPECT_EQ(station.probe().flushes(), 0) << "the reader counts it as a success";
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

TEST(ZebDataBlockReadThread_Load, AMissingFileIsReadTwiceAndReturnsACancelledFuture)
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
        EXPECT_EQ(station.probe().flushes() - before, 2) << "one after each attempt";
        EXPECT_EQ(station.probe().lastHash(), station.hash().data());
        EXPECT_EQ(station.probe().lastThread(), QThread::currentThread());
        EXPECT_EQ(station.store().messages().debugLines(), QStringList(station.cannotRead()));
        EXPECT_EQ(station.hash()->isPreloading(), wasPreloading);
    }
    EXPECT_TRUE(station.cannotRead().contains("//" + station.hash()->toString() + "'"));
    EXPECT_EQ(station.reader().bytesRead(), 0);
    EXPECT_FALSE(manager().isInMemory(station.hash().data()));
}

TEST(ZebDataBlockReadThread_Load, TheSecondAttemptReadsAFileThatTheFlushHasWritten)
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

TEST(ZebDataBlockReadThread_Load, TheFlushAfterTheSecondAttemptIsTooLate)
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

TEST(ZebDataBlockReadThread_Load, AnIncompleteFileIsReadOnceItIsComplete)
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

TEST(ZebDataBlockReadThread_Load, ALengthBeyondTheFileIsAFailedAttempt)
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
    // A complete file is read, although these bytes are no payload.
    station.write(fileWithLength(40, 40));
    EXPECT_NE(station.loaded(), nullptr);
}

TEST(ZebDataBlockReadThread_Load, ALengthBeyondTheLargestArrayIsAFailedAttempt)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer ends a process that asks for so much memory";
#endif
    constexpr qint32 most = std::numeric_limits<qint32>::max();
    LoadStation station;
    station.write(fileWithLength(most, 0));
    // A sparse file takes no space on the disk.
    ASSERT_TRUE(QFile::resize(station.file(), qint64(BlockFiles::s_HeaderBytes) + most));
    EXPECT_TRUE(station.load().isCanceled());
    EXPECT_EQ(station.probe().flushes(), 2);
    EXPECT_EQ(station.store().messages().debugLines(), QStringList(station.cannotRead()));
}

TEST(ZebDataBlockReadThread_Load, AnythingButARegularFileIsMissingAndIsNotWaitedFor)
{
    LoadStation station;
    const auto expectMissing = [&station](const char* kind) {
        station.store().messages().clear();
        const int before = station.probe().flushes();
        EXPECT_TRUE(station.load().isCanceled()) << kind;
        EXPECT_EQ(station.probe().flushes() - before, 2) << kind;
        EXPECT_EQ(station.store().messages().debugLines(), QStringList(station.cannotRead()))
            << kind;
        EXPECT_TRUE(UnexpectedFiles::exists(station.file())) << kind;
    };
    QDir().mkpath(station.bucket());
    ASSERT_TRUE(QDir().mkdir(station.file()));
    expectMissing("directory");
    ASSERT_TRUE(QDir().rmdir(station.file()));
    UnexpectedFiles::makePipe(station.file());
    expectMissing("pipe");
    QFile::remove(station.file());
    const QString sound = station.store().roots().first() + "/sound";
    BlockFiles::write(sound, BlockFiles::fileOf(text(50)));
    ASSERT_TRUE(QFile::link(sound, station.file()));
    expectMissing("link");
    QFile::remove(station.file());
    const UnexpectedFiles::Socket socket(station.file());
    expectMissing("socket");
    EXPECT_EQ(station.reader().bytesRead(), 0);
}

TEST(ZebDataBlockReadThread_Load, AFileBehindALinkedBucketIsRead)
{
    LoadStation station;
    QTemporaryDir elsewhere;
    QDir().mkpath(QFileInfo(station.bucket()).path());
    ASSERT_TRUE(QFile::link(elsewhere.path(), station.bucket()));
    station.write(BlockFiles::fileOf(text(50)));
    EXPECT_NE(station.loaded(), nullptr);
}

TEST(ZebDataBlockReadThread_Load, ALoadedBlockReservesNoMoreThanItsBytes)
{
    LoadStation station;
    QByteArray payload = qCompress(text(50), 2);
    qToBigEndian<quint32>(100 << 20, payload.data());
    station.write(BlockFiles::fileBytes(text(50).size(), payload));
    const std::unique_ptr<ZebDataBlock> block = station.loaded();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(bytesOf(*block), text(50));
    EXPECT_EQ(BlockInside::storedBytes(*block).capacity(), text(50).size());
}

TEST(ZebDataBlockReadThread_Load, MakesTheBucketDirectoryAgainAndFailsWithoutAFile)
{
    LoadStation station;
    EXPECT_FALSE(QFileInfo::exists(station.bucket()));
    EXPECT_TRUE(station.load().isCanceled());
    EXPECT_TRUE(QFileInfo(station.bucket()).isDir());
    EXPECT_FALSE(QFileInfo::exists(station.file()));
}

TEST(ZebDataBlockReadThread_Load, AReferenceOfAMissingBlockReturnsANullAccessor)
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
    ZebDataReference taken;
    ZebDataReference queued;
    Load load;
    std::unique_ptr<BlockedThread> reading;
    {
        // The writer cannot finish the first block without this lock, so the second stays queued.
        const ZebDataDeleteLocker locker;
        taken = manager().addBlock("taken", ZebModifyAccessor::Cached, true);
        EXPECT_TRUE(waitUntil([&] { return writers()[0]->requestsInProgress() == 1; }));
        queued = manager().addBlock(text(50), ZebModifyAccessor::Cached, true);
        const ZebSmartPointer<ZebDataHash> hash = queued.hashPtr();
        reading = std::make_unique<BlockedThread>(
            [&reader, &load, hash] { load = reader.loadBlock(hash, false); });
        // The block, and after it the reader's fence.
        EXPECT_TRUE(waitUntil([] { return writers()[0]->requests() == 2; }));
        EXPECT_FALSE(QFileInfo::exists(manager().getBlockDestination(QString(), queued.hash())));
    }
    EXPECT_TRUE(reading->ends());
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
    const BlockedThread reading([&bytes, hash] { bytes = bytesOf(ZebDataReference(hash)); });
    EXPECT_TRUE(waitUntil([&] {
        WriterInside::waitCondition(*writers()[0]).wakeAll();
        return writer->requests() == 2;
    }));
    writer->start();
    EXPECT_TRUE(waitUntil([&] {
        WriterInside::waitCondition(*writer).wakeAll();
        return reading.hasEnded();
    }));
    EXPECT_EQ(bytes, text(50));
}

TEST(ZebDataBlockReadThread_Load, ConcurrentLoadsOfOneBlockMakeItResidentOnce)
{
    LoadStation station;
    station.write(BlockFiles::fileOf(text(50)));
    constexpr int threads = 8;
    std::atomic<int> good{0};
    runTogether(threads, [&](int) {
        good += bytesOf(ZebDataReference(station.hash())) == text(50) ? 1 : 0;
    });
    EXPECT_EQ(good, threads);
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
    BlockedThread loading([&] { block = station.loaded(); });
    EXPECT_TRUE(loading.ends());
    goOn.release();
    loading.join();
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
        // Threads for all of them, so that the test ends when they wait for each other.
        if (!allEnded)
            QThreadPool::globalInstance()->setMaxThreadCount(2 * count);
        EXPECT_TRUE(waitUntil([&] { return ended == count; }));
    }
    EXPECT_EQ(good, count);
    EXPECT_TRUE(QThreadPool::globalInstance()->waitForDone(s_DeadlineMs));
}
