// The messages of the image checks when their data is wrong, and the files that they leave.

#include "selfcheck/TdxTester.h"

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "support/MessageCapture.h"
#include "support/NoBlocks.h"
#include "support/SampleFolder.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QThreadPool>

#include <gtest/gtest.h>

#include <string>

namespace {

std::string lastOf(const MessageCapture& messages)
{
    return messages.debugLines().last().toStdString();
}

// The store is cleaned up and the roots are empty, also after a failure.
void expectNothingLeft(const SampleFolder& folder)
{
    EXPECT_FALSE(ZebDataBlockManager::instance().isInitialized());
    EXPECT_EQ(folder.leftInRoots().join(' ').toStdString(), "");
}

// Gives Qt's global pool a single thread during a scope.
class OneThread
{
public:
    OneThread() : m_Before(QThreadPool::globalInstance()->maxThreadCount())
    {
        QThreadPool::globalInstance()->setMaxThreadCount(1);
    }
    ~OneThread() { QThreadPool::globalInstance()->setMaxThreadCount(m_Before); }
    OneThread(const OneThread&) = delete;
    OneThread& operator=(const OneThread&) = delete;

private:
    int m_Before;
};

} // namespace

TEST(TdxTesterImages, MissingImagesAreNamed)
{
    const SampleFolder folder(0);
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.testDataBlockManagerImagesMultiThreaded());
    EXPECT_EQ(lastOf(messages), "Cannot open test image /Uniform.png");
    EXPECT_FALSE(tester.testProcessImage(1));
    EXPECT_EQ(lastOf(messages), "Cannot open test image Uniform.png");
    EXPECT_FALSE(tester.testDataBlockLoadedTests());
    EXPECT_EQ(lastOf(messages), "Cannot open test image Earch.png");
    EXPECT_FALSE(tester.testTextureSet(1));
    EXPECT_EQ(lastOf(messages), "Cannot find test images to hash");
    EXPECT_FALSE(tester.testCompositingTest(1));
    EXPECT_EQ(lastOf(messages), "Cannot find test images to hash");
    EXPECT_FALSE(tester.testTileHash());
    EXPECT_EQ(lastOf(messages), "Cannot find test tiles to hash");
    expectNothingLeft(folder);
}

TEST(TdxTesterImages, ImagesOfMoreThanOneBlockAreReported)
{
    const SampleFolder folder(SampleData::Images);
    const QString uniform = folder.path(QStringLiteral("/TestImages/Uniform.png"));
    const QString checker = folder.path(QStringLiteral("/TestImages/Checker.png"));
    TdxTester tester;
    const MessageCapture messages;
    // Four tiles of 256, two by two.
    ASSERT_TRUE(SampleData::noise(3, QSize(512, 512)).save(uniform));
    EXPECT_FALSE(tester.testDataBlockManagerImagesMultiThreaded());
    EXPECT_EQ(lastOf(messages), "Block Count for Uniform at 256x256 is not 1 it is 4");
    // One tile of 256, and 64 of 32.
    ASSERT_TRUE(SampleData::noise(3, QSize(256, 256)).save(uniform));
    EXPECT_FALSE(tester.testDataBlockManagerImagesMultiThreaded());
    EXPECT_EQ(lastOf(messages), "Block Count for Unifrom at 32x32 is not 1 it is 64");
    ASSERT_TRUE(SampleData::uniform().save(uniform));
    ASSERT_TRUE(SampleData::noise(3, QSize(512, 512)).save(checker));
    EXPECT_FALSE(tester.testDataBlockManagerImagesMultiThreaded());
    EXPECT_EQ(lastOf(messages), "Block Count for checker at 256x256 is not 1 it is 4");
    expectNothingLeft(folder);
}

TEST(TdxTesterImages, CountsAreReportedForEachTileSize)
{
    class Logging : public TdxTester
    {
    public:
        Logging() { m_Logging = true; }
        ~Logging() { m_Logging = false; }
    };
    const SampleFolder folder(SampleData::Images);
    Logging tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testDataBlockManagerImagesMultiThreaded());
    // 33 distinct tiles of 262144 bytes and 64 references of 32 bytes, out of 16 MiB.
    EXPECT_TRUE(messages.contains(
        QStringLiteral("[ LOG ] /Earth.png Count at 256x256 = 33 down from 64 51.57%")));
    EXPECT_TRUE(messages.contains(
        QStringLiteral("[ LOG ] /Uniform.png Count at 128x128 = 1 down from 64 1.61%")));
    EXPECT_EQ(messages.debugLines().filter(QStringLiteral(" down from ")).size(), 15);
}

TEST(TdxTesterImages, TheInversionIsComparedWithTheReference)
{
    const SampleFolder folder(SampleData::Images);
    const QString reference = folder.path(QStringLiteral("/TestImages/InvEarth.png"));
    TdxTester tester;
    const MessageCapture messages;
    QImage image(reference);
    image.setPixel(2047, 1023, image.pixel(2047, 1023) ^ 1U);
    ASSERT_TRUE(image.save(reference));
    EXPECT_FALSE(tester.testProcessImage(10));
    EXPECT_EQ(lastOf(messages), "Image is not the same as the reference");
    ASSERT_TRUE(QFile::remove(reference));
    EXPECT_FALSE(tester.testProcessImage(10));
    EXPECT_EQ(lastOf(messages), "Cannot load reference image");
    expectNothingLeft(folder);
}

TEST(TdxTesterImages, TheInversionIsTheSameAtEveryMemoryLimit)
{
    const SampleFolder folder(SampleData::Images);
    TdxTester tester;
    const MessageCapture messages;
    const QImage expected = SampleData::inverted(SampleData::earth());
    for (const int megabytes : {1, 1000}) {
        const QString result = folder.path(QStringLiteral("/out/invert.png"));
        QFile::remove(result);
        EXPECT_TRUE(tester.testProcessImage(megabytes));
        EXPECT_EQ(QImage(result), expected) << megabytes;
    }
}

TEST(TdxTesterImages, AnImageThatCannotBeLoadedIsLeftOut)
{
    const SampleFolder folder(SampleData::Textures);
    QFile broken(folder.path(QStringLiteral("/TextureTest/broken.tif")));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    ASSERT_EQ(broken.write("no image"), 8);
    broken.close();
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testTextureSet(10));
    EXPECT_EQ(messages.count(QStringLiteral("Null Result")), 1);
    EXPECT_EQ(messages.count(QStringLiteral("Cannot load incoming image")), 1);
    EXPECT_EQ(lastOf(messages), "[ OK ] Passed Texture Set Tests");
}

TEST(TdxTesterImages, ATallImageLosesItsLowerPart)
{
    const SampleFolder folder(SampleData::Textures);
    ASSERT_TRUE(SampleData::texture(9, QSize(256, 1024))
                    .save(folder.path(QStringLiteral("/TextureTest/tall.tif"))));
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.testTextureSet(10));
    EXPECT_EQ(messages.count(QStringLiteral("Image Mismatch tall.tif")), 1);
    EXPECT_EQ(lastOf(messages), "Texture Compare Test Failed 6 Images vs 5 Good");
    expectNothingLeft(folder);
}

TEST(TdxTesterImages, HashesThatTheHostKeepsFailTheTextureChecks)
{
    const SampleFolder folder(SampleData::Textures | SampleData::Tiles);
    const ZebSmartPointer<ZebDataHash> hash = ZebHashManager::instance().getHash(QByteArray("x"));
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_FALSE(tester.testTextureSet(1));
    EXPECT_EQ(lastOf(messages), "Hash Manager has hashes before testing");
    EXPECT_FALSE(tester.testCompositingTest(1));
    EXPECT_EQ(lastOf(messages), "Hash Manager has hashes before testing");
    EXPECT_FALSE(tester.testTileHash());
    EXPECT_EQ(lastOf(messages), "Hash Manager has hashes before testing");
}

TEST(TdxTesterImages, CompositingWritesNextToTheFolder)
{
    const SampleFolder folder(SampleData::Textures);
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testCompositingTest(10));
    // One file fewer than there are images.
    const QStringList expected = {QStringLiteral("outbark.tif"), QStringLiteral("outcloth.tif"),
                                  QStringLiteral("outleaf.tif"), QStringLiteral("outmeadow.tif")};
    EXPECT_EQ(QDir(folder.path()).entryList({QStringLiteral("out*.tif")}, QDir::Files), expected);
    EXPECT_TRUE(QDir(folder.path(QStringLiteral("/out")))
                    .entryList(QDir::AllEntries | QDir::NoDotAndDotDot)
                    .isEmpty());
    EXPECT_FALSE(messages.debugLines()
                     .filter(QStringLiteral("Did Over on 4 images in "))
                     .filter(QStringLiteral("s cache Size 10Mb"))
                     .isEmpty());
    EXPECT_FALSE(messages.debugLines().filter(QStringLiteral("        Made Records ")).isEmpty());
    EXPECT_FALSE(messages.debugLines().filter(QStringLiteral("        Made Comp Jobs ")).isEmpty());
    EXPECT_TRUE(messages.contains(QStringLiteral("Setup complete")));
    // Each pixel is half-way to red.
    const QImage before(folder.path(QStringLiteral("/TextureTest/bark.tif")));
    const QImage after(folder.path(QStringLiteral("/outbark.tif")));
    ASSERT_EQ(after.size(), before.size());
    for (int y = 0; y < before.height(); y += 37) {
        for (int x = 0; x < before.width(); x += 41) {
            const QRgb pixel = before.pixel(x, y);
            EXPECT_EQ(after.pixel(x, y),
                      qRgb((qRed(pixel) + 255) / 2, qGreen(pixel) / 2, qBlue(pixel) / 2));
        }
    }
}

TEST(TdxTesterImages, OneThreadInThePoolIsEnough)
{
    const SampleFolder folder(SampleData::Images | SampleData::Textures);
    const OneThread oneThread;
    TdxTester tester;
    const MessageCapture messages;
    EXPECT_TRUE(tester.testTextureSet(1));
    EXPECT_TRUE(tester.testCompositingTest(1));
    EXPECT_TRUE(tester.testProcessImage(1));
}

TEST(TdxTesterImages, PreloadingPassesWhenNoBlockIsLeft)
{
    const SampleFolder folder(SampleData::Images);
    TdxTester tester;
    const MessageCapture messages;
    const NoBlocks noBlocks;
    EXPECT_TRUE(tester.testDataBlockLoadedTests());
    // 32 tiles of the image, and the blank one below it.
    EXPECT_TRUE(messages.contains(QStringLiteral("Created 33 Tiles")));
    EXPECT_TRUE(messages.contains(QStringLiteral("Preloaded 33 Tiles")));
    EXPECT_EQ(messages.debugLines().filter(QStringLiteral("Pre Loaded 33 tiles in ")).size(), 1);
    // The last line is that of another check.
    EXPECT_EQ(lastOf(messages), "[ OK ] Passed Image Process Tests");
    expectNothingLeft(folder);
}

TEST(TdxTesterImages, TilesHashApartWhenNoBlockIsLeft)
{
    const SampleFolder folder(SampleData::Tiles);
    TdxTester tester;
    const MessageCapture messages;
    const NoBlocks noBlocks;
    EXPECT_TRUE(tester.testTileHash());
    EXPECT_EQ(lastOf(messages), "[ OK ] Passed Tile Hash Tests");
    ASSERT_TRUE(QFile::copy(folder.path(QStringLiteral("/TestTiles/tile00.png")),
                            folder.path(QStringLiteral("/TestTiles/twin.png"))));
    EXPECT_FALSE(tester.testTileHash());
    EXPECT_EQ(lastOf(messages), "Unexpected hash collision");
    ASSERT_TRUE(QFile::remove(folder.path(QStringLiteral("/TestTiles/twin.png"))));
    QFile broken(folder.path(QStringLiteral("/TestTiles/aaa.png")));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.close();
    EXPECT_FALSE(tester.testTileHash());
    EXPECT_EQ(lastOf(messages), "Cannot load aaa.png into image");
    expectNothingLeft(folder);
}
