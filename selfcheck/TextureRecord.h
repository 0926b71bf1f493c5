#pragma once

// Internal: an image of the texture checks. Not installed.

#include "selfcheck/ZebImageTiles.h"

#include <QImage>
#include <QSize>
#include <QString>

/// One image held in the store.
///
/// Thread safety: a value; its references belong to one thread at a time.
struct TextureRecord
{
    /// The file name inside the texture folder; empty when the image could not be loaded.
    QString m_Name;
    QSize m_Size;
    QImage::Format m_Format = QImage::Format_Invalid;
    ZebImageTiles::Map m_Tiles;
    /// The bytes of the pixels of the whole image.
    int m_ByteCount = 0;
};
