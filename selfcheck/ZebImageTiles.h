#pragma once

// Internal: images as lists of blocks. Not installed.

#include "data/ZebDataReference.h"

#include <QImage>
#include <QList>
#include <QPair>
#include <QRect>
#include <QSize>

/// Images cut into square tiles. Each tile is a block of the store: the bytes of its pixels, with
/// rows aligned to 32 bits as in QImage.
///
/// Thread safety: any thread may call every operation; an image must not change during a call.
namespace ZebImageTiles {

using Tile = QPair<QRect, ZebDataReference>;

/// Tiles in the order of dicing: columns from the left, each from the top down.
using Map = QList<Tile>;

constexpr int s_TileSize = 256;

/// Cuts an image and stores its tiles, in parallel in Qt's global pool, and waits for the pool. The
/// references may be pending. A task of the global pool gives up its thread during the wait, so
/// that the call cannot deadlock in a small pool.
///
/// Kept on purpose: the number of rows follows from the width. The tiles below a wide image are
/// blank, and cost one block; the rows of a tall image below its width are lost.
Map dice(const QImage& image, int tileSize);

/// Draws the tiles into one image. Blocks are loaded as needed; a block that cannot be loaded
/// leaves its area blank. Pixels are copied and not blended.
QImage assemble(const Map& tiles, const QSize& size, QImage::Format format);

/// Draws one tile into an image, in the image's format.
void draw(QImage& image, const Tile& tile);

/// The tile with every byte of its pixels inverted, as a new block. Bytes are
/// processed three at a time, and the last step ends with the block.
Tile inverted(const Tile& tile);

} // namespace ZebImageTiles
