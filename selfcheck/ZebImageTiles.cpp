#include "selfcheck/ZebImageTiles.h"

#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebReleasedPoolThread.h"

#include <QPainter>
#include <QtConcurrent>

#include <cstring>

namespace {

using ImagePart = QPair<const QImage*, QRect>;

ZebImageTiles::Tile storeTile(const ImagePart& part)
{
    const QImage tile = part.first->copy(part.second);
    ZebModifyAccessor accessor =
        ZebDataBlockManager::instance().createNewBlock(tile.sizeInBytes(), 0);
    std::memcpy(accessor.data(), tile.constBits(), static_cast<size_t>(tile.sizeInBytes()));
    return {part.second, accessor.release(ZebModifyAccessor::Cached, false)};
}

} // namespace

ZebImageTiles::Map ZebImageTiles::dice(const QImage& image, int tileSize)
{
    QList<ImagePart> parts;
    for (int x = 0; x < image.width(); x += tileSize) {
        for (int y = 0; y < image.width(); y += tileSize)
            parts.append({&image, QRect(QPoint(x, y), QSize(tileSize, tileSize))});
    }
    QFuture<Tile> tiles = QtConcurrent::mapped(parts, &storeTile);
    {
        const ZebReleasedPoolThread released;
        tiles.waitForFinished();
    }
    return tiles.results();
}

QImage ZebImageTiles::assemble(const Map& tiles, const QSize& size, QImage::Format format)
{
    QImage image(size, format);
    image.fill(0);
    for (const Tile& tile : tiles)
        draw(image, tile);
    return image;
}

void ZebImageTiles::draw(QImage& image, const Tile& tile)
{
    const ZebConstAccessor accessor = tile.second.constAccessor();
    const qint64 rowBytes = (qint64(tile.first.width()) * image.depth() + 31) / 32 * 4;
    // A block from a damaged file may be too short to draw.
    if (accessor.isNull() || accessor.size() < rowBytes * tile.first.height())
        return;
    const QImage pixels(accessor.data(), tile.first.width(), tile.first.height(), image.format());
    QPainter painter(&image);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.drawImage(tile.first.topLeft(), pixels);
}

ZebImageTiles::Tile ZebImageTiles::inverted(const Tile& tile)
{
    constexpr qint64 step = 3;
    ZebModifyAccessor accessor = tile.second.modifyAccessor();
    unsigned char* const bytes = accessor.data();
    const qint64 size = accessor.size();
    for (qint64 begin = 0; begin < size; begin += step) {
        const qint64 end = qMin(size, begin + step);
        for (qint64 i = begin; i < end; ++i)
            bytes[i] = static_cast<unsigned char>(~bytes[i]);
    }
    return {tile.first, accessor.release(ZebModifyAccessor::Cached, false)};
}
