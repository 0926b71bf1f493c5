#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

/// The data folder that the library's self-check needs, made up: images, tiles, textures and a
/// text. The same on every machine. Nothing of the library is used.
///
/// Thread safety: any thread may call every function, on folders of its own.
namespace SampleData {

/// Parts of the data folder, as flags.
enum Part : int
{
    Text = 1,
    Images = 2,
    Tiles = 4,
    Textures = 8,
    Everything = 15
};

/// Makes the folder with all sub-folders, and these parts in them. What is there already and has
/// the name of a sample is replaced; nothing else is touched.
///
/// @return what could not be written: a path, or nothing when all is well
QString write(const QString& folder, int parts = Everything);

/// Land and sea seen from above, 2048 by 1024: wide, with no two tiles alike.
QImage earth();

/// Every colour turned into its opposite.
QImage inverted(const QImage& image);

/// Squares of 32 pixels, so that all tiles of 64 or more are the same.
QImage checker();

/// One colour.
QImage uniform();

/// A few shapes on a plain ground.
QImage logo();

/// No two pixels alike but by chance.
QImage noise(quint32 seed, const QSize& size);

/// A grain that goes on for ever, with a colour of its own.
QImage texture(quint32 seed, const QSize& size);

/// Something to read.
QByteArray text();

} // namespace SampleData
