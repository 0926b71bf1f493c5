// How a block that is only on disk is found and loaded, in this run or a later one.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebHashManager.h"
#include "support/FilesBelow.h"
#include "support/Manager.h"
#include "support/ResidencyKit.h"
#include "support/SequencePoints.h"
#include "support/StoreFixture.h"
#include "support/StoreInside.h"
#include "support/TestBytes.h"
#include "support/ZebDataDeleteLocker.h"

#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <optional>
#include <vector>

using namespace ResidencyKit;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ZebDataBlockManagerLoading : public StoreFixture
{
protected:
    using StoreFixture::StoreFixture;
};

class ZebDataBlockManagerLoadingThreeRoots : public ZebDataBlockManagerLoading
{
protected:
    ZebDataBlockManagerLoadingThreeRoots() : ZebDataBlockManagerLoading(withRoots(3)) {}
};

} // namespace

// Reading back

TEST_F(ZebDataBlockManagerLoadingThreeRoots, EveryAccessorLoadsItsBlock)
{
    std::vector<int> sizes = {1, 7, 8, 4095, 4096, 4097, 3 * s_Megabyte};
    for (int i = 0; i < 200; ++i)
        sizes.push_back(100 + i * 37);
    std::vector<ZebDataReference> references;
    for (std::size_t i = 0; i < sizes.size(); ++i)
        references.push_back(add(sizes.at(i), static_cast<quint32>(i)));
    const qint64 managed = manager().managedBlocks();
    moveToDisk();
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

TEST_F(ZebDataBlockManagerLoading, AnEmptyBlockIsLoadedEmpty)
{
    const ZebDataReference reference =
        manager().addBlock(QByteArray(), ZebModifyAccessor::Cached, true);
    moveToDisk();
    const ZebConstAccessor accessor = reference.constAccessor();
    ASSERT_FALSE(accessor.isNull());
    EXPECT_EQ(accessor.size(), 0);
}

TEST_F(ZebDataBlockManagerLoading, ALoadedBlockIsNotWritten)
{
    const ZebDataReference reference = add(s_Block, 1);
    moveToDisk();
    const int handled = StoreInside::writesHandled();
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled);
}

TEST_F(ZebDataBlockManagerLoading, LoadingMakesRoom)
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

TEST_F(ZebDataBlockManagerLoading, AnAccessorKeepsItsBytesInPlaceDuringEvictions)
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

TEST_F(ZebDataBlockManagerLoading, AnAccessorKeepsABlockWhoseLastReferenceIsGone)
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

TEST_F(ZebDataBlockManagerLoading, ManyThreadsThatReadOneBlockConcurrentlyShareIt)
{
    constexpr int threads = 8;
    const ZebDataReference reference = add(s_Megabyte, 1);
    for (int round = 0; round < 20; ++round) {
        moveToDisk();
        SequencePoints points;
        std::vector<std::future<const unsigned char*>> reads;
        for (int t = 0; t < threads; ++t) {
            reads.push_back(std::async(std::launch::async, [reference, &points] {
                points.wait("start");
                const ZebConstAccessor accessor = reference.constAccessor();
                // All accessors are open at once, so that no block can reuse the memory of an
                // earlier one.
                points.reached("open");
                points.wait("open", threads);
                return accessor.isNull() ? nullptr : accessor.data();
            }));
        }
        points.reached("start");
        const unsigned char* const bytes = reads.front().get();
        EXPECT_NE(bytes, nullptr);
        for (std::size_t t = 1; t < reads.size(); ++t)
            EXPECT_EQ(reads.at(t).get(), bytes);
        EXPECT_EQ(manager().liveBytes(), s_Megabyte);
        EXPECT_EQ(manager().liveBlocks(), 1);
    }
    EXPECT_TRUE(holdsTestBytes(reference, s_Megabyte, 1));
}

TEST_F(ZebDataBlockManagerLoading, AMissingBlockGivesNullAccessorsAndNoSize)
{
    const ZebDataReference reference = add(s_Block, 1);
    moveToDisk();
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

TEST_F(ZebDataBlockManagerLoading, TheSizeOfABlockOnDiskLoadsIt)
{
    const ZebDataReference reference = add(s_Block, 1);
    moveToDisk();
    EXPECT_EQ(manager().blockSize(reference.hashPtr().data()), s_Block);
    EXPECT_TRUE(reference.isInMemory());
    EXPECT_EQ(manager().blockSize(nullptr), 0);
}

// Counts, references and copies

TEST_F(ZebDataBlockManagerLoading, ManagedBlocksCountTheBlocksOnDiskAndLiveBlocksDoNot)
{
    const qint64 managed = manager().managedBlocks();
    const ZebDataReference onDisk = add(s_Block, 1);
    moveToDisk();
    const ZebDataReference resident = add(s_Block, 2);
    EXPECT_EQ(manager().managedBlocks(), managed + 2);
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST_F(ZebDataBlockManagerLoading, TheHostsValueOutlivesTheBlockInMemory)
{
    ZebDataReference reference = add(s_Block, 1);
    reference.setUserId(42);
    moveToDisk();
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
    EXPECT_EQ(reference.userId(), 42);
    EXPECT_EQ(add(s_Block, 1).userId(), 42);
}

TEST_F(ZebDataBlockManagerLoading, APendingReferenceResolvesAfterItsBlockWasEvicted)
{
    const ZebDataReference reference = manager().addBlock(testBytes(s_Block, 1));
    const ZebDataReference copy(reference);
    EXPECT_TRUE(reference.isInMemory());
    moveToDisk();
    EXPECT_TRUE(copy.hasHashJob());
    EXPECT_TRUE(holdsTestBytes(copy, s_Block, 1));
    EXPECT_EQ(copy, reference);
}

TEST_F(ZebDataBlockManagerLoading, ACopyOfABlockOnDiskMayBeChangedAndTheBlockStays)
{
    const ZebDataReference reference = add(s_Block, 1);
    moveToDisk();
    ZebModifyAccessor accessor = reference.modifyAccessor();
    ASSERT_EQ(accessor.size(), s_Block);
    EXPECT_EQ(std::memcmp(accessor.data(), testBytes(s_Block, 1).constData(), s_Block), 0);
    std::memcpy(accessor.data(), testBytes(s_Block, 2).constData(), s_Block);
    const ZebDataReference changed = accessor.release(ZebModifyAccessor::Cached, true);
    EXPECT_NE(changed, reference);
    moveToDisk();
    EXPECT_TRUE(holdsTestBytes(reference, s_Block, 1));
    EXPECT_TRUE(holdsTestBytes(changed, s_Block, 2));
}

// A later run on the same roots

TEST_F(ZebDataBlockManagerLoading, AReferenceOutlivesTheStoreAndReadsFromTheNextOne)
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

TEST_F(ZebDataBlockManagerLoadingThreeRoots, TheNextRunFindsFilesByTheirNames)
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
    EXPECT_THAT(filesBelow(m_Store.roots()), testing::UnorderedElementsAreArray(names));

    m_Store.setupAgain();
    for (quint32 i = 0; i < blocks; ++i) {
        const ZebDataReference found(
            ZebHashManager::instance().getHash(names.at(static_cast<int>(i))));
        EXPECT_TRUE(holdsTestBytes(found, s_Block, i));
    }
    EXPECT_EQ(StoreInside::bytesWritten(), 0);
}

TEST_F(ZebDataBlockManagerLoading, TheNextRunReusesTheFilesOfEqualBytes)
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
    EXPECT_EQ(StoreInside::bytesWritten(), 0);
    for (const ZebDataReference& reference : references)
        EXPECT_TRUE(StoreInside::blockOf(reference)->cached());
}

TEST_F(ZebDataBlockManagerLoading, UncachedBlocksEndWithTheStore)
{
    const ZebDataReference kept =
        manager().addBlock(testBytes(s_Block, 1), ZebModifyAccessor::DontCache);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    m_Store.cleanUp();
    EXPECT_THAT(filesBelow(m_Store.roots()), IsEmpty());
    m_Store.setupAgain();
    EXPECT_FALSE(kept.isInMemory());
    EXPECT_TRUE(kept.constAccessor().isNull());
}

// Blocks that were never stored

TEST_F(ZebDataBlockManagerLoading, AResidentBlockIsFoundByItsHash)
{
    const ThreeBlocks blocks;
    const Hash absent = hashOf("absent");
    {
        const ZebDataDeleteLocker locker;
        EXPECT_EQ(getDataBlock(blocks.two()), StoreInside::blockOf(blocks.m_Two));
        EXPECT_NE(getDataBlock(blocks.two()), nullptr);
        EXPECT_EQ(getDataBlock(nullptr), nullptr);
        EXPECT_EQ(getDataBlock(absent.data()), nullptr);
    }
    EXPECT_EQ(residentBlock(absent), nullptr);
    EXPECT_THAT(newestToOldest(), ElementsAre(blocks.three(), blocks.two(), blocks.one()));
}

TEST_F(ZebDataBlockManagerLoading, TheSizeOfABlockThatDoesNotExistIsZero)
{
    const Hash absent = hashOf("absent");
    EXPECT_EQ(manager().blockSize(absent.data()), 0);
    EXPECT_EQ(manager().blockSize(nullptr), 0);
}

TEST_F(ZebDataBlockManagerLoading, AHashWithoutABlockIsManagedAndNotLive)
{
    const Hash absent = hashOf("absent");
    EXPECT_EQ(manager().managedBlocks(), 1);
    EXPECT_EQ(manager().liveBlocks(), 0);
    EXPECT_EQ(manager().liveBytes(), 0);
}
