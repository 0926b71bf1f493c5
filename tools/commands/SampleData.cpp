#include "tools/commands/SampleData.h"

#include <QColor>
#include <QDir>
#include <QFile>
#include <QPainter>
#include <QPair>
#include <QVector>

#include <algorithm>
#include <cmath>

namespace {

constexpr QSize s_EarthSize(2048, 1024);
constexpr QSize s_SquareSize(1024, 1024);
constexpr int s_TextBytes = 512 * 1024;
constexpr quint32 s_Tiles = 12;

// A number that depends on nothing but its arguments.
quint32 scatter(quint32 x, quint32 y, quint32 seed)
{
    quint32 value = x * 374761393U + y * 668265263U + seed * 2246822519U;
    value = (value ^ (value >> 13U)) * 1274126177U;
    return value ^ (value >> 16U);
}

double corner(int x, int y, quint32 seed)
{
    return (scatter(static_cast<quint32>(x), static_cast<quint32>(y), seed) & 0xFFFFU) / 65535.0;
}

double smooth(double t)
{
    return t * t * (3.0 - 2.0 * t);
}

// A smooth height between 0 and 1 on a grid of `cell` pixels.
double height(int x, int y, int cell, quint32 seed)
{
    const int column = x / cell;
    const int row = y / cell;
    const double right = smooth(static_cast<double>(x % cell) / cell);
    const double down = smooth(static_cast<double>(y % cell) / cell);
    const double above =
        corner(column, row, seed) * (1 - right) + corner(column + 1, row, seed) * right;
    const double below =
        corner(column, row + 1, seed) * (1 - right) + corner(column + 1, row + 1, seed) * right;
    return above * (1 - down) + below * down;
}

// Several grids, each half as strong as the one before.
double terrain(int x, int y, int cell, quint32 seed)
{
    double sum = 0.0;
    double weight = 0.5;
    for (; cell >= 4; cell /= 2) {
        sum += weight * height(x, y, cell, seed + static_cast<quint32>(cell));
        weight /= 2;
    }
    return sum;
}

QRgb shade(const QColor& colour, double light)
{
    const auto part = [light](int value) {
        return std::clamp(static_cast<int>(value * light), 0, 255);
    };
    return qRgb(part(colour.red()), part(colour.green()), part(colour.blue()));
}

template <typename Pixel>
QImage painted(const QSize& size, QImage::Format format, Pixel pixel)
{
    QImage image(size, format);
    for (int y = 0; y < size.height(); ++y) {
        auto* const row = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x)
            row[x] = pixel(x, y);
    }
    return image;
}

// A leaf on nothing: its edge is half transparent.
QImage leaf()
{
    const QSize size(512, 512);
    return painted(size, QImage::Format_ARGB32, [&](int x, int y) {
        const double across = (x - size.width() / 2.0) / (size.width() / 3.0);
        const double along = (y - size.height() / 2.0) / (size.height() / 2.2);
        const double inside = 1.0 - across * across - along * along;
        const int alpha = std::clamp(static_cast<int>(inside * 1024), 0, 255);
        const QRgb green = shade(QColor(70, 160, 60), 0.5 + terrain(x, y, 64, 5));
        return qRgba(qRed(green), qGreen(green), qBlue(green), alpha);
    });
}

using Sample = QPair<QString, QImage>;

QVector<Sample> images()
{
    const QImage ground = SampleData::earth();
    const QString directory = QStringLiteral("/TestImages/");
    return {
        {directory + QStringLiteral("Earth.png"), ground},
        {directory + QStringLiteral("InvEarth.png"), SampleData::inverted(ground)},
        {directory + QStringLiteral("Uniform.png"), SampleData::uniform()},
        {directory + QStringLiteral("Checker.png"), SampleData::checker()},
        {directory + QStringLiteral("BigLogo.png"), SampleData::logo()},
        {directory + QStringLiteral("Noise.png"), SampleData::noise(1, QSize(512, 512))},
    };
}

QVector<Sample> tiles()
{
    constexpr quint32 firstSeed = 100;
    const QSize size(256, 256);
    QVector<Sample> samples;
    for (quint32 tile = 0; tile < s_Tiles; ++tile) {
        samples.append({QStringLiteral("/TestTiles/tile%1.png").arg(tile, 2, 10, QChar('0')),
                        SampleData::texture(firstSeed + tile, size)});
    }
    return samples;
}

QVector<Sample> textures()
{
    const QString directory = QStringLiteral("/TextureTest/");
    return {
        {directory + QStringLiteral("bark.tif"), SampleData::texture(1, QSize(512, 512))},
        {directory + QStringLiteral("cloth.tif"), SampleData::texture(2, QSize(768, 768))},
        {directory + QStringLiteral("leaf.tif"), leaf()},
        {directory + QStringLiteral("meadow.tif"), SampleData::texture(3, QSize(1024, 512))},
        {directory + QStringLiteral("stone.tif"), SampleData::texture(4, QSize(512, 512))},
    };
}

bool writeText(const QString& path)
{
    QFile file(path);
    const QByteArray bytes = SampleData::text();
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush();
}

} // namespace

QString SampleData::write(const QString& directory, int parts)
{
    for (const char* const name : {"/TestTiles", "/TestImages", "/TextureTest", "/out"}) {
        if (!QDir().mkpath(directory + QLatin1String(name)))
            return directory + QLatin1String(name);
    }
    QString corpus = directory + QStringLiteral("/Data.txt");
    if ((parts & Text) != 0 && !writeText(corpus))
        return corpus;
    QVector<Sample> samples;
    if ((parts & Images) != 0)
        samples += images();
    if ((parts & Tiles) != 0)
        samples += tiles();
    if ((parts & Textures) != 0)
        samples += textures();
    for (const Sample& sample : qAsConst(samples)) {
        if (!sample.second.save(directory + sample.first))
            return directory + sample.first;
    }
    return QString();
}

QImage SampleData::earth()
{
    constexpr double shore = 0.52;
    return painted(s_EarthSize, QImage::Format_RGB32, [](int x, int y) {
        const double ground = terrain(x, y, 256, 7);
        if (ground < shore)
            return shade(QColor(30, 70, 150), 0.4 + ground);
        return shade(QColor(120, 130, 70), 0.3 + ground * ground * 2);
    });
}

QImage SampleData::inverted(const QImage& image)
{
    QImage result = image.convertToFormat(QImage::Format_RGB32);
    result.invertPixels(QImage::InvertRgb);
    return result;
}

QImage SampleData::checker()
{
    constexpr int square = 32;
    return painted(s_SquareSize, QImage::Format_RGB32, [](int x, int y) {
        return (x / square + y / square) % 2 == 0 ? qRgb(20, 20, 20) : qRgb(230, 230, 230);
    });
}

QImage SampleData::uniform()
{
    QImage image(s_SquareSize, QImage::Format_RGB32);
    image.fill(QColor(90, 120, 150));
    return image;
}

QImage SampleData::logo()
{
    QImage image(s_SquareSize, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(200, 40, 40));
    painter.drawEllipse(QRect(300, 300, 424, 424));
    painter.setBrush(Qt::white);
    painter.drawRect(QRect(400, 400, 224, 60));
    painter.drawRect(QRect(400, 564, 224, 60));
    painter.drawPolygon(QPolygon({QPoint(624, 460), QPoint(624, 500), QPoint(400, 564)}));
    return image;
}

QImage SampleData::noise(quint32 seed, const QSize& size)
{
    return painted(size, QImage::Format_RGB32, [seed](int x, int y) {
        return 0xFF000000U | scatter(static_cast<quint32>(x), static_cast<quint32>(y), seed);
    });
}

QImage SampleData::texture(quint32 seed, const QSize& size)
{
    const QColor colour = QColor::fromHsv(static_cast<int>(seed * 67 % 360), 120, 200);
    return painted(size, QImage::Format_RGB32,
                   [&](int x, int y) { return shade(colour, 0.5 + terrain(x, y, 64, seed)); });
}

QByteArray SampleData::text()
{
    static const QVector<QByteArray> words = {
        "block",   "stone",  "river", "light", "under",  "every", "small",  "garden",
        "written", "before", "north", "heavy", "copper", "paper", "winter", "answer",
        "between", "slowly", "house", "seven", "field",  "green", "always", "hand"};
    QByteArray text;
    text.reserve(s_TextBytes + 16);
    quint32 count = 0;
    while (text.size() < s_TextBytes) {
        text +=
            words.at(static_cast<int>(scatter(count, 0, 3) % static_cast<quint32>(words.size())));
        ++count;
        text += count % 12 == 0 ? '\n' : ' ';
    }
    return text;
}
