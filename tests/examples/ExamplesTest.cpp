// Runs the example hosts as a user does, and checks their output and their images.

#include <QFile>
#include <QImage>
#include <QPoint>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr int s_DeadlineMs = 120000;

struct Outcome
{
    int m_Status = -1;
    std::string m_Output;
    std::string m_Errors;
};

Outcome run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    Outcome outcome;
    EXPECT_TRUE(process.waitForFinished(s_DeadlineMs)) << qPrintable(process.errorString());
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    outcome.m_Status = process.exitCode();
    outcome.m_Output = process.readAllStandardOutput().toStdString();
    outcome.m_Errors = process.readAllStandardError().toStdString();
    return outcome;
}

class TilesExample : public testing::Test
{
protected:
    QString path(const char* name) const { return m_Directory.filePath(QLatin1String(name)); }

    Outcome runTiles(const QString& input, const QString& output) const
    {
        return run(QStringLiteral(ZEBTDX_TILES), {input, output});
    }

    // The image that the program writes for `image`.
    QImage inverted(const QImage& image, std::string* printed = nullptr)
    {
        EXPECT_TRUE(image.save(path("in.png")));
        const Outcome outcome = runTiles(path("in.png"), path("out.png"));
        EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
        if (printed != nullptr)
            *printed = outcome.m_Output;
        return QImage(path("out.png")).convertToFormat(QImage::Format_ARGB32);
    }

private:
    QTemporaryDir m_Directory;
};

// A plain image of 900 x 600 with a disc in six of its twelve tiles.
QImage drawing()
{
    QImage image(900, 600, QImage::Format_ARGB32);
    const QPoint middle(380, 256);
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QPoint off = QPoint(x, y) - middle;
            const bool inDisc = QPoint::dotProduct(off, off) < 200 * 200;
            image.setPixel(x, y, inDisc ? qRgba(220, x / 4, y / 4, 255) : qRgba(250, 240, 20, 255));
        }
    }
    return image;
}

} // namespace

TEST(QuickstartExample, AddsChangesGroupsAndReadsBlocks)
{
    const Outcome outcome = run(QStringLiteral(ZEBTDX_QUICKSTART), {});
    EXPECT_EQ(outcome.m_Status, 0) << outcome.m_Errors;
    EXPECT_EQ(outcome.m_Output, "Hello, store\nJello, store\nHello, store\n3 blocks\n");
}

TEST_F(TilesExample, InvertsAnImageTileByTile)
{
    const QImage image = drawing();
    const QImage result = inverted(image);
    EXPECT_EQ(result.size(), image.size());
    QImage expected = image;
    expected.invertPixels(QImage::InvertRgb);
    EXPECT_EQ(result, expected);
    // A corner, outside the disc, and the centre of the disc.
    EXPECT_EQ(result.pixel(899, 599), qRgba(5, 15, 235, 255));
    EXPECT_EQ(result.pixel(380, 256), qRgba(35, 255 - 380 / 4, 255 - 256 / 4, 255));
}

TEST_F(TilesExample, PrintsTheDistinctTilesAndTheSavedBytes)
{
    // Four columns, the last of 132 pixels, and three rows, the last of 88. The six tiles of the
    // disc all differ. Of the plain tiles, the two narrow ones at the right edge are equal, and so
    // are the three flat ones at the bottom; the corner tile has no equal.
    std::string printed;
    inverted(drawing(), &printed);
    const auto line = [](const char* title) {
        const int all = 900 * 600 * 4;
        const int saved = 132 * 256 * 4 + 2 * 256 * 88 * 4;
        return std::string(title) + ": 12 tiles, 9 distinct, " + std::to_string(saved) + " of " +
               std::to_string(all) + " bytes saved\n";
    };
    EXPECT_EQ(printed, line("As read") + line("Inverted"));
}

TEST_F(TilesExample, KeepsTheTransparency)
{
    QImage image(10, 300, QImage::Format_ARGB32);
    image.fill(qRgba(10, 20, 30, 128));
    const QImage result = inverted(image);
    EXPECT_EQ(result.size(), image.size());
    EXPECT_EQ(result.pixel(9, 299), qRgba(245, 235, 225, 128));
}

TEST_F(TilesExample, AnImageLargerThanTheMemoryLimitIsComplete)
{
    // 72 MB of pixels without repetition, with a memory limit of 64 MiB.
    QImage image(4500, 4000, QImage::Format_RGB32);
    quint32 value = 1;
    for (int y = 0; y < image.height(); ++y) {
        auto* const line = reinterpret_cast<QRgb*>(image.scanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            // A new value only every 16 pixels, so that the files stay small.
            if (x % 16 == 0)
                value = value * 1664525U + 1013904223U;
            line[x] = 0xFF000000U | (value >> 8);
        }
    }
    QImage expected = image.convertToFormat(QImage::Format_ARGB32);
    expected.invertPixels(QImage::InvertRgb);
    EXPECT_EQ(inverted(image), expected);
}

TEST_F(TilesExample, ReportsWrongUseAndUnusableFiles)
{
    EXPECT_EQ(run(QStringLiteral(ZEBTDX_TILES), {}).m_Status, 2);
    const Outcome missing = runTiles(path("missing.png"), path("out.png"));
    EXPECT_EQ(missing.m_Status, 1);
    EXPECT_NE(missing.m_Errors.find("Cannot read an image from "), std::string::npos);
    ASSERT_TRUE(drawing().save(path("in.png")));
    const Outcome unwritable = runTiles(path("in.png"), path("no/such/folder.png"));
    EXPECT_EQ(unwritable.m_Status, 1);
    EXPECT_NE(unwritable.m_Errors.find("Cannot write "), std::string::npos);
    EXPECT_FALSE(QFile::exists(path("out.png")));
}
