#include "data/ZebDataBlock.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/BlockInside.h"
#include "support/Manager.h"
#include "support/TemporaryStore.h"

#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <numeric>
#include <type_traits>
#include <vector>

using BlockInside::accessCount;
using BlockInside::storedBytes;

namespace {

std::vector<unsigned char> counting(size_t size)
{
    std::vector<unsigned char> bytes(size);
    std::iota(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
    return bytes;
}

QByteArray asArray(const std::vector<unsigned char>& bytes)
{
    return {reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size())};
}

} // namespace

// Construction

TEST(ZebDataBlock, HasAVirtualDestructorAndMayBeDerivedFrom)
{
    static_assert(std::has_virtual_destructor_v<ZebDataBlock>);
    static_assert(!std::is_final_v<ZebDataBlock>);
    struct Derived : ZebDataBlock
    {
        explicit Derived(bool* isDeleted) : ZebDataBlock(QByteArray("abc")), m_IsDeleted(isDeleted)
        {}
        ~Derived() override { *m_IsDeleted = true; }
        bool* m_IsDeleted;
    };
    bool isDeleted = false;
    const ZebDataBlock* const block = new Derived(&isDeleted);
    EXPECT_EQ(block->size(), 3);
    delete block;
    EXPECT_TRUE(isDeleted);
}

TEST(ZebDataBlock, FillConstructorMakesEveryByteTheFill)
{
    const ZebDataBlock block(256, 0x80);
    EXPECT_EQ(block.size(), 256);
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(block.constData()[i], 0x80) << i;
    EXPECT_EQ(ZebDataBlock(256, 0).size(), 256);
}

TEST(ZebDataBlock, SizeZeroMakesAnEmptyBlock)
{
    // Two literal zeros are a size and a fill, not a null pointer and a size.
    ZebDataBlock block(0, 0);
    EXPECT_EQ(block.size(), 0);
    EXPECT_TRUE(storedBytes(block).isEmpty());
    EXPECT_NE(block.constData(), nullptr);
    EXPECT_NE(block.data(), nullptr);
}

TEST(ZebDataBlock, PointerConstructorCopiesTheBytes)
{
    std::vector<unsigned char> bytes = counting(256);
    const ZebDataBlock block(bytes.data(), 256);
    EXPECT_EQ(block.size(), 256);
    EXPECT_NE(block.constData(), bytes.data());
    bytes[7] = 0xFF;
    EXPECT_EQ(block.constData()[7], 7);
    EXPECT_EQ(block.constData()[255], 255);
}

TEST(ZebDataBlock, BytesMayHoldZeros)
{
    const unsigned char bytes[] = {0, 1, 0, 2};
    ZebDataBlock block(bytes, 4);
    ASSERT_EQ(storedBytes(block).size(), 4);
    EXPECT_EQ(block.constData()[3], 2);
}

TEST(ZebDataBlock, NullPointerWithASizeKeepsTheSizeAndHoldsNoBytes)
{
    ZebDataBlock block(nullptr, 256);
    EXPECT_EQ(block.size(), 256);
    EXPECT_TRUE(storedBytes(block).isEmpty());
    ZebDataBlock copy(block);
    EXPECT_EQ(copy.size(), 256);
    EXPECT_TRUE(storedBytes(copy).isEmpty());
}

TEST(ZebDataBlock, ArrayConstructorTakesTheSizeOfTheArray)
{
    EXPECT_EQ(ZebDataBlock(QByteArray(1024, 0)).size(), 1024);
    EXPECT_EQ(ZebDataBlock(QByteArray("")).size(), 0);
    EXPECT_EQ(ZebDataBlock(QByteArray()).size(), 0);
}

TEST(ZebDataBlock, StorageIsPrivate)
{
    QByteArray bytes(1024, 'a');
    ZebDataBlock block(bytes);
    EXPECT_NE(reinterpret_cast<const char*>(block.constData()), bytes.constData());
    EXPECT_TRUE(bytes.isDetached());
    EXPECT_TRUE(storedBytes(block).isDetached());
    bytes.fill('b');
    EXPECT_EQ(block.constData()[0], 'a');
}

TEST(ZebDataBlock, StorageIsPrivateOverRawData)
{
    std::vector<unsigned char> buffer = counting(512);
    const QByteArray raw =
        QByteArray::fromRawData(reinterpret_cast<const char*>(buffer.data()), 512);
    const ZebDataBlock block(raw);
    EXPECT_NE(block.constData(), buffer.data());
    buffer[0] = 0x55;
    EXPECT_EQ(block.size(), 512);
    EXPECT_EQ(block.constData()[0], 0);
    EXPECT_EQ(block.constData()[511], 0xFF);
}

TEST(ZebDataBlock, SizeHas64BitsWhileTheArrayHas32)
{
    const std::vector<unsigned char> bytes = counting(16);
    const qint64 size = (1LL << 32) + 16;

    ZebDataBlock copied(bytes.data(), size);
    EXPECT_EQ(copied.size(), size);
    EXPECT_EQ(storedBytes(copied), asArray(bytes));

    ZebDataBlock filled(size, 0xAB);
    EXPECT_EQ(filled.size(), size);
    EXPECT_EQ(storedBytes(filled), QByteArray(16, static_cast<char>(0xAB)));
}

TEST(ZebDataBlock, ASizeThatLeavesNoArrayLengthReadsNoByte)
{
    const std::vector<unsigned char> bytes = counting(16);
    for (const qint64 size : {qint64(-1), qint64(1) << 31, qint64(1) << 32}) {
        ZebDataBlock copied(bytes.data() + 1, size);
        EXPECT_EQ(copied.size(), size);
        EXPECT_TRUE(storedBytes(copied).isEmpty()) << size;

        ZebDataBlock filled(size, 0xAB);
        EXPECT_EQ(filled.size(), size);
        EXPECT_TRUE(storedBytes(filled).isEmpty()) << size;
    }
}

TEST(ZebDataBlock, StartsPlainUncachedAndWithoutAccessors)
{
    const std::vector<unsigned char> bytes = counting(4);
    ZebDataBlock fromArray(asArray(bytes));
    ZebDataBlock fromPointer(bytes.data(), 4);
    ZebDataBlock fromFill(4, 1);
    ZebDataBlock fromBlock(fromFill);
    for (ZebDataBlock* const block : {&fromArray, &fromPointer, &fromFill, &fromBlock}) {
        EXPECT_FALSE(block->isCompressed());
        EXPECT_FALSE(block->cached());
        EXPECT_EQ(accessCount(*block).loadRelaxed(), 0);
    }
}

TEST(ZebDataBlock, CopyHasStorageOfItsOwn)
{
    ZebDataBlock block(asArray(counting(1024)));
    ZebDataBlock copy(block);
    EXPECT_TRUE(copy == block);
    EXPECT_EQ(copy.size(), 1024);
    EXPECT_NE(copy.constData(), block.constData());
    EXPECT_TRUE(storedBytes(copy).isDetached());
    copy.data()[0] = 9;
    EXPECT_EQ(block.constData()[0], 0);
}

TEST(ZebDataBlock, CopyTakesNeitherTheCachedMarkNorTheAccessCount)
{
    ZebDataBlock block(16, 1);
    BlockInside::cached(block).store(true);
    accessCount(block).storeRelaxed(3);
    ZebDataBlock copy(block);
    EXPECT_FALSE(copy.cached());
    EXPECT_EQ(accessCount(copy).loadRelaxed(), 0);
    EXPECT_TRUE(block.cached());
    EXPECT_EQ(accessCount(block).loadRelaxed(), 3);
}

TEST(ZebDataBlock, CopyOfACompressedBlockIsCompressed)
{
    const QByteArray text = BlockFiles::text(1500);
    ZebDataBlock block(text);
    ASSERT_TRUE(block.compress(4));
    ZebDataBlock copy(block);
    EXPECT_TRUE(copy.isCompressed());
    EXPECT_EQ(copy.size(), text.size());
    EXPECT_TRUE(copy == block);
    ASSERT_TRUE(copy.uncompress());
    EXPECT_EQ(storedBytes(copy), text);
    EXPECT_TRUE(block.isCompressed());
}

// Assignment and comparison

TEST(ZebDataBlock, AssignmentTakesBytesSizeAndCompression)
{
    const QByteArray text = BlockFiles::text(1500);
    ZebDataBlock source(text);
    ASSERT_TRUE(source.compress(4));
    ZebDataBlock target(16, 1);
    target = source;
    EXPECT_TRUE(target == source);
    EXPECT_TRUE(target.isCompressed());
    EXPECT_EQ(target.size(), text.size());
    EXPECT_NE(target.constData(), source.constData());
    EXPECT_TRUE(storedBytes(target).isDetached());

    const ZebDataBlock plain(8, 2);
    target = plain;
    EXPECT_FALSE(target.isCompressed());
    EXPECT_EQ(target.size(), 8);
    EXPECT_TRUE(target == plain);
}

TEST(ZebDataBlock, AssignmentKeepsTheTargetsCachedMarkAndAccessCount)
{
    ZebDataBlock source(16, 1);
    BlockInside::cached(source).store(true);
    accessCount(source).storeRelaxed(5);
    ZebDataBlock target(16, 2);
    accessCount(target).storeRelaxed(2);
    target = source;
    EXPECT_FALSE(target.cached());
    EXPECT_EQ(accessCount(target).loadRelaxed(), 2);

    BlockInside::cached(target).store(true);
    target = ZebDataBlock(4, 3);
    EXPECT_TRUE(target.cached());
}

TEST(ZebDataBlock, SelfAssignmentChangesNothing)
{
    ZebDataBlock block(asArray(counting(64)));
    const ZebDataBlock& alias = block;
    block = alias;
    EXPECT_EQ(storedBytes(block), asArray(counting(64)));
    EXPECT_EQ(block.size(), 64);
}

TEST(ZebDataBlock, ComparisonsAgreeOnEqualAndDifferentBytes)
{
    const ZebDataBlock a(1024, 1);
    const ZebDataBlock same(1024, 1);
    const ZebDataBlock copied(a);
    ZebDataBlock assigned(1, 0);
    assigned = a;
    for (const ZebDataBlock* const other :
         std::initializer_list<const ZebDataBlock*>{&same, &copied, &assigned}) {
        EXPECT_TRUE(a == *other);
        EXPECT_FALSE(a != *other);
    }

    ZebDataBlock lastDiffers(1024, 1);
    lastDiffers.data()[1023] = 2;
    const ZebDataBlock shorter(1023, 1);
    const ZebDataBlock longer(1025, 1);
    for (const ZebDataBlock* const other :
         std::initializer_list<const ZebDataBlock*>{&lastDiffers, &shorter, &longer}) {
        EXPECT_FALSE(a == *other);
        EXPECT_TRUE(a != *other);
    }
    EXPECT_TRUE(ZebDataBlock(QByteArray()) == ZebDataBlock(QByteArray("")));
}

TEST(ZebDataBlock, ComparisonUsesStoredBytesAndNotTheSize)
{
    EXPECT_TRUE(ZebDataBlock(nullptr, 256) == ZebDataBlock(nullptr, 0));
    EXPECT_TRUE(ZebDataBlock(nullptr, 256) != ZebDataBlock(256, 0));
}

// Read-outs

TEST(ZebDataBlock, DataIsTheAddressToWriteThrough)
{
    ZebDataBlock block(32, 0);
    unsigned char* const bytes = block.data();
    ASSERT_NE(bytes, nullptr);
    bytes[31] = 0x7F;
    EXPECT_EQ(block.constData(), bytes);
    EXPECT_EQ(block.constData()[31], 0x7F);
}

TEST(ZebDataBlock, DataDetachesFromASharedArray)
{
    ZebDataBlock block(32, 1);
    const QByteArray sharer = storedBytes(block);
    block.data()[0] = 2;
    EXPECT_EQ(sharer.at(0), 1);
    EXPECT_EQ(block.constData()[0], 2);
}

TEST(ZebDataBlock, HashIsAFreshUninternedDigestOf64Bytes)
{
    const int registered = ZebHashManager::instance().hashCount();
    const QByteArray bytes = asArray(counting(256));
    const ZebDataBlock a(bytes);
    const ZebDataBlock b(bytes);
    const ZebSmartPointer<ZebDataHash> first = a.hash();
    const ZebSmartPointer<ZebDataHash> second = b.hash();
    ASSERT_FALSE(first.isNull());
    EXPECT_EQ(first->size(), ZebDataHash::Hash512);
    EXPECT_EQ(first->refCount(), 1);
    EXPECT_TRUE(*first == *second);
    EXPECT_NE(first.data(), second.data());
    EXPECT_NE(first.data(), a.hash().data());
    EXPECT_TRUE(*first == ZebDataHash(bytes, ZebDataHash::Hash512));
    EXPECT_EQ(ZebHashManager::instance().hashCount(), registered);
    EXPECT_TRUE(*first != *ZebDataBlock(256, 0).hash());
}

TEST(ZebDataBlock, HashOfACompressedBlockIsThatOfItsStoredBytes)
{
    const QByteArray text = BlockFiles::text(1500);
    ZebDataBlock block(text);
    ASSERT_TRUE(block.compress(4));
    const ZebSmartPointer<ZebDataHash> hash = block.hash();
    EXPECT_TRUE(*hash == ZebDataHash(qCompress(text, 4), ZebDataHash::Hash512));
    EXPECT_TRUE(*hash != ZebDataHash(text, ZebDataHash::Hash512));
}

TEST(ZebDataBlock, BlocksAreNotCounted)
{
    EXPECT_EQ(ZebDataBlock::blockCount(), -1);
    const ZebDataBlock block(1, 1);
    EXPECT_EQ(ZebDataBlock::blockCount(), -1);
}

TEST(ZebDataBlock, MaxBlockSizeIsTheMemoryLimitOrWhatAnArrayHolds)
{
    TemporaryStore store;
    const struct
    {
        qint64 m_Limit;
        qint64 m_Expected;
    } rows[] = {{1000, 1000},
                {0, 0},
                {0x7FFFFFFELL, 0x7FFFFFFELL},
                {0x7FFFFFFFLL, 0x7FFFFFFFLL},
                {0x80000000LL, 0x7FFFFFFFLL},
                {0x100000000LL, 0x7FFFFFFFLL}};
    for (const auto& row : rows) {
        manager().setMaxDataCacheSize(row.m_Limit);
        EXPECT_EQ(ZebDataBlock::maxBlockSize(), row.m_Expected) << row.m_Limit;
    }
    store.cleanUp();
    EXPECT_EQ(ZebDataBlock::maxBlockSize(), 0);
}
