// What the store logs about itself, and lists of its hashes.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "support/BlockedThread.h"
#include "support/Fatal.h"
#include "support/Manager.h"
#include "support/ReaderInside.h"
#include "support/StoreFixture.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"
#include "support/WriterInside.h"

#include <QList>
#include <QVector>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using StoreInside::readers;
using StoreInside::writers;

namespace {

// The debug lines of an action, in order.
template <typename Action>
QStringList linesOf(Action action)
{
    const MessageCapture messages;
    action();
    return messages.debugLines();
}

QStringList statistics()
{
    return linesOf([] { manager().dumpStats(); });
}

QStringList threadStatistics()
{
    return linesOf([] { manager().dumpThreadStats(); });
}

// Replaces the store's disk threads by ones that are not started, for the length of a scope, so
// that their requests stay queued.
class IdleThreads
{
public:
    explicit IdleThreads(const QStringList& roots)
        : m_ReadersBefore(readers()), m_WritersBefore(writers())
    {
        for (const QString& root : roots) {
            m_Readers.push_back(
                std::make_unique<ZebDataBlockReadThread>(root, 1, roots.size(), nullptr));
            m_Writers.push_back(
                std::make_unique<ZebDataBlockWriteThread_Pattern1>(root, 1, nullptr));
        }
        readers().clear();
        writers().clear();
        for (const auto& reader : m_Readers)
            readers().append(reader.get());
        for (const auto& writer : m_Writers)
            writers().append(writer.get());
    }
    ~IdleThreads()
    {
        readers() = m_ReadersBefore;
        writers() = m_WritersBefore;
        // A writer does not delete its queued requests.
        for (const auto& writer : m_Writers) {
            WriterInsideList& list = WriterInside::requests(*writer);
            while (!list.isEmpty())
                delete list.takeFirst();
        }
    }
    IdleThreads(const IdleThreads&) = delete;
    IdleThreads& operator=(const IdleThreads&) = delete;

    void setBytes(int index, qint64 read, qint64 written)
    {
        ReaderInside::bytesRead(*readers().at(index)) = read;
        WriterInside::bytesWritten(*writers().at(index)) = written;
    }

    void request(int index, const ZebDataReference& reference)
    {
        readers().at(index)->request(reference.hashPtr().data(),
                                     ZebDataBlockManager::PreloadNormal);
    }

    void write(int index, const ZebDataReference& reference)
    {
        m_Blocks.push_back(std::make_unique<ZebDataBlock>(QByteArray("to be written")));
        writers().at(index)->writeBlock(ZebDataBlockManager::PreloadNormal, reference.hashPtr(),
                                        m_Blocks.back().get(), false);
    }

private:
    std::vector<std::unique_ptr<ZebDataBlock>> m_Blocks;
    std::vector<std::unique_ptr<ZebDataBlockReadThread>> m_Readers;
    std::vector<std::unique_ptr<ZebDataBlockWriteThread>> m_Writers;
    QVector<ZebDataBlockReadThread*> m_ReadersBefore;
    QVector<ZebDataBlockWriteThread*> m_WritersBefore;
};

class ZebDataBlockManagerStatistics : public StoreFixture
{
protected:
    ZebDataBlockManagerStatistics() : StoreFixture(twoRoots()) {}

    static TemporaryStore::Options twoRoots()
    {
        TemporaryStore::Options options = withRoots(2);
        options.m_Memory = qint64(64) * s_Megabyte + 1;
        return options;
    }

    QString root(int index) const { return m_Store.roots().at(index); }
};

} // namespace

// dumpStats

TEST_F(ZebDataBlockManagerStatistics, PrintsEveryLineInItsOrder)
{
    const ZebDataReference large = add(2 * s_Megabyte, 1);
    const ZebDataReference small = add(s_Block, 2);
    const ZebDataReference notCached =
        manager().addBlock(testBytes(s_Block, 3), ZebModifyAccessor::DontCache, true);
    manager().flush();
    IdleThreads threads(m_Store.roots());
    threads.setBytes(0, 3 * s_Megabyte - 1, 0);
    threads.setBytes(1, 5 * s_Megabyte, 7 * s_Megabyte + 1);
    QStringList expected = {"==== ZebTdx Block Stats ====",   "Max Cache Size 64Mb",
                            "Number of managed blocks 3",     "Number of existant blocks -1",
                            "Block Memory Usage 2Mb",         "Number of LRU Blocks 2",
                            "Number Block Future Pointers -1"};
    expected += linesOf([] { ZebHashManager::instance().dumpStats(); });
    expected += QStringList({"==== Thread Stats ====", "Read " + root(0) + " 2Mb",
                             "Read " + root(1) + " 5Mb", "Written  " + root(0) + " 0Mb",
                             "Written  " + root(1) + " 7Mb"});
    EXPECT_EQ(statistics(), expected);
    EXPECT_EQ(expected.at(7), "==== ZebTdx Hash Stats ====");
    EXPECT_EQ(expected.size(), 7 + 8 + 5);
}

TEST_F(ZebDataBlockManagerStatistics, TheConstantLinesAreTheSameInEveryState)
{
    const auto constants = [] {
        const QStringList lines = statistics();
        return QStringList({lines.at(3), lines.at(6)});
    };
    const QStringList expected = {"Number of existant blocks -1",
                                  "Number Block Future Pointers -1"};
    EXPECT_EQ(constants(), expected);
    const ZebDataReference pending = manager().addBlock(testBytes(s_Block, 1));
    EXPECT_EQ(constants(), expected);
    const ZebConstAccessor accessor = pending.constAccessor();
    EXPECT_EQ(constants(), expected);
}

TEST_F(ZebDataBlockManagerStatistics, ManagedBlocksFallAsBlocksAreFreedAndHashesDoNot)
{
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 5; ++i)
        references.push_back(add(s_Block, i));
    EXPECT_EQ(statistics().at(2), "Number of managed blocks 5");
    const qint64 hashes = manager().managedBlocks();
    manager().freeAllBlocks();
    EXPECT_EQ(statistics().at(2), "Number of managed blocks 0");
    EXPECT_EQ(statistics().at(5), "Number of LRU Blocks 0");
    EXPECT_EQ(manager().managedBlocks(), hashes);
}

TEST_F(ZebDataBlockManagerStatistics, APinnedBlockIsResidentButNotInTheLru)
{
    const ZebDataReference reference = add(s_Block, 1);
    const ZebConstAccessor accessor = reference.constAccessor();
    EXPECT_EQ(statistics().at(2), "Number of managed blocks 1");
    EXPECT_EQ(statistics().at(5), "Number of LRU Blocks 0");
}

TEST_F(ZebDataBlockManagerStatistics, SizesAreRoundedTowardZero)
{
    const auto limitLine = [](qint64 limit) {
        manager().setMaxDataCacheSize(limit);
        return statistics().at(1);
    };
    EXPECT_EQ(limitLine(s_Megabyte - 1), "Max Cache Size 0Mb");
    EXPECT_EQ(limitLine(1 - 2 * s_Megabyte), "Max Cache Size -1Mb");
    EXPECT_EQ(limitLine(qint64(6000000) * s_Megabyte), "Max Cache Size 6000000Mb");
}

TEST_F(ZebDataBlockManagerStatistics, HoldsTheDeleteLockThroughout)
{
    EXPECT_TRUE(waitsForLock(StoreInside::deleteLock(), [] { manager().dumpStats(); }));
    EXPECT_TRUE(m_Store.messages().contains("==== ZebTdx Block Stats ===="));
}

TEST(ZebDataBlockManagerStatisticsOfNoStore, AnEmptyManagerPrintsZerosAndNoThreads)
{
    // Its construction logs lines of its own.
    manager();
    const MessageCapture messages;
    QStringList expected = {
        "==== ZebTdx Block Stats ====",
        QStringLiteral("Max Cache Size %1Mb").arg(manager().maxDataCacheSize() / 1048576),
        "Number of managed blocks 0",
        "Number of existant blocks -1",
        "Block Memory Usage 0Mb",
        "Number of LRU Blocks 0",
        "Number Block Future Pointers -1"};
    expected += linesOf([] { ZebHashManager::instance().dumpStats(); });
    expected += QStringLiteral("==== Thread Stats ====");
    EXPECT_EQ(statistics(), expected);
}

// dumpThreadStats

TEST_F(ZebDataBlockManagerStatistics, PrintsTheRequestsOfAllReadersAndThenOfAllWriters)
{
    IdleThreads threads(m_Store.roots());
    const ZebDataReference references[] = {
        ZebDataReference(ZebHashManager::instance().getHash(QByteArray("one"))),
        ZebDataReference(ZebHashManager::instance().getHash(QByteArray("two"))),
        ZebDataReference(ZebHashManager::instance().getHash(QByteArray("three")))};
    threads.request(1, references[0]);
    threads.request(1, references[1]);
    for (const ZebDataReference& reference : references)
        threads.write(0, reference);
    threads.write(1, references[0]);
    EXPECT_EQ(threadStatistics(),
              QStringList({"==== Thread Stats ====", " Read Thread 0 has 0 requests",
                           " Read Thread 1 has 2 requests", " Write Thread 0 has 3 requests",
                           " Write Thread 1 has 1 requests"}));
}

TEST_F(ZebDataBlockManagerStatistics, PrintingTheRequestsTakesNoDeleteLock)
{
    EXPECT_FALSE(waitsForLock(StoreInside::deleteLock(), [] { manager().dumpThreadStats(); }));
    EXPECT_TRUE(m_Store.messages().contains(" Write Thread 1 has 0 requests"));
}

TEST_F(ZebDataBlockManagerStatistics, OnlyTheHeadingIsLeftAfterCleanUp)
{
    EXPECT_EQ(threadStatistics().size(), 5);
    m_Store.cleanUp();
    EXPECT_EQ(threadStatistics(), QStringList("==== Thread Stats ===="));
}

// snapshot

TEST_F(ZebDataBlockManagerStatistics, ASnapshotAppendsOneReferenceForEachLiveHash)
{
    QList<ZebDataReference> list = {ZebDataReference(), ZebDataReference()};
    const ZebDataReference resident = add(s_Block, 1);
    const ZebDataReference notCached =
        manager().addBlock(testBytes(s_Block, 2), ZebModifyAccessor::DontCache, true);
    const ZebDataReference onDisk = add(s_Block, 3);
    manager().flush();
    StoreInside::freeBlock(onDisk.hashPtr().data(), true, false);
    ASSERT_EQ(manager().managedBlocks(), 3);
    manager().snapshot(list);
    ASSERT_EQ(list.size(), 5);
    EXPECT_TRUE(list.at(0).isNull());
    EXPECT_TRUE(list.at(1).isNull());
    for (const ZebDataReference& reference : {resident, notCached, onDisk})
        EXPECT_EQ(list.count(reference), 1);
    for (int i = 2; i < list.size(); ++i)
        EXPECT_FALSE(list.at(i).hasHashJob());
}

TEST_F(ZebDataBlockManagerStatistics, ASnapshotFollowsTheOrderOfTheRegistry)
{
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 20; ++i)
        references.push_back(add(s_Block, i));
    QList<ZebSmartPointer<ZebDataHash>> hashes;
    ZebHashManager::instance().snapshot(hashes);
    QList<ZebDataReference> list;
    manager().snapshot(list);
    ASSERT_EQ(list.size(), hashes.size());
    for (int i = 0; i < list.size(); ++i)
        EXPECT_EQ(list.at(i).hashPtr(), hashes.at(i));
}

TEST_F(ZebDataBlockManagerStatistics, NoHashEndsWhileASnapshotLives)
{
    QList<ZebDataReference> list;
    {
        const ZebDataReference reference = add(s_Block, 1);
        manager().snapshot(list);
    }
    EXPECT_EQ(manager().managedBlocks(), 1);
    EXPECT_TRUE(holdsTestBytes(list.at(0), s_Block, 1));
    list.clear();
    manager().flush();
    EXPECT_EQ(manager().managedBlocks(), 0);
}

TEST_F(ZebDataBlockManagerStatistics, ASnapshotWaitsForTheDeleteLock)
{
    QList<ZebDataReference> list;
    const ZebDataReference reference = add(s_Block, 1);
    EXPECT_TRUE(waitsForLock(StoreInside::deleteLock(), [&list] { manager().snapshot(list); }));
    EXPECT_EQ(list.size(), 1);
}

TEST(ZebDataBlockManagerStatisticsOfNoStore, ASnapshotNeedsTheStore)
{
    QList<ZebDataReference> list;
    EXPECT_FATAL(manager().snapshot(list), "Data Block Manager Not Initialized. Aborting");
}

// validateState

TEST(ZebDataBlockManagerStatisticsOfNoStore, ValidatingLogsNothingWithoutHashes)
{
    const MessageCapture messages;
    manager();
    EXPECT_EQ(linesOf([] { manager().validateState(); }), QStringList());
}

TEST_F(ZebDataBlockManagerStatistics, ValidatingLogsWhatTheRegistryLogs)
{
    EXPECT_EQ(linesOf([] { manager().validateState(); }), QStringList());
    const ZebDataReference cached = add(s_Block, 1);
    const ZebDataReference notCached =
        manager().addBlock(testBytes(s_Block, 2), ZebModifyAccessor::DontCache, true);
    manager().flush();
    EXPECT_EQ(
        linesOf([] { manager().validateState(); }),
        QStringList({"[ !! ] The following live cached hashes have been leaked:\n" + cached.hash() +
                         " (Refs = 1)\n",
                     "We have the following live non-cached hashes:\n" + notCached.hash() + "\n"}));
}
