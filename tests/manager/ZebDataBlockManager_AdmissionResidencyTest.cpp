// How the store makes a block resident, or refuses it.

#include "manager/ZebDataBlockManager.h"

#include "support/BytesOf.h"
#include "support/CountedBlock.h"
#include "support/FakeMemory.h"
#include "support/Fatal.h"
#include "support/Manager.h"
#include "support/ResidencyKit.h"
#include "support/StoreInside.h"
#include "support/TemporaryStore.h"
#include "support/TestBytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace ResidencyKit;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr int s_Block = 1000;
constexpr int s_Megabyte = 1048576;

TemporaryStore::Options withMemory(qint64 bytes)
{
    TemporaryStore::Options options;
    options.m_Memory = bytes;
    return options;
}

ZebDataReference add(int size, quint32 seed)
{
    return manager().addBlock(testBytes(size, seed), ZebModifyAccessor::Cached, true);
}

} // namespace

TEST(ZebDataBlockManagerAdmissionResidency, ANewBlockIsResidentCountedAndTheNewest)
{
    const TemporaryStore store;
    const ThreeBlocks blocks;
    const Hash hash = hashOf("4444");
    auto* const block = new ZebDataBlock(QByteArray("4444"));
    makeBlockLive(hash.data(), block);
    EXPECT_EQ(residentBlock(hash), block);
    EXPECT_EQ(manager().liveBytes(), 10);
    EXPECT_EQ(manager().liveBlocks(), 4);
    EXPECT_THAT(newestToOldest(),
                ElementsAre(hash.data(), blocks.three(), blocks.two(), blocks.one()));
}

TEST(ZebDataBlockManagerAdmissionResidency, NullArgumentsEndTheProcessTheBlockFirst)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            makeBlockLive(nullptr, nullptr);
        },
        "Null Value Passed For *Me");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const Hash hash = hashOf("a");
            makeBlockLive(hash.data(), nullptr);
        },
        "Null Value Passed For *Me");
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            makeBlockLive(nullptr, new ZebDataBlock(QByteArray("a")));
        },
        "Null Value Passed For *Ptr");
}

TEST(ZebDataBlockManagerAdmissionResidency, ANullBlockOfAResidentHashEndsTheProcessToo)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store;
            const ThreeBlocks blocks;
            makeBlockLive(blocks.one(), nullptr);
        },
        "Null Value Passed For *Me");
}

TEST(ZebDataBlockManagerAdmissionResidency, TheFirstBlockOfAHashStaysAndASecondIsDeleted)
{
    std::atomic<int> deleted{0};
    std::atomic<int> newcomersDeleted{0};
    const TemporaryStore store;
    const Hash hash = hashOf("bytes");
    ZebDataBlock* const first = onDisk(new CountedBlock("bytes", &deleted));
    makeBlockLive(hash.data(), first);
    makeBlockLive(hash.data(), new CountedBlock("bytes", &newcomersDeleted));
    EXPECT_EQ(deleted, 0);
    EXPECT_EQ(newcomersDeleted, 1);
    EXPECT_EQ(residentBlock(hash), first);
    EXPECT_EQ(StoreInside::residentBlocks(), 1);
    EXPECT_EQ(manager().liveBytes(), 5);
    EXPECT_EQ(manager().liveBlocks(), 1);
}

TEST(ZebDataBlockManagerAdmissionResidency, ABlockOfExactlyTheLimitIsAdmitted)
{
    const TemporaryStore store(withMemory(100));
    const ZebDataReference cached =
        manager().addBlock(QByteArray(100, 'x'), ZebModifyAccessor::Cached, true);
    EXPECT_TRUE(cached.isInMemory());
    const ZebDataReference notCached =
        manager().addBlock(QByteArray(100, 'x'), ZebModifyAccessor::DontCache);
    EXPECT_TRUE(notCached.isInMemory());
}

TEST(ZebDataBlockManagerAdmissionResidency, ABlockAboveTheLimitEndsTheProcess)
{
    EXPECT_FATAL(
        {
            const TemporaryStore store(withMemory(100));
            manager().addBlock(QByteArray(101, 'x'), ZebModifyAccessor::Cached, true);
        },
        "Requested Block is larger than the maximum allocation size 101 / 100");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withMemory(100));
            manager().addBlock(QByteArray(5000, 'x'), ZebModifyAccessor::DontCache);
        },
        "Requested Block is larger than the maximum allocation size 5000 / 100");
    EXPECT_FATAL(
        {
            const TemporaryStore store(withMemory(0));
            const Hash hash = hashOf("a");
            makeBlockLive(hash.data(), new ZebDataBlock(QByteArray("a")));
        },
        "Requested Block is larger than the maximum allocation size 1 / 0");
}

TEST(ZebDataBlockManagerAdmissionResidency, ADuplicateAboveTheLimitIsDroppedSilently)
{
    TemporaryStore store(withMemory(100));
    const QByteArray bytes(100, 'x');
    const ZebDataReference first = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    manager().setMaxDataCacheSize(99);
    store.messages().clear();
    const ZebDataReference again = manager().addBlock(bytes, ZebModifyAccessor::Cached, true);
    EXPECT_EQ(again, first);
    EXPECT_EQ(manager().liveBytes(), 100);
    EXPECT_TRUE(store.messages().messages().isEmpty());
}

TEST(ZebDataBlockManagerAdmissionResidency, TheSizeIsThatOfThePlainBytes)
{
    const TemporaryStore store(withMemory(5000));
    auto block = std::make_unique<ZebDataBlock>(5000, static_cast<unsigned char>(7));
    ASSERT_TRUE(block->compress());
    const Hash hash = hashOf("five thousand sevens");
    makeBlockLive(hash.data(), block.release());
    EXPECT_EQ(manager().liveBytes(), 5000);
    EXPECT_EQ(manager().blockSize(hash.data()), 5000);
}

TEST(ZebDataBlockManagerAdmissionResidency, ABlockLoadedFromDiskIsEvictable)
{
    const TemporaryStore store;
    const Hash hash = hashOf("bytes");
    makeBlockLive(hash.data(), onDisk(new ZebDataBlock(QByteArray("bytes"))));
    EXPECT_THAT(newestToOldest(), ElementsAre(hash.data()));
}

TEST(ZebDataBlockManagerAdmissionResidency, TheRootIsLookedUpBeforeTheBlocksFileIsConsidered)
{
    EXPECT_FATAL(
        {
            TemporaryStore::Options options;
            options.m_Roots = 0;
            const TemporaryStore store(options);
            const Hash hash = hashOf("bytes");
            makeBlockLive(hash.data(), onDisk(new ZebDataBlock(QByteArray("bytes"))));
        },
        "Number of cache paths is zero");
}

TEST(ZebDataBlockManagerAdmissionResidency, AnUncachedBlockIsResidentAndNeverEvictable)
{
    const TemporaryStore store;
    const Hash hash = dontCacheHash("identity");
    auto* const block = new ZebDataBlock(QByteArray("bytes"));
    makeBlockLive(hash.data(), block);
    EXPECT_EQ(residentBlock(hash), block);
    EXPECT_EQ(manager().liveBytes(), 5);
    EXPECT_THAT(newestToOldest(), IsEmpty());
    lockBlock(hash.data());
    unlockBlock(hash.data());
    blockUsed(hash.data());
    EXPECT_THAT(newestToOldest(), IsEmpty());
    EXPECT_TRUE(blockIsLocked(hash.data()));
    EXPECT_TRUE(manager().isInMemory(hash.data()));
}

TEST(ZebDataBlockManagerAdmissionResidency, ReadersAndAdmissionsKeepTheTablesInStep)
{
    const TemporaryStore store;
    constexpr int contents = 20;
    std::vector<ZebDataReference> references;
    for (int i = 0; i < contents; ++i)
        references.push_back(manager().addBlock(QByteArray(10, static_cast<char>('a' + i))));
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 3; ++seed) {
        threads.emplace_back([mine = references, seed] {
            for (unsigned round = 0; round < 400; ++round) {
                const ZebDataReference& reference = mine[(round * 7 + seed * 5) % contents];
                const ZebConstAccessor accessor = reference.constAccessor();
                ASSERT_FALSE(accessor.isNull());
                ASSERT_EQ(accessor.size(), 10);
                ASSERT_EQ(accessor.data()[0], accessor.data()[9]);
                ASSERT_TRUE(reference.isInMemory());
                manager().addBlock(QByteArray(10, static_cast<char>(accessor.data()[0])),
                                   ZebModifyAccessor::Cached, true);
                manager().addBlock("passing", ZebModifyAccessor::DontCache);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(StoreInside::residentBlocks(), contents);
    EXPECT_EQ(manager().liveBlocks(), contents);
    EXPECT_EQ(manager().liveBytes(), 10 * contents);
    EXPECT_EQ(newestToOldest().size(), static_cast<size_t>(contents));
}

TEST(ZebDataBlockManagerAdmissionResidency, AResidentBlockAboveTheLimitMayBeAddedAgainButNotLoaded)
{
    const TemporaryStore store;
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

TEST(ZebDataBlockManagerAdmissionResidency, BytesThatAreOnDiskAreNotWrittenAgain)
{
    const TemporaryStore store;
    const ZebDataReference reference = add(s_Block, 1);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    manager().freeAllBlocks();
    const int handled = StoreInside::writesHandled();
    const qint64 written = StoreInside::bytesWritten();
    EXPECT_GT(written, 0);
    ZebModifyAccessor accessor = manager().createNewBlock(testBytes(s_Block, 1));
    EXPECT_EQ(accessor.release(ZebModifyAccessor::Cached, true), reference);
    manager().flush(true, ZebDataBlockManager::AllThreads);
    EXPECT_EQ(StoreInside::writesHandled(), handled + 1);
    EXPECT_EQ(StoreInside::bytesWritten(), written);
    EXPECT_TRUE(StoreInside::blockOf(reference)->cached());
}
