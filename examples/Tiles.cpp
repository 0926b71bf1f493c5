// A host for images: cuts an image into tiles, adds the tiles to the store, inverts the colours of
// all tiles in parallel, assembles them again, and saves the result. Equal tiles are stored once,
// which a drawing or a screenshot with large plain areas shows best.
//
//     tiles INPUT OUTPUT.png

#include "data/ZebDataReference.h"
#include "manager/ZebDataBlockManager.h"

#include <QCoreApplication>
#include <QImage>
#include <QRect>
#include <QSet>
#include <QStringList>
#include <QTemporaryDir>
#include <QVector>
#include <QtConcurrentMap>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace {

constexpr int s_TileSide = 256;
constexpr int s_PixelBytes = 4;

// Far less than a large image needs. Blocks that do not fit are evicted to the disk cache.
constexpr qint64 s_MemoryLimit = 64LL << 20;

struct Tile
{
    QRect m_Place;
    ZebDataReference m_Pixels;
};

qint64 bytesOf(const Tile& tile)
{
    return qint64(tile.m_Place.width()) * tile.m_Place.height() * s_PixelBytes;
}

// The tiles of an image of 4 bytes per pixel, row by row; those at the edges may be smaller.
QVector<Tile> dice(const QImage& image)
{
    QVector<Tile> tiles;
    for (int y = 0; y < image.height(); y += s_TileSide) {
        for (int x = 0; x < image.width(); x += s_TileSide) {
            const QRect place = QRect(x, y, s_TileSide, s_TileSide).intersected(image.rect());
            const int rowBytes = place.width() * s_PixelBytes;
            QByteArray pixels;
            pixels.reserve(rowBytes * place.height());
            for (int row = place.top(); row <= place.bottom(); ++row) {
                const uchar* const line = image.constScanLine(row) + x * s_PixelBytes;
                pixels.append(reinterpret_cast<const char*>(line), rowBytes);
            }
            // The block is hashed in the background while the next tile is cut.
            tiles.append({place, ZebDataBlockManager::instance().addBlock(pixels)});
        }
    }
    return tiles;
}

// Prints how many tiles are distinct, and how many bytes the others save.
void report(const char* title, const QVector<Tile>& tiles)
{
    QSet<ZebDataReference> distinct;
    qint64 allBytes = 0;
    qint64 savedBytes = 0;
    for (const Tile& tile : tiles) {
        // References to equal bytes compare equal only once they are resolved.
        tile.m_Pixels.resolveWork();
        allBytes += bytesOf(tile);
        if (distinct.contains(tile.m_Pixels))
            savedBytes += bytesOf(tile);
        distinct.insert(tile.m_Pixels);
    }
    std::printf("%s: %d tiles, %d distinct, %lld of %lld bytes saved\n", title, tiles.size(),
                distinct.size(), savedBytes, allBytes);
}

// Changes a private copy of each tile, on all threads of Qt's global pool. Returns whether every
// tile was available.
bool invert(QVector<Tile>* tiles)
{
    std::atomic<bool> complete{true};
    QtConcurrent::blockingMap(*tiles, [&complete](Tile& tile) {
        ZebModifyAccessor accessor = tile.m_Pixels.modifyAccessor();
        if (accessor.isNull()) {
            complete = false;
            return;
        }
        unsigned char* const pixels = accessor.data();
        for (qint64 i = 0; i < accessor.size(); i += s_PixelBytes) {
            quint32 pixel = 0;
            std::memcpy(&pixel, pixels + i, sizeof pixel);
            pixel ^= 0x00FFFFFFU; // the colours, not the opacity
            std::memcpy(pixels + i, &pixel, sizeof pixel);
        }
        // The copy becomes a new block. The old block is freed with its last reference.
        tile.m_Pixels = accessor.release();
    });
    return complete;
}

// The image of these tiles; null when a tile is not available.
QImage assemble(const QVector<Tile>& tiles, const QSize& size)
{
    QImage image(size, QImage::Format_ARGB32);
    for (const Tile& tile : tiles) {
        const ZebConstAccessor accessor = tile.m_Pixels.constAccessor();
        if (image.isNull() || accessor.isNull() || accessor.size() != bytesOf(tile))
            return {};
        const auto rowBytes = static_cast<std::size_t>(tile.m_Place.width() * s_PixelBytes);
        const unsigned char* pixels = accessor.data();
        for (int row = tile.m_Place.top(); row <= tile.m_Place.bottom(); ++row) {
            std::memcpy(image.scanLine(row) + tile.m_Place.left() * s_PixelBytes, pixels, rowBytes);
            pixels += rowBytes;
        }
    }
    return image;
}

QImage inverted(const QImage& input)
{
    QVector<Tile> tiles = dice(input);
    report("As read", tiles);
    if (!invert(&tiles))
        return {};
    report("Inverted", tiles);
    return assemble(tiles, input.size());
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3) {
        std::fprintf(stderr, "Usage: tiles INPUT OUTPUT.png\n");
        return 2;
    }
    const QImage input = QImage(arguments.at(1)).convertToFormat(QImage::Format_ARGB32);
    if (input.isNull()) {
        std::fprintf(stderr, "Cannot read an image from %s\n", qPrintable(arguments.at(1)));
        return 1;
    }
    const QTemporaryDir cacheRoot;
    ZebDataBlockManager& store = ZebDataBlockManager::instance();
    store.setup({cacheRoot.path()}, s_MemoryLimit);
    const QImage output = inverted(input);
    store.cleanUp();
    if (output.isNull() || !output.save(arguments.at(2), "PNG")) {
        std::fprintf(stderr, "Cannot write %s\n", qPrintable(arguments.at(2)));
        return 1;
    }
    return 0;
}
