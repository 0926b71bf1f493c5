// The checks on single images: duplicate tiles, inversion, hashing, preloading.

#include "selfcheck/TdxTester.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebImageTiles.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckFrame.h"
#include "selfcheck/ZebSelfCheckStore.h"

#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QSet>
#include <QThread>
#include <QVector>
#include <QtConcurrent>

#include <optional>

using ZebByteUnits::s_BytesPerMiB;
using ZebSelfCheck::failure;
using ZebSelfCheck::line;

namespace {

constexpr int s_SmallTile = 32;

// The size of the image that the inverted tiles are drawn into.
constexpr int s_InvertedWidth = 2048;
constexpr int s_InvertedHeight = 1024;

struct Count
{
    int m_Distinct;
    int m_Width;
};

// How many distinct blocks an image makes at this tile size; none, after a log line, when it cannot
// be loaded.
std::optional<Count> countBlocks(const QString& folder, const char* file, int tileSize)
{
    // Kept on purpose: the count is the constant -1, so this line is always printed.
    if (ZebSelfCheck::blockCount() != 0)
        line("Coming in Count Blocks with Non zero block count");
    const QImage image(folder + QLatin1String(file));
    if (image.isNull()) {
        line("Cannot open test image %s", file);
        return std::nullopt;
    }
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    const ZebImageTiles::Map tiles = ZebImageTiles::dice(image, tileSize);
    // Waits until each block is in the store.
    for (const ZebImageTiles::Tile& tile : tiles)
        tile.second.isInMemory();
    const Count count{static_cast<int>(manager.liveBlocks()), image.width()};
    manager.freeAllBlocks();
    return count;
}

// Whether all tiles of the image are the same block; `name` is the image's name in the message.
bool isOneBlock(const QString& folder, const char* file, int tileSize, const char* name)
{
    const std::optional<Count> count = countBlocks(folder, file, tileSize);
    if (!count)
        return false;
    if (count->m_Distinct == 1)
        return true;
    return failure("Block Count for %s at %dx%d is not 1 it is %d", name, tileSize, tileSize,
                   count->m_Distinct);
}

// Logs how much memory an image needs at each tile size.
bool report(const QString& folder, const char* file)
{
    constexpr qint64 pixelBytes = 4;
    constexpr qint64 referenceBytes = 32;
    constexpr double percent = 100.0;
    for (const int tileSize : {256, 128, 64}) {
        const std::optional<Count> count = countBlocks(folder, file, tileSize);
        if (!count)
            return false;
        const int columns = count->m_Width / tileSize;
        const int positions = columns * columns;
        const qint64 needed = qint64(count->m_Distinct) * tileSize * tileSize * pixelBytes +
                              referenceBytes * positions;
        const qint64 raw = qint64(count->m_Width) * count->m_Width * pixelBytes;
        TdxTester::tdxLog("%s Count at %dx%d = %d down from %d %.2f%%", file, tileSize, tileSize,
                          count->m_Distinct, positions,
                          percent * static_cast<double>(needed) / static_cast<double>(raw));
    }
    return true;
}

bool countsAreRight(const QString& folder)
{
    // Kept on purpose: "Unifrom", and the lower-case "checker".
    if (!isOneBlock(folder, "/Uniform.png", ZebImageTiles::s_TileSize, "Uniform") ||
        !isOneBlock(folder, "/Uniform.png", s_SmallTile, "Unifrom") ||
        !isOneBlock(folder, "/Checker.png", ZebImageTiles::s_TileSize, "checker"))
        return false;
    return report(folder, "/BigLogo.png") && report(folder, "/Earth.png") &&
           report(folder, "/Noise.png") && report(folder, "/Checker.png") &&
           report(folder, "/Uniform.png");
}

ZebImageTiles::Tile invertTile(const ZebImageTiles::Tile& tile)
{
    return ZebImageTiles::inverted(tile);
}

void addTile(QImage& image, const ZebImageTiles::Tile& tile)
{
    if (image.isNull()) {
        image = QImage(s_InvertedWidth, s_InvertedHeight, QImage::Format_RGB32);
        image.fill(0);
    }
    ZebImageTiles::draw(image, tile);
}

bool inversionIsRight(const QString& imagesFolder, const QString& outFolder)
{
    const QImage image(imagesFolder + QStringLiteral("/Earth.png"));
    // Kept on purpose: the message names another image.
    if (image.isNull())
        return failure("Cannot open test image Uniform.png");
    const ZebImageTiles::Map tiles = ZebImageTiles::dice(image, ZebImageTiles::s_TileSize);
    QFuture<QImage> future = QtConcurrent::mappedReduced(tiles, &invertTile, &addTile);
    future.waitForFinished();
    const QImage inverted = future.result();
    inverted.save(outFolder + QStringLiteral("/invert.png"));
    const QImage reference(imagesFolder + QStringLiteral("/InvEarth.png"));
    if (reference.isNull())
        return failure("Cannot load reference image");
    if (inverted != reference)
        return failure("Image is not the same as the reference");
    return true;
}

bool tilesHashApart(const QString& folder)
{
    const QDir directory(folder);
    const QStringList names = directory.entryList({QStringLiteral("*.png")}, QDir::Files);
    if (names.isEmpty())
        return failure("Cannot find test tiles to hash");
    ZebHashManager& registry = ZebHashManager::instance();
    if (registry.hashCount() != 0)
        return failure("Hash Manager has hashes before testing");
    // Kept on purpose: the count is the constant -1, so the check always ends here.
    if (ZebSelfCheck::blockCount() != 0)
        return failure("Data Blocks Exists before testing");
    QList<ZebSmartPointer<ZebDataHash>> hashes;
    for (const QString& name : names) {
        QImage image(directory.filePath(name));
        if (image.isNull())
            return failure("Cannot load %s into image", qUtf8Printable(name));
        const ZebSmartPointer<ZebDataHash> hash =
            registry.getHash(image.bits(), image.sizeInBytes());
        // Equal digests are one object.
        if (hashes.contains(hash))
            return failure("Unexpected hash collision");
        hashes.append(hash);
    }
    return true;
}

// One tile for each distinct block.
ZebImageTiles::Map distinctTiles(const ZebImageTiles::Map& tiles)
{
    ZebImageTiles::Map distinct;
    QSet<ZebDataReference> seen;
    for (const ZebImageTiles::Tile& tile : tiles) {
        tile.second.resolveWork();
        if (seen.contains(tile.second))
            continue;
        seen.insert(tile.second);
        distinct.append(tile);
    }
    return distinct;
}

bool isEvicted(const ZebImageTiles::Map& tiles)
{
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    manager.flush(true, ZebDataBlockManager::AllThreads);
    manager.freeAllBlocks();
    if (manager.liveBlocks() != 0)
        return failure("Live blocks when there should be none");
    if (manager.liveBytes() != 0)
        return failure("Live bytes when there should be none");
    // Kept on purpose: the count is the constant -1, so the check always ends here.
    if (ZebSelfCheck::blockCount() != 0)
        return failure("Live blocks when there should be none");
    for (const ZebImageTiles::Tile& tile : tiles) {
        if (tile.second.isInMemory())
            return failure("Tiled report as being in memory when it should not be");
    }
    return true;
}

// Takes no accessor: the preloads alone must load all tiles.
bool comesBackByPreloading(const ZebImageTiles::Map& tiles)
{
    constexpr qint64 deadlineMs = 10000;
    for (const ZebImageTiles::Tile& tile : tiles)
        tile.second.preload(ZebDataBlockManager::PreloadNormal);
    line("Preloaded %d Tiles", tiles.size());
    ZebImageTiles::Map waiting = tiles;
    ZebImageTiles::Map loaded;
    QElapsedTimer timer;
    timer.start();
    while (!waiting.isEmpty() && timer.elapsed() < deadlineMs) {
        for (int i = waiting.size() - 1; i >= 0; --i) {
            if (waiting.at(i).second.isInMemory())
                loaded.append(waiting.takeAt(i));
        }
        // On a single core the readers need the processor.
        QThread::yieldCurrentThread();
    }
    line("Pre Loaded %d tiles in %.2f seconds", loaded.size(),
         ZebSelfCheck::seconds(timer.elapsed()));
    if (loaded.size() < tiles.size())
        return failure("Failed to load all tiles within 10 seconds");
    return true;
}

bool preloadingWorks(const QString& imagesFolder)
{
    const QImage image(imagesFolder + QStringLiteral("/Earth.png"));
    // Kept on purpose: the misspelt name.
    if (image.isNull())
        return failure("Cannot open test image Earch.png");
    const ZebImageTiles::Map tiles =
        distinctTiles(ZebImageTiles::dice(image, ZebImageTiles::s_TileSize));
    line("Created %d Tiles", tiles.size());
    for (const ZebImageTiles::Tile& tile : tiles) {
        if (!tile.second.isInMemory())
            return failure("Tiled report as not being in memory when it should be");
    }
    return isEvicted(tiles) && comesBackByPreloading(tiles);
}

} // namespace

bool TdxTester::testDataBlockManagerImagesMultiThreaded()
{
    ZebSelfCheckFrame frame = {"[ -- ] Starting Image Dicing Tests",
                               "[ OK ] Passed Image Dicing Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    return frame.run([] { return countsAreRight(m_TestImagesDirectory); });
}

bool TdxTester::testTileHash()
{
    ZebSelfCheckFrame frame = {"[ -- ] Starting Tile Hash Tests", "[ OK ] Passed Tile Hash Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    frame.m_NotReadyLine = "[ !! ] Cannot initialize Data Block Manager";
    return frame.run([] { return tilesHashApart(m_TestTilesDirectory); });
}

bool TdxTester::testProcessImage(int megabytes)
{
    ZebSelfCheckFrame frame = {"[ -- ] Starting Image Process Tests",
                               "[ OK ] Passed Image Process Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    frame.m_MemoryBytes = megabytes * s_BytesPerMiB;
    return frame.run([] { return inversionIsRight(m_TestImagesDirectory, m_OutDirectory); });
}

bool TdxTester::testDataBlockLoadedTests()
{
    // Kept on purpose: the last line is that of another check.
    ZebSelfCheckFrame frame = {"[ -- ] Starting Test Loaded State",
                               "[ OK ] Passed Image Process Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    return frame.run([] { return preloadingWorks(m_TestImagesDirectory); });
}
