// Blocks, references and accessors when the block is on disk only, or comes and goes.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "support/FakeMemory.h"
#include "support/Fatal.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

using StoreInside::manager;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace {

constexpr int s_Block = 1000;
constexpr int s_Megabyte = 1048576;

ZebDataReference add(int size, quint32 seed)
{
    return manager().addBlock(testBytes(size, seed), ZebModifyAccessor::Cached, true);
}

qint64 bytesWritten()
{
    qint64 written = 0;
    for (const ZebDataBlockWriteThread* const writer : StoreInside::writers())
        written += writer->bytesWritten();
    return written;
}

class ZebDataBlockManagerDisk : public testing::Test
{
protected:
    ZebDataBlockManagerDisk() : ZebDataBlockManagerDisk(TemporaryStore::Options()) {}
    explicit ZebDataBlockManagerDisk(const TemporaryStore::Options& options) : m_Store(options)
    {
        manager().flushMemory(true);
    }

    static void toDisk()
    {
        manager().flush(true, ZebDataBlockManager::AllThreads);
        manager().freeAllBlocks();
    }

    QStringList fileNames() const
    {
        QStringList names;
        for (const QString& root : m_Store.roots()) {
            QDirIterator files(root, QDir::Files, QDirIterator::Subdirectories);
            while (files.hasNext()) {
                files.next();
                names.append(files.fileName());
            }
        }
        return names;
    }

    FakeMemory m_Memory;
    TemporaryStore m_Store;
};

class ZebDataBlockManagerDiskThreeRoots : public ZebDataBlockManagerDisk
{
protected:
    ZebDataBlockManagerDiskThreeRoots() : ZebDataBlockManagerDisk(options()) {}

    static TemporaryStore::Options options()
    {
        TemporaryStore::Options options;
        options.m_Roots = 3;
        return options;
    }
};

} // namespace

// Admission and eviction together

TEST_F(ZebDataBlockManagerDisk, ABlockOfTheWholeLimitDrivesOutCachedBlocksButNoDoNotCacheBlock)
{
    manager().setMaxDataCacheSize(s_Megabyte);
    const ZebDataReference keptA =
        manager().addBlock(QByteArray("a"), ZebModifyAccessor::DontCache);
    const ZebDataReference keptB =
        manager().addBlock(QByteArray("a"), ZebModifyAccessor::DontCache);
    EXPECT_NE(keptA, keptB);
    const ZebDataReference small = add(s_Block, 1);
    const ZebDataReference large = add(s_Megabyte, 2);
    EXPECT_TRUE(keptA.isInMemory());
    EXPECT_TRUE(keptB.isInMemory());
    EXPECT_FALSE(small.isInMemory());
    EXPECT_TRUE(large.isInMemory());
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_THAT(fileNames(), UnorderedElementsAre(small.hash(), large.hash()));

    EXPECT_TRUE(holdsTestBytes(small, s_Block, 1));
    EXPECT_FALSE(large.isInMemory()) << "it had to make room in turn";
    EXPECT_TRUE(holdsTestBytes(large, s_Megabyte, 2));
    EXPECT_EQ(manager().liveBytes(), s_Megabyte + 2);
}

TEST_F(ZebDataBlockManagerDisk, ABlockIsTooLargeFromOneByteAboveTheLimitUnlessItIsResident)
{
    const ZebDataReference resident = add(s_Megabyte + 1, 1);
    manager().setMaxDataCacheSize(s_Megabyte);
    EXPECT_EQ(add(s_Megabyte + 1, 1), resident);
    const ZebDataReference fitting = add(s_Megabyte, 2);
    EXPECT_EQ(manager().liveBytes(), s_Megabyte);
    EXPECT_FATAL(add(s_Megabyte + 1, 3),
                 "Requested Block is larger than the maximum allocation size 1048577 / 1048576");
    EXPECT_FATAL(resident.constAccessor(),
                 "Requested Block is larger than the maximum allocation size 1048577 / 1048576");
}

TEST_F(ZebDataBlockManagerDisk, BytesThatAreOnDiskAreNotWrittenAgain)
{
    const ZebDataReference reference = add(s_Block, 1);
    toDisk();
    const int handled = StoreInside::writesHandled();
    const qint64 written = bytesWritten();
    EXPECT_GT(written, 0);
    ZebModifyAccessor accessor = manager().createNewBlock(testBytes(s_Block, 1));
    EXPECT_EQ(accessor.release(ZebModifyAccessor::Cached, true), reference);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled + 1);
    EXPECT_EQ(bytesWritten(), written);
    EXPECT_TRUE(StoreInside::blockOf(reference)->cached());
}

// Reading back

TEST_F(ZebDataBlockManagerDiskThreeRoots, EveryAccessorBringsItsBlockBack)
{
    std::vector<int> sizes = {1, 7, 8, 4095, 4096, 4097, 3 * s_Megabyte};
    for (int i = 0; i < 200; ++i)
        sizes.push_back(100 + i * 37);
    std::vector<ZebDataReference> references;
    for (std::size_t i = 0; i < sizes.size(); ++i)
        references.push_back(add(sizes.at(i), static_cast<quint32>(i)));
    const qint64 managed = manager().managedBlocks();
    toDisk();
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_EQ(manager().managedBlocks(), managed) << "hashes of blocks on disk count";
    for (const ZebDataReference& reference : references)
        EXPECT_FALSE(reference.isInMemory());
    qint64 bytes = 0;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_TRUE(holdsTestBytes(references.at(i), sizes.at(i), static_cast<quint32>(i)));
        bytes += sizes.at(i);
    }
    EXPECT_EQ(manager().liveBlocks(), static_cast<qint64>(sizes.size()));
    EXPECT_EQ(manager().liveBytes(), bytes);
}

TEST_F(ZebDataBlockManagerDisk, AnEmptyBlockComesBackEmpty)
{
    const ZebDataReference reference =
        manager().addBlock(QByteArray(), ZebModifyAccessor::Cached, true);
    toDisk();
    const ZebConstAccessor accessor = reference.constAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(accessor.size(), 0);
}

TEST_F(ZebDataBlockManagerDisk, WhatWasReadBackIsNotWritten)
{
    const ZebDataReference reference = add(s_Block, 1);
    toDisk();
    const int handled = StoreInside::writesHandled();
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled);
}

TEST_F(ZebDataBlockManagerDisk, ReadingBackMakesRoom)
{
    manager().setMaxDataCacheSize(10 * s_Block);
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 30; ++i)
        references.push_back(add(s_Block, i));
    for (quint32 i = 0; i < 30; ++i) {
        EXPECT_TRUE(holdsTestBytes(references.at(i), s_Block, i));
        EXPECT_LE(manager().liveBytes(), 10 * s_Block);
    }
}

TEST_F(ZebDataBlockManagerDisk, AnAccessorKeepsItsBytesWhereTheyAreWhateverIsEvicted)
{
    manager().setMaxDataCacheSize(4 * s_Block);
    const ZebDataReference reference = add(s_Block, 1);
    const ZebConstAccessor first = reference.constAccessor();
    const unsigned char* const bytes = first.data();
    for (quint32 i = 2; i < 20; ++i)
        add(s_Block, i);
    const ZebConstAccessor second = reference.constAccessor();
    EXPECT_EQ(second.data(), bytes);
    EXPECT_EQ(second.count(), 2);
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
}

TEST_F(ZebDataBlockManagerDisk, AnAccessorKeepsABlockWhoseLastReferenceIsGone)
{
    ZebDataReference reference = add(s_Block, 1);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    const QString file = StoreInside::fileOf(reference);
    std::optional<const ZebConstAccessor> accessor(reference.constAccessor());
    reference = ZebDataReference();
    EXPECT_FALSE(manager().flushMemory(true));
    EXPECT_EQ(manager().liveBytes(), s_Block);
    const QByteArray expected = testBytes(s_Block, 1);
    EXPECT_EQ(std::memcmp(accessor->data(), expected.constData(), s_Block), 0);
    accessor.reset();
    EXPECT_EQ(manager().liveBytes(), 0);
    EXPECT_TRUE(QFile::exists(file));
}

TEST_F(ZebDataBlockManagerDisk, ManyThreadsThatReadOneBlockAtOnceGetOneBlock)
{
    constexpr int threads = 8;
    const ZebDataReference reference = add(s_Megabyte, 1);
    for (int round = 0; round < 20; ++round) {
        toDisk();
        std::promise<void> start;
        const std::shared_future<void> started = start.get_future().share();
        std::atomic<int> reading{threads};
        std::vector<std::future<const unsigned char*>> reads;
        for (int t = 0; t < threads; ++t) {
            reads.push_back(std::async(std::launch::async, [reference, started, &reading] {
                started.wait();
                const ZebConstAccessor accessor = reference.constAccessor();
                // All accessors are open at once, so that nobody's block can be another's heir.
                --reading;
                while (reading > 0)
                    std::this_thread::yield();
                return accessor.isNull() ? nullptr : accessor.data();
            }));
        }
        start.set_value();
        const unsigned char* const bytes = reads.front().get();
        EXPECT_NE(bytes, nullptr);
        for (std::size_t t = 1; t < reads.size(); ++t)
            EXPECT_EQ(reads.at(t).get(), bytes);
        EXPECT_EQ(manager().liveBytes(), s_Megabyte);
        EXPECT_EQ(manager().liveBlocks(), 1);
    }
    EXPECT_TRUE(holdsTestBytes(reference, s_Megabyte, 1));
}

TEST_F(ZebDataBlockManagerDisk, ABlockThatIsNowhereGivesNullAccessorsAndNoSize)
{
    const ZebDataReference reference = add(s_Block, 1);
    toDisk();
    ASSERT_TRUE(QFile::remove(StoreInside::fileOf(reference)));
    // Each waits for the writers, so they wait together.
    std::future<bool> read =
        std::async(std::launch::async, [reference] { return reference.constAccessor().isNull(); });
    std::future<bool> copied =
        std::async(std::launch::async, [reference] { return reference.modifyAccessor().isNull(); });
    EXPECT_EQ(manager().blockSize(reference.hashPtr().data()), 0);
    EXPECT_TRUE(read.get());
    EXPECT_TRUE(copied.get());
    EXPECT_FALSE(reference.isInMemory());
    EXPECT_EQ(add(s_Block, 1), reference) << "given again, it is there again";
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
}

TEST_F(ZebDataBlockManagerDisk, TheSizeOfABlockOnDiskLoadsIt)
{
    const ZebDataReference reference = add(s_Block, 1);
    toDisk();
    EXPECT_EQ(manager().blockSize(reference.hashPtr().data()), s_Block);
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_EQ(manager().blockSize(nullptr), 0);
}

// Counts, references, copies

TEST_F(ZebDataBlockManagerDisk, ManagedBlocksCountTheBlocksOnDiskAndLiveBlocksDoNot)
{
    const qint64 managed = manager().managedBlocks();
    const ZebDataReference onDisk = add(s_Block, 1);
    toDisk();
    const ZebDataReference resident = add(s_Block, 2);
    EXPECT_EQ(manager().managedBlocks(), managed + 2);
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST_F(ZebDataBlockManagerDisk, TheHostsValueOutlivesTheBlockInMemory)
{
    ZebDataReference reference = add(s_Block, 1);
    reference.setUserId(42);
    toDisk();
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
    EXPECT_EQ(reference.userId(), 42);
    EXPECT_EQ(add(s_Block, 1).userId(), 42);
}

TEST_F(ZebDataBlockManagerDisk, APendingReferenceResolvesAfterItsBlockHasGoneToDisk)
{
    const ZebDataReference reference = manager().addBlock(testBytes(s_Block, 1));
    const ZebDataReference copy(reference);
    EXPECT_TRUE(reference.isInMemory());
    toDisk();
    EXPECT_TRUE(copy.hasHashJob());
    EXPECT_TRUE(holdsTestBytes(copy, s_Block, 1));
    EXPECT_EQ(copy, reference);
}

TEST_F(ZebDataBlockManagerDisk, ACopyOfABlockOnDiskMayBeChangedAndTheBlockStays)
{
    const ZebDataReference reference = add(s_Block, 1);
    toDisk();
    ZebModifyAccessor accessor = reference.modifyAccessor();
    ASSERT_EQ(accessor.size(), s_Block);
    EXPECT_EQ(std::memcmp(accessor.data(), testBytes(s_Block, 1).constData(), s_Block), 0);
    std::memcpy(accessor.data(), testBytes(s_Block, 2).constData(), s_Block);
    const ZebDataReference changed = accessor.release(ZebModifyAccessor::Cached, true);
    EXPECT_NE(changed, reference);
    toDisk();
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
    EXPECT_TRUE(holdsTestBytes(changed, s_Block, 2));
}

// A later run on the same roots

TEST_F(ZebDataBlockManagerDisk, AReferenceOutlivesTheStoreAndReadsFromTheNextOne)
{
    ZebDataReference reference = add(s_Block, 1);
    reference.setUserId(7);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    m_Store.cleanUp();
    const QString name = reference.hash();
    m_Store.setupAgain();
    EXPECT_FALSE(reference.isInMemory());
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
    const ZebDataReference again = add(s_Block, 1);
    EXPECT_EQ(again, reference);
    EXPECT_EQ(again.hash(), name);
    EXPECT_EQ(again.userId(), 7);
}

TEST_F(ZebDataBlockManagerDiskThreeRoots, TheNextRunFindsFilesByTheirNames)
{
    constexpr quint32 blocks = 50;
    const int hashes = ZebHashManager::instance().hashCount();
    QStringList names;
    {
        std::vector<ZebDataReference> references;
        for (quint32 i = 0; i < blocks; ++i) {
            references.push_back(add(s_Block, i));
            names.append(references.back().hash());
        }
        manager().flush(true, ZebDataBlockManager::AllThreads);
    }
    m_Store.cleanUp();
    EXPECT_EQ(ZebHashManager::instance().hashCount(), hashes) << "nothing is remembered";
    EXPECT_THAT(fileNames(), testing::UnorderedElementsAreArray(names));

    m_Store.setupAgain();
    for (quint32 i = 0; i < blocks; ++i) {
        const ZebDataReference found(
            ZebHashManager::instance().getHash(names.at(static_cast<int>(i))));
        EXPECT_TRUE(holdsTestBytes(found, s_Block, i));
    }
    EXPECT_EQ(bytesWritten(), 0);
}

TEST_F(ZebDataBlockManagerDisk, TheNextRunReusesTheFilesOfEqualBytes)
{
    for (quint32 i = 0; i < 20; ++i)
        add(s_Block, i);
    m_Store.cleanUp();
    m_Store.setupAgain();
    std::vector<ZebDataReference> references;
    for (quint32 i = 0; i < 20; ++i)
        references.push_back(add(s_Block, i));
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), 20);
    EXPECT_EQ(bytesWritten(), 0);
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(StoreInside::blockOf(reference)->cached());
}

TEST_F(ZebDataBlockManagerDisk, DoNotCacheBlocksAreGoneWithTheStore)
{
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    m_Store.cleanUp();
    EXPECT_THAT(fileNames(), IsEmpty());
    m_Store.setupAgain();
    EXPECT_FALSE(kept.isInMemory());
    EXPECT_TRUE(kept.constAccessor().isNull());
}
