// The checks on sets of images: stored and read back, and mixed by deferred blocks.

#include "selfcheck/TdxTester.h"

#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/TextureRecord.h"
#include "selfcheck/ZebImageTiles.h"
#include "selfcheck/ZebOverCompJobTest.h"
#include "selfcheck/ZebRedBlock.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckFrame.h"
#include "selfcheck/ZebSelfCheckStore.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFuture>
#include <QList>
#include <QtConcurrent>

#include <functional>

using ZebByteUnits::s_BytesPerMiB;
using ZebSelfCheck::failure;
using ZebSelfCheck::line;

namespace {

constexpr int s_CompositingRoots = 2;

QString pathOf(const QString& folder, const QString& name)
{
    return folder + QDir::separator() + name;
}

QStringList namesIn(const QString& folder)
{
    return QDir(folder).entryList({QStringLiteral("*.tif")}, QDir::Files);
}

// Without a name when the image cannot be loaded.
TextureRecord makeRecord(const QString& folder, const QString& name)
{
    TextureRecord record;
    const QImage image(pathOf(folder, name));
    if (image.isNull())
        return record;
    record.m_Name = name;
    record.m_Size = image.size();
    record.m_Format = image.format();
    record.m_ByteCount = static_cast<int>(image.sizeInBytes());
    record.m_Tiles = ZebImageTiles::dice(image, ZebImageTiles::s_TileSize);
    return record;
}

QImage assemble(const TextureRecord& record)
{
    return ZebImageTiles::assemble(record.m_Tiles, record.m_Size, record.m_Format);
}

QFuture<TextureRecord> makeRecords(const QString& folder, const QStringList& names)
{
    const std::function<TextureRecord(const QString&)> make = [folder](const QString& name) {
        return makeRecord(folder, name);
    };
    QFuture<TextureRecord> records = QtConcurrent::mapped(names, make);
    records.waitForFinished();
    return records;
}

// The records that have an image.
QList<TextureRecord> usable(const QFuture<TextureRecord>& future)
{
    QList<TextureRecord> records;
    for (const TextureRecord& record : future) {
        if (record.m_Name.isEmpty())
            line("Null Result");
        else
            records.append(record);
    }
    return records;
}

// The image from the store, or null when it differs from the file.
QImage compared(const QString& folder, const TextureRecord& record)
{
    if (record.m_Name.isEmpty()) {
        line("Cannot load incoming image");
        return QImage();
    }
    const QImage incoming(pathOf(folder, record.m_Name));
    if (incoming.isNull()) {
        line("Cannot load incoming image *%s*", qUtf8Printable(record.m_Name));
        return QImage();
    }
    QImage stored = assemble(record);
    if (stored != incoming) {
        line("Image Mismatch %s", qUtf8Printable(record.m_Name));
        return QImage();
    }
    return stored;
}

void reportRecords(const QList<TextureRecord>& records, qint64 elapsedMs)
{
    int blocks = 0;
    qint64 bytes = 0;
    for (const TextureRecord& record : records) {
        blocks += (record.m_Size.width() / ZebImageTiles::s_TileSize) *
                  (record.m_Size.height() / ZebImageTiles::s_TileSize);
        bytes += record.m_ByteCount;
    }
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    TdxTester::tdxLog("Input is %d Blocks", blocks);
    TdxTester::tdxLog("Managed = %lld  Live = %d", manager.managedBlocks(),
                      static_cast<int>(manager.liveBlocks()));
    const double megabytes = ZebSelfCheck::megabytes(bytes);
    TdxTester::tdxLog("Processed %.2fMb in %.2f at %.2fMbs", megabytes,
                      ZebSelfCheck::seconds(elapsedMs),
                      ZebSelfCheck::perSecond(megabytes, elapsedMs));
}

bool texturesComeBack(const QString& folder)
{
    const QStringList names = namesIn(folder);
    if (names.isEmpty())
        return failure("Cannot find test images to hash");
    if (ZebHashManager::instance().hashCount() != 0)
        return failure("Hash Manager has hashes before testing");
    QElapsedTimer timer;
    timer.start();
    const QFuture<TextureRecord> future = makeRecords(folder, names);
    const int records = [&] {
        const QList<TextureRecord> list = usable(future);
        reportRecords(list, timer.elapsed());
        return list.size();
    }();
    const std::function<QImage(const TextureRecord&)> compare =
        [folder](const TextureRecord& record) {
            return compared(folder, record);
        };
    QFuture<QImage> images = QtConcurrent::mapped(future, compare);
    images.waitForFinished();
    int good = 0;
    for (const QImage& image : images) {
        if (!image.isNull())
            ++good;
    }
    if (good < records)
        return failure("Texture Compare Test Failed %d Images vs %d Good", records, good);
    return true;
}

// The record mixed half and half with red. Nothing waits here: its tiles are deferred blocks that
// refer to deferred blocks.
TextureRecord towardsRed(const TextureRecord& record)
{
    TextureRecord result = record;
    for (ZebImageTiles::Tile& tile : result.m_Tiles) {
        const ZebSmartPointer<ZebBlockFuture> redJob(new ZebRedBlock(tile.second));
        const ZebDataReference red(redJob);
        const ZebSmartPointer<ZebBlockFuture> overJob(new ZebOverCompJobTest(tile.second, red));
        tile.second = ZebDataReference(overJob);
    }
    return result;
}

bool compositingWorks(const QString& folder, const QString& outFolder, int megabytes)
{
    const QStringList names = namesIn(folder);
    if (names.isEmpty())
        return failure("Cannot find test images to hash");
    if (ZebHashManager::instance().hashCount() != 0)
        return failure("Hash Manager has hashes before testing");
    QElapsedTimer timer;
    timer.start();
    const QList<TextureRecord> records = usable(makeRecords(folder, names));
    line("        Made Records %.2f", ZebSelfCheck::seconds(timer.elapsed()));
    QList<TextureRecord> results;
    // Kept on purpose: the last record is left out.
    for (int i = 0; i + 1 < records.size(); ++i)
        results.append(towardsRed(records.at(i)));
    line("        Made Comp Jobs %.2f", ZebSelfCheck::seconds(timer.elapsed()));
    for (const TextureRecord& result : qAsConst(results)) {
        const QImage image = assemble(result);
        // Kept on purpose: no separator, so the files are next to the folder, and their names
        // begin with its name.
        image.save(QStringLiteral("%1").arg(outFolder + result.m_Name));
    }
    line("Did Over on %d images in %.2fs cache Size %dMb", results.size(),
         ZebSelfCheck::seconds(timer.elapsed()), megabytes);
    return true;
}

} // namespace

bool TdxTester::testTextureSet(int megabytes)
{
    ZebSelfCheckFrame frame = {"[ -- ] Starting Texture Set Tests",
                               "[ OK ] Passed Texture Set Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    frame.m_MemoryBytes = megabytes * s_BytesPerMiB;
    return frame.run([] { return texturesComeBack(m_TextureTestDirectory); });
}

bool TdxTester::testCompositingTest(int megabytes)
{
    // Kept on purpose: the last line has two blanks.
    ZebSelfCheckFrame frame = {"[ -- ] Starting Compositing Tests",
                               "[ OK ]  Passed Compositing Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, s_CompositingRoots);
    frame.m_MemoryBytes = megabytes * s_BytesPerMiB;
    frame.m_NotReadyLine = "Cannot Initialize Data Block Manager";
    return frame.run([megabytes] {
        line("Setup complete");
        return compositingWorks(m_TextureTestDirectory, m_OutDirectory, megabytes);
    });
}
