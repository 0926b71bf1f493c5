#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

/// The data directory that the library's self-check needs, generated: images, tiles, textures and a
/// text. The same on every machine. Uses nothing of the library.
///
/// Thread safety: any thread may call every function, with a separate directory.
namespace SampleData {

/// Parts of the data directory, as flags.
enum Part : int
{
    Text = 1,
    Images = 2,
    Tiles = 4,
    Textures = 8,
    Everything = 15
};

/// Creates the directory with all sub-directories, and these parts in them. Replaces existing files
/// with the name of a sample, and touches nothing else.
///
/// @return the path that could not be written; empty for success
QString write(const QString& directory, int parts = Everything);

/// Land and sea from above, 2048 by 1024: wide, and all tiles differ.
QImage earth();

/// The image with inverted colours.
QImage inverted(const QImage& image);

/// Squares of 32 pixels, so that all tiles of 64 or more pixels are equal.
QImage checker();

/// One colour.
QImage uniform();

/// A few shapes on a plain ground.
QImage logo();

/// Random pixels.
QImage noise(quint32 seed, const QSize& size);

/// A seamless grain in one colour.
QImage texture(quint32 seed, const QSize& size);

/// Text to compress.
QByteArray text();

} // namespace SampleData
