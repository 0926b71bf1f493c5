#pragma once

// Internal: images as lists of blocks. Not installed.

#include "data/ZebDataReference.h"

#include <QImage>
#include <QList>
#include <QPair>
#include <QRect>
#include <QSize>

/// Images cut into square tiles, each of which is a block of the store: the bytes of its pixels,
/// rows on 32-bit bounds as QImage has them.
///
/// Thread safety: any thread may call every operation; an image must not change meanwhile.
namespace ZebImageTiles {

using Tile = QPair<QRect, ZebDataReference>;

/// Tiles in the order of dicing: columns from the left, each from the top down.
using Map = QList<Tile>;

constexpr int s_TileSize = 256;

/// Cuts an image and stores its tiles, in parallel in Qt's global pool, and waits for that. The
/// references may be pending. Inside a task of the global pool, the task's place in it is given
/// back for the wait, so that no pool is too small.
///
/// Kept on purpose: as many rows of tiles are taken as the width asks for. What lies below a wide
/// image is blank, and costs one block; what a tall image has below that is lost.
Map dice(const QImage& image, int tileSize);

/// Draws the tiles together. The blocks are loaded as need be; one that cannot be had leaves its
/// place blank. Pixels are copied and not blended.
QImage assemble(const Map& tiles, const QSize& size, QImage::Format format);

/// Draws one tile into an image, in the image's format.
void draw(QImage& image, const Tile& tile);

/// The tile with every byte of its pixels inverted, as a new block. The block's bytes are taken
/// three at a time, and the last step ends with the block.
Tile inverted(const Tile& tile);

} // namespace ZebImageTiles
