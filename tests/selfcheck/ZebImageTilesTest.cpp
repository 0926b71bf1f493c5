#include "selfcheck/ZebImageTiles.h"

#include "selfcheck/ZebOverCompJobTest.h"
#include "selfcheck/ZebRedBlock.h"
#include "support/TemporaryStore.h"
#include "tools/commands/SampleData.h"

#include "manager/ZebDataBlockManager.h"

#include <QThreadPool>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string bytesOf(const ZebDataReference& reference)
{
    const ZebConstAccessor accessor = reference.constAccessor();
    return std::string(reinterpret_cast<const char*>(accessor.data()),
                       static_cast<size_t>(accessor.size()));
}

ZebDataReference add(const QByteArray& bytes)
{
    return ZebDataBlockManager::instance().addBlock(bytes);
}

ZebDataReference deferred(ZebBlockFuture* future)
{
    return ZebDataReference(ZebSmartPointer<ZebBlockFuture>(future));
}

} // namespace

TEST(ZebImageTiles, AWideImageGetsBlankTilesBelowIt)
{
    const TemporaryStore store;
    const QImage image = SampleData::noise(1, QSize(256, 128));
    const ZebImageTiles::Map tiles = ZebImageTiles::dice(image, 64);
    ASSERT_EQ(tiles.size(), 16);
    // Column by column, each as high as the image is wide.
    EXPECT_EQ(tiles.at(0).first, QRect(0, 0, 64, 64));
    EXPECT_EQ(tiles.at(1).first, QRect(0, 64, 64, 64));
    EXPECT_EQ(tiles.at(3).first, QRect(0, 192, 64, 64));
    EXPECT_EQ(tiles.at(4).first, QRect(64, 0, 64, 64));
    const std::string blank = bytesOf(tiles.at(2).second);
    ASSERT_EQ(blank.size(), 64U * 64U * 4U);
    for (size_t i = 0; i < blank.size(); ++i)
        ASSERT_EQ(blank[i], i % 4 == 3 ? '\xFF' : '\0') << i;
    // 8 tiles of the image, and all blank ones together.
    for (const ZebImageTiles::Tile& tile : tiles)
        tile.second.resolveWork();
    EXPECT_EQ(ZebDataBlockManager::instance().managedBlocks(), 9);
}

TEST(ZebImageTiles, AUniformImageIsOneBlockAtAnyTileSize)
{
    const TemporaryStore store;
    for (const int tileSize : {32, 64, 256}) {
        const ZebImageTiles::Map tiles = ZebImageTiles::dice(SampleData::uniform(), tileSize);
        for (const ZebImageTiles::Tile& tile : tiles)
            tile.second.resolveWork();
        EXPECT_EQ(ZebDataBlockManager::instance().managedBlocks(), 1) << tileSize;
    }
}

TEST(ZebImageTiles, TilesAssembleToTheSameImage)
{
    const TemporaryStore store;
    // Not a multiple of the tile size, with semi-transparent pixels.
    QImage image = SampleData::noise(2, QSize(100, 90)).convertToFormat(QImage::Format_ARGB32);
    for (int x = 0; x < 100; ++x)
        image.setPixel(x, 40, qRgba(200, 100, 50, x));
    const ZebImageTiles::Map tiles = ZebImageTiles::dice(image, 32);
    EXPECT_EQ(ZebImageTiles::assemble(tiles, image.size(), image.format()), image);
}

TEST(ZebImageTiles, ATallImageLosesItsRowsBelowItsWidth)
{
    const TemporaryStore store;
    const QImage image = SampleData::noise(2, QSize(64, 128));
    const ZebImageTiles::Map tiles = ZebImageTiles::dice(image, 32);
    EXPECT_EQ(tiles.size(), 4);
    QImage expected = image;
    for (int y = 64; y < 128; ++y) {
        for (int x = 0; x < 64; ++x)
            expected.setPixel(x, y, 0);
    }
    EXPECT_EQ(ZebImageTiles::assemble(tiles, image.size(), image.format()), expected);
}

TEST(ZebImageTiles, ABlockThatIsTooShortIsNotDrawn)
{
    const TemporaryStore store;
    QImage image(2, 2, QImage::Format_RGB32);
    image.fill(Qt::green);
    const QImage before = image.copy();
    ZebImageTiles::draw(image, {QRect(0, 0, 2, 2), add(QByteArray(15, 'x'))});
    EXPECT_EQ(image, before);
}

// With a size that is not a multiple of three, a full last step would write past the end of the
// block, which the sanitizers detect.
TEST(ZebImageTiles, InversionInvertsEveryByteAndStaysInTheBlock)
{
    const TemporaryStore store;
    for (const int size : {1, 2, 3, 4, 5, 64, 65}) {
        QByteArray bytes;
        std::string expected;
        for (int i = 0; i < size; ++i) {
            bytes.append(static_cast<char>(i * 3));
            expected.push_back(static_cast<char>(~(i * 3)));
        }
        const ZebImageTiles::Tile tile(QRect(1, 2, 3, 4), add(bytes));
        const ZebImageTiles::Tile inverted = ZebImageTiles::inverted(tile);
        EXPECT_EQ(inverted.first, tile.first);
        EXPECT_EQ(bytesOf(inverted.second), expected) << size;
        EXPECT_EQ(bytesOf(tile.second), bytes.toStdString()) << "the tile itself stays";
    }
}

TEST(ZebRedBlock, IsOpaqueRedAndAsLargeAsItsSource)
{
    const TemporaryStore store;
    const ZebDataReference red = deferred(new ZebRedBlock(add(QByteArray(12, 'x'))));
    EXPECT_TRUE(red.hasHashJob());
    std::string expected;
    for (int pixel = 0; pixel < 3; ++pixel) {
        const quint32 value = 0xFFFF0000U;
        expected.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
    EXPECT_EQ(bytesOf(red), expected);
    EXPECT_FALSE(red.hasHashJob());
}

TEST(ZebRedBlock, LeavesTheBytesAfterTheLastWholePixel)
{
    const TemporaryStore store;
    const std::string bytes = bytesOf(deferred(new ZebRedBlock(add(QByteArray(6, 'x')))));
    ASSERT_EQ(bytes.size(), 6U);
    EXPECT_EQ(bytes.substr(4), std::string(2, '\0'));
}

TEST(ZebOverCompJobTest, HalvesThreeBytesRoundedDownAndKeepsTheFourthOfTheFirst)
{
    const TemporaryStore store;
    const std::vector<unsigned char> a = {0, 1, 255, 7, 254, 100, 3, 200};
    const std::vector<unsigned char> b = {1, 2, 255, 9, 255, 101, 4, 100};
    const auto array = [](const std::vector<unsigned char>& bytes) {
        return QByteArray(reinterpret_cast<const char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
    };
    const std::string mixed =
        bytesOf(deferred(new ZebOverCompJobTest(add(array(a)), add(array(b)))));
    const std::vector<unsigned char> expected = {0, 1, 255, 7, 254, 100, 3, 200};
    EXPECT_EQ(mixed, array(expected).toStdString());
}

TEST(ZebOverCompJobTest, OfABlockAndItsRedCopy)
{
    const TemporaryStore store;
    const ZebDataReference source = add(QByteArray("\x10\x20\x31\x7F", 4));
    const ZebDataReference red = deferred(new ZebRedBlock(source));
    // Red is stored as blue, green, red, alpha.
    EXPECT_EQ(bytesOf(deferred(new ZebOverCompJobTest(source, red))),
              std::string("\x08\x10\x98\x7F", 4));
}

TEST(ZebOverCompJobTest, AChainOfDeferredBlocksNeedsOneThreadOnly)
{
    const TemporaryStore store;
    QThreadPool* const pool = QThreadPool::globalInstance();
    const int before = pool->maxThreadCount();
    pool->setMaxThreadCount(1);
    const ZebDataReference source = add(QByteArray(64, '\x08'));
    ZebDataReference last = source;
    for (int i = 0; i < 100; ++i) {
        const ZebDataReference red = deferred(new ZebRedBlock(last));
        last = deferred(new ZebOverCompJobTest(last, red));
    }
    const std::string bytes = bytesOf(last);
    pool->setMaxThreadCount(before);
    // Blue and green are 0; red is as near as rounding down allows.
    EXPECT_EQ(bytes.substr(0, 4), std::string("\0\0\xFE\x08", 4));
}
