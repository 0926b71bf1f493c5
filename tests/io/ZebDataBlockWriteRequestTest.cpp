#include "io/ZebDataBlockWriteRequest.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "support/BlockFiles.h"
#include "support/BlockInside.h"
#include "support/BlockedThread.h"
#include "support/CountedBlock.h"
#include "support/MessageCapture.h"
#include "support/RequestInside.h"
#include "support/ResourceLimit.h"
#include "support/StoreInside.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <memory>
#include <set>

namespace {

using BlockFiles::incompressible;
using BlockFiles::s_HeaderBytes;
using BlockFiles::text;

constexpr int s_Buckets = 10;

std::atomic<int> s_Compressions{0};
std::atomic<int> s_LastLevel{-100};
std::atomic<bool> s_CodecIsOutOfMemory{false};

// A block whose stored bytes are `payload` as they are, as if compressed from `size` bytes.
std::unique_ptr<ZebDataBlock> compressedBlock(const QByteArray& payload, int size)
{
    auto block = std::make_unique<ZebDataBlock>(QByteArray(size, 'x'));
    BlockInside::storedBytes(*block) = payload;
    BlockInside::compressed(*block) = true;
    return block;
}

// A request on a cache root of its own.
class Place
{
public:
    Place() : Place(QByteArray("some bytes")) {}
    explicit Place(const QByteArray& plain) : Place(std::make_unique<ZebDataBlock>(plain), plain) {}
    Place(std::unique_ptr<ZebDataBlock> block, const QByteArray& identity)
        : m_Block(std::move(block)), m_Hash(ZebHashManager::instance().getHash(identity))
    {
        ZebDataBlockManager::instance();
        m_Messages.clear(); // from the store's construction
    }

    // The request, named.
    ZebDataBlockWriteRequest& request()
    {
        if (!m_Request) {
            m_Request = std::make_unique<ZebDataBlockWriteRequest>(m_Hash, m_Block.get(), false);
            m_Request->setFileName(root(), QString(), s_Buckets);
        }
        return *m_Request;
    }

    ZebDataBlock& block() { return *m_Block; }
    const ZebSmartPointer<ZebDataHash>& hash() const { return m_Hash; }
    QString root() const { return m_Directory.path() + m_Below; }
    QString file() const { return BlockFiles::pathOf(*m_Hash, root(), QString(), s_Buckets); }
    QString bucket() const { return BlockFiles::bucketOf(*m_Hash, root(), QString(), s_Buckets); }
    const QByteArray& payload() { return RequestInside::payload(request()); }
    MessageCapture& messages() { return m_Messages; }

    // Moves the root further down, to a directory of this name.
    void setBelow(const QString& below) { m_Below = below; }

private:
    MessageCapture m_Messages;
    QTemporaryDir m_Directory;
    QString m_Below;
    std::unique_ptr<ZebDataBlock> m_Block;
    ZebSmartPointer<ZebDataHash> m_Hash;
    std::unique_ptr<ZebDataBlockWriteRequest> m_Request;
};

QString cannotOpen(const QString& path, int error)
{
    return "Cannot Open File " + path + " : '" + qt_error_string(error) + "'";
}

// The text that the request must give for `path`: how a plain QFile reports the same writes under
// the same limit. Empty when nothing fails.
QString failureOfPlainWrites(const QString& probe, const QString& path, const QByteArray& payload)
{
    QFile file(probe);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    qint64 written = -1;
    const bool failed = file.write(QByteArray(8, '\0')) != 8 ||
                        file.write(QByteArray(4, '\0')) != 4 ||
                        (written = file.write(payload)) != payload.size() || !file.flush();
    if (!failed)
        return {};
    if (written == payload.size())
        written = -1;
    return "Cannot Write to File " + path + " : '" + file.errorString() + "' - wrote " +
           QString::number(written) + " bytes (expecting " + QString::number(payload.size()) +
           " bytes)";
}

// Files that end at each interesting place: inside either header field, at their ends, inside the
// payload and just before its end.
std::set<int> limitsFor(int payload)
{
    std::set<int> limits;
    for (const int limit : {0, 1, 8, 10, 12, 13, s_HeaderBytes + payload / 2, payload + 11}) {
        if (limit < s_HeaderBytes + payload)
            limits.insert(limit);
    }
    return limits;
}

} // namespace

// Replaces zlib's function for everything that this program loads.
extern "C" __attribute__((visibility("default"))) int compress2(unsigned char* out,
                                                                unsigned long* outLength,
                                                                const unsigned char* in,
                                                                unsigned long inLength, int level)
{
    constexpr int outOfMemory = -4;
    ++s_Compressions;
    s_LastLevel = level;
    if (s_CodecIsOutOfMemory)
        return outOfMemory;
    using Function =
        int (*)(unsigned char*, unsigned long*, const unsigned char*, unsigned long, int);
    static const auto zlib = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "compress2"));
    return zlib(out, outLength, in, inLength, level);
}

// What a request is

TEST(ZebDataBlockWriteRequest, AWriteHoldsItsHashAndPointsAtItsBlock)
{
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("held by a write"));
    ZebDataBlock block(QByteArray(300, 'a'));
    {
        ZebDataBlockWriteRequest request(hash, &block, false);
        EXPECT_EQ(request.fence(), -1);
        EXPECT_FALSE(request.isFence());
        EXPECT_EQ(request.hash(), hash);
        EXPECT_EQ(hash->refCount(), 2);
        EXPECT_EQ(request.block(), &block);
        EXPECT_EQ(request.blockSize(), 300);
        EXPECT_TRUE(RequestInside::file(request).fileName().isEmpty());
        EXPECT_TRUE(RequestInside::payload(request).isNull());
    }
    EXPECT_EQ(hash->refCount(), 1);
}

TEST(ZebDataBlockWriteRequest, AFenceHasANumberAndNothingElse)
{
    for (const int number : {0, 1, 77}) {
        ZebDataBlockWriteRequest fence(number);
        EXPECT_TRUE(fence.isFence());
        EXPECT_EQ(fence.fence(), number);
        EXPECT_TRUE(fence.hash().isNull());
        EXPECT_EQ(fence.block(), nullptr);
        EXPECT_EQ(fence.blockSize(), 0);
    }
}

// The place of the file

TEST(ZebDataBlockWriteRequest, DoublesTheSeparatorBeforeTheFileName)
{
    Place place;
    EXPECT_EQ(RequestInside::file(place.request()).fileName(), place.file());
    EXPECT_TRUE(place.file().startsWith(place.root() + "//"));
    place.request().setFileName(place.root(), "sub", 7);
    EXPECT_EQ(RequestInside::file(place.request()).fileName(),
              BlockFiles::pathOf(*place.hash(), place.root(), "sub", 7));
}

TEST(ZebDataBlockWriteRequest, MakesTheBucketDirectoryWithItsParents)
{
    Place place;
    place.setBelow("/not/there");
    EXPECT_FALSE(QFileInfo::exists(place.root()));
    place.request();
    EXPECT_TRUE(QFileInfo(place.bucket()).isDir());
    EXPECT_FALSE(QFileInfo::exists(place.file()));
    // Also a second time, after it was removed.
    ASSERT_TRUE(QDir().rmdir(place.bucket()));
    place.request().setFileName(place.root(), QString(), s_Buckets);
    EXPECT_TRUE(QFileInfo(place.bucket()).isDir());
}

TEST(ZebDataBlockWriteRequest, ADirectoryThatCannotBeMadeIsReportedWhenTheFileIsOpened)
{
    Place place;
    const FileInTheWay obstacle(place.bucket());
    place.request();
    EXPECT_TRUE(place.messages().debugLines().isEmpty());
    EXPECT_EQ(place.request().write(nullptr), 0);
    EXPECT_EQ(place.messages().debugLines().size(), 1);
}

// Whether there is a file

TEST(ZebDataBlockWriteRequest, FindsNoFileWhereThereIsNone)
{
    Place place;
    EXPECT_FALSE(place.request().fileExits());
    EXPECT_FALSE(place.block().cached());
}

TEST(ZebDataBlockWriteRequest, TakesAFileOfTwelveBytesForATruncatedOne)
{
    for (const int size : {0, 1, 11, 12}) {
        Place place;
        place.request();
        BlockFiles::write(place.file(), QByteArray(size, 'q'));
        EXPECT_FALSE(place.request().fileExits()) << size;
        EXPECT_FALSE(place.block().cached()) << size;
    }
}

TEST(ZebDataBlockWriteRequest, TakesAFileOfThirteenBytesForTheBlockWhateverItContains)
{
    for (const int size : {13, 14, 5000}) {
        Place place;
        place.request();
        BlockFiles::write(place.file(), QByteArray(size, 'q'));
        EXPECT_TRUE(place.request().fileExits()) << size;
        EXPECT_TRUE(place.block().cached()) << size;
        EXPECT_EQ(BlockFiles::read(place.file()), QByteArray(size, 'q')) << size;
    }
}

// The file to the byte

TEST(ZebDataBlockWriteRequest, WritesAThousandBytesWithAStreamOfThirtySevenAsFiftyThree)
{
    // The codec decides the length of a stream, so the test searches for bytes with this one.
    QByteArray plain;
    for (int length = 0; length < 200 && qCompress(plain, 2).size() != 41; ++length)
        plain = incompressible(length) + QByteArray(1000 - length, 'a');
    Place place(plain);
    EXPECT_EQ(place.request().write(nullptr), 41);
    const QByteArray file = BlockFiles::read(place.file());
    EXPECT_EQ(file.size(), 53);
    EXPECT_EQ(file.left(16), QByteArray::fromHex("E803000000000000"
                                                 "29000000"
                                                 "000003E8"));
    EXPECT_EQ(qUncompress(file.mid(s_HeaderBytes)), plain);
}

TEST(ZebDataBlockWriteRequest, WritesTheHeaderThePayloadAndNothingElse)
{
    const QByteArray samples[] = {QByteArray("a"),
                                  QByteArray(1000, 'b'),
                                  incompressible(1000),
                                  incompressible(16 * 1024),
                                  text(6000),
                                  incompressible(256 * 1024),
                                  QByteArray(1 << 20, 'c')};
    for (const QByteArray& plain : samples) {
        Place place(plain);
        const QByteArray payload = qCompress(plain, 2);
        QString error = "untouched";
        EXPECT_EQ(place.request().write(&error), payload.size());
        EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileBytes(plain.size(), payload));
        EXPECT_TRUE(place.block().cached());
        EXPECT_EQ(error, "untouched");
        EXPECT_TRUE(place.messages().messages().isEmpty());
        EXPECT_TRUE(place.request().fileExits());
    }
}

TEST(ZebDataBlockWriteRequest, ABlockOfNoBytesHasAPayloadOfItsLengthAlone)
{
    Place place{QByteArray()};
    EXPECT_EQ(place.request().write(nullptr), 4);
    EXPECT_EQ(BlockFiles::read(place.file()), QByteArray::fromHex("0000000000000000"
                                                                  "04000000"
                                                                  "00000000"));
}

TEST(ZebDataBlockWriteRequest, CompressesAtLevelTwo)
{
    Place place(text(2000));
    const int before = s_Compressions;
    place.request().compress();
    EXPECT_EQ(s_Compressions - before, 1);
    EXPECT_EQ(s_LastLevel, 2);
    EXPECT_EQ(qUncompress(place.payload()), text(2000));
    EXPECT_FALSE(place.block().isCompressed()) << "the block itself stays plain";
}

TEST(ZebDataBlockWriteRequest, WritesACompressedBlockAsItIs)
{
    const QByteArray plain = text(2000);
    Place place(plain);
    ASSERT_TRUE(place.block().compress(9));
    const QByteArray stored = BlockInside::storedBytes(place.block());
    ASSERT_NE(stored, qCompress(plain, 2));
    EXPECT_EQ(place.request().blockSize(), plain.size());
    const int before = s_Compressions;
    EXPECT_EQ(place.request().write(nullptr), stored.size());
    EXPECT_EQ(s_Compressions, before);
    // The size in the header is the logical one, not that of the stored bytes.
    EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileBytes(plain.size(), stored));
    EXPECT_EQ(place.payload().constData(), stored.constData()) << "the bytes are shared";
}

TEST(ZebDataBlockWriteRequest, WritesThePayloadThatItMadeBefore)
{
    Place place(text(100));
    place.request().compress();
    const QByteArray payload = place.payload();
    const int before = s_Compressions;
    place.request().compress();
    EXPECT_EQ(place.request().write(nullptr), payload.size());
    EXPECT_EQ(s_Compressions, before);
    EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileBytes(text(100).size(), payload));
}

TEST(ZebDataBlockWriteRequest, OverwritesAnyOlderFile)
{
    for (const int size : {0, 12, 13, 500000}) {
        Place place(text(100));
        place.request();
        BlockFiles::write(place.file(), QByteArray(size, 'q'));
        EXPECT_GT(place.request().write(nullptr), 0);
        EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileOf(text(100)));
    }
}

// An empty payload

TEST(ZebDataBlockWriteRequest, AnEmptyPayloadIsWrittenAndReportedAsAFailureWithoutAText)
{
    const QString failed = "Failed to compress data block.";
    // Each attempt makes a null payload again; an empty payload is kept.
    for (const bool isNull : {false, true}) {
        Place place(compressedBlock(isNull ? QByteArray() : QByteArray(""), 700), "no payload");
        QString error = "untouched";
        EXPECT_EQ(place.request().write(&error), 0);
        EXPECT_EQ(error, "untouched");
        EXPECT_TRUE(place.block().cached());
        EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileBytes(700, QByteArray()));
        EXPECT_EQ(place.messages().debugLines(), QStringList(failed));
        EXPECT_FALSE(place.request().fileExits()) << "twelve bytes are a truncated file";
        EXPECT_EQ(place.request().write(&error), 0);
        EXPECT_EQ(place.messages().count(failed), isNull ? 2 : 1);
        EXPECT_EQ(BlockFiles::read(place.file()).size(), s_HeaderBytes);
    }
}

TEST(ZebDataBlockWriteRequest, AFailureToCompressPlainBytesIsAFailedWriteThatCompressesAgain)
{
    Place place(text(100));
    const QString expected =
        "Cannot Compress Data for File " + place.file() + " : '" + qt_error_string(ENOMEM) + "'";
    QString error;
    place.request();
    s_CodecIsOutOfMemory = true;
    // As a worker does, whose failure must not last either.
    place.request().compress();
    EXPECT_TRUE(place.messages().debugLines().isEmpty());
    const int written = place.request().write(&error);
    s_CodecIsOutOfMemory = false;
    EXPECT_EQ(written, 0);
    EXPECT_EQ(error, expected);
    EXPECT_EQ(place.messages().debugLines(), QStringList(expected));
    EXPECT_FALSE(place.block().cached());
    EXPECT_FALSE(QFileInfo::exists(place.file()));
    EXPECT_TRUE(place.payload().isNull());
    EXPECT_EQ(place.request().write(nullptr), qCompress(text(100), 2).size());
    EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileOf(text(100)));
}

// Failures

TEST(ZebDataBlockWriteRequest, ReportsWhyAFileCannotBeOpened)
{
    for (const bool wasCached : {false, true}) {
        Place place;
        BlockInside::cached(place.block()) = wasCached;
        const FileInTheWay obstacle(place.bucket());
        const QString expected = cannotOpen(place.file(), ENOTDIR);
        QString error;
        EXPECT_EQ(place.request().write(&error), 0);
        EXPECT_EQ(error, expected);
        EXPECT_EQ(place.messages().debugLines(), QStringList(expected));
        EXPECT_EQ(place.block().cached(), wasCached);
        EXPECT_TRUE(place.payload().isNull()) << "nothing is compressed when no file is open";
    }
}

TEST(ZebDataBlockWriteRequest, CanBeWrittenOnceTheFileCanBeOpened)
{
    Place place(text(100));
    FileInTheWay obstacle(place.bucket());
    EXPECT_EQ(place.request().write(nullptr), 0);
    obstacle.remove();
    place.request().setFileName(place.root(), QString(), s_Buckets);
    EXPECT_GT(place.request().write(nullptr), 0);
    EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileOf(text(100)));
}

TEST(ZebDataBlockWriteRequest, AFailedOpenRemovesTheTruncatedFile)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs files of its own";
#endif
    Place place;
    place.request();
    BlockFiles::write(place.file(), QByteArray(12, 'q'));
    QString error;
    {
        const ResourceLimit noFiles(RLIMIT_NOFILE, 0);
        EXPECT_EQ(place.request().write(&error), 0);
    }
    EXPECT_EQ(error, cannotOpen(place.file(), EMFILE));
    EXPECT_FALSE(QFileInfo::exists(place.file()));
    EXPECT_GT(place.request().write(nullptr), 0);
}

// It may be that of another process, which relies on it by now.
TEST(ZebDataBlockWriteRequest, AFailedOpenKeepsACompleteFile)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs files of its own";
#endif
    Place place;
    place.request();
    BlockFiles::write(place.file(), QByteArray(13, 'q'));
    {
        const ResourceLimit noFiles(RLIMIT_NOFILE, 0);
        EXPECT_EQ(place.request().write(nullptr), 0);
    }
    EXPECT_EQ(BlockFiles::read(place.file()), QByteArray(13, 'q'));
    EXPECT_TRUE(place.request().fileExits());
}

TEST(ZebDataBlockWriteRequest, BytesThatStayInTheProcessAreAFailedWrite)
{
    // Around the sizes at which a buffered file passes bytes on at once.
    for (const int size :
         {1,    2,     3,     4,     11,    12,    13,    100,   4083,  4084,  4085,
          8192, 16371, 16372, 16373, 16384, 16385, 20000, 65536, 99999, 100000}) {
        const QByteArray payload = incompressible(size);
        for (const int limit : limitsFor(size)) {
            Place place(compressedBlock(payload, 7), "under a limit");
            place.request();
            if (limit % 2 == 0)
                BlockFiles::write(place.file(), QByteArray(12, 'q'));
            const QString probe = place.root() + "/probe";
            QString expected;
            QString error;
            int written = -1;
            {
                const ResourceLimit limited(RLIMIT_FSIZE, static_cast<rlim_t>(limit));
                expected = failureOfPlainWrites(probe, place.file(), payload);
                written = place.request().write(&error);
            }
            ASSERT_EQ(written, 0) << size << " bytes, limit " << limit;
            ASSERT_EQ(error, expected) << size << " bytes, limit " << limit;
            ASSERT_EQ(place.messages().debugLines(), QStringList(expected));
            ASSERT_FALSE(QFileInfo::exists(place.file())) << size << " bytes, limit " << limit;
            ASSERT_FALSE(place.block().cached());
            ASSERT_EQ(place.payload().constData(), payload.constData()) << "the payload is kept";
            ASSERT_EQ(place.request().write(nullptr), size);
            ASSERT_EQ(BlockFiles::read(place.file()), BlockFiles::fileBytes(7, payload));
            ASSERT_TRUE(place.block().cached());
        }
    }
}

TEST(ZebDataBlockWriteRequest, IsNotCompressedAgainAfterAFailure)
{
    for (const QByteArray& plain : {QByteArray("x"), text(50), incompressible(100000)}) {
        Place place(plain);
        place.request();
        const int before = s_Compressions;
        for (int attempt = 0; attempt < 3; ++attempt) {
            const ResourceLimit limited(RLIMIT_FSIZE, 9);
            EXPECT_EQ(place.request().write(nullptr), 0);
        }
        EXPECT_EQ(s_Compressions - before, 1);
        EXPECT_GT(place.request().write(nullptr), 0);
        EXPECT_EQ(s_Compressions - before, 1);
        EXPECT_EQ(BlockFiles::read(place.file()), BlockFiles::fileOf(plain));
    }
}

TEST(ZebDataBlockWriteRequest, TheTextOfAFailureKeepsPercentSignsInThePath)
{
    const QByteArray payload = incompressible(100);
    Place place(compressedBlock(payload, 7), "percent signs");
    place.setBelow("/100%1%2%3%4%L5");
    place.request();
    QString expected;
    QString error;
    {
        const ResourceLimit limited(RLIMIT_FSIZE, 0);
        expected = failureOfPlainWrites(place.root() + "/probe", place.file(), payload);
        EXPECT_EQ(place.request().write(&error), 0);
    }
    EXPECT_EQ(error.toStdString(), expected.toStdString());
    ASSERT_TRUE(QDir(place.bucket()).removeRecursively());
    const FileInTheWay obstacle(place.bucket());
    EXPECT_EQ(place.request().write(&error), 0);
    EXPECT_EQ(error.toStdString(), cannotOpen(place.file(), ENOTDIR).toStdString());
}

// The end of a request

TEST(ZebDataBlockWriteRequest, DeletesABlockThatItOwnsAndNoOther)
{
    std::atomic<int> deleted{0};
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("owned"));
    delete new ZebDataBlockWriteRequest(hash, new CountedBlock(QByteArray("counted"), &deleted),
                                        true);
    EXPECT_EQ(deleted, 1);
    CountedBlock block(QByteArray("counted"), &deleted);
    delete new ZebDataBlockWriteRequest(hash, &block, false);
    EXPECT_EQ(deleted, 1);
    delete new ZebDataBlockWriteRequest(hash, nullptr, true);
    delete new ZebDataBlockWriteRequest(hash, nullptr, false);
    EXPECT_EQ(hash->refCount(), 1);
}

TEST(ZebDataBlockWriteRequest, DeletesABlockWhoseDeletionWasDeferred)
{
    std::atomic<int> deleted{0};
    QSet<ZebDataBlock*>& deferred = StoreInside::toFreeAfterWritingSet();
    auto* const block = new CountedBlock(QByteArray("counted"), &deleted);
    deferred.insert(block);
    EXPECT_TRUE(ZebDataBlockManager::instance().needsFreeingAfterWriting(block));
    delete new ZebDataBlockWriteRequest(ZebHashManager::instance().getHash(QByteArray("deferred")),
                                        block, false);
    EXPECT_EQ(deleted, 1);
    EXPECT_TRUE(deferred.isEmpty());
}

TEST(ZebDataBlockWriteRequest, AFenceDeletesNothing)
{
    EXPECT_FALSE(ZebDataBlockManager::instance().needsFreeingAfterWriting(nullptr));
    std::atomic<int> deleted{0};
    CountedBlock block(QByteArray("counted"), &deleted);
    QSet<ZebDataBlock*>& deferred = StoreInside::toFreeAfterWritingSet();
    deferred.insert(&block);
    delete new ZebDataBlockWriteRequest(3);
    EXPECT_TRUE(deferred.remove(&block));
    EXPECT_EQ(deleted, 0);
}

TEST(ZebDataBlockWriteRequest, DeletesAHashThatOnlyItHolds)
{
    const int before = ZebDataHash::hashCount();
    auto request = std::make_unique<ZebDataBlockWriteRequest>(
        ZebHashManager::instance().getHash(QByteArray("last holder")), nullptr, false);
    EXPECT_EQ(ZebDataHash::hashCount(), before + 1);
    request.reset();
    EXPECT_EQ(ZebDataHash::hashCount(), before);
}

TEST(ZebDataBlockWriteRequest, ReleasesItsHashOnlyWithTheDeleteLock)
{
    std::atomic<int> deleted{0};
    const ZebSmartPointer<ZebDataHash> hash =
        ZebHashManager::instance().getHash(QByteArray("held"));
    auto request = std::make_unique<ZebDataBlockWriteRequest>(
        hash, new CountedBlock(QByteArray("counted"), &deleted), true);
    StoreInside::deleteLock().lock();
    BlockedThread deleting([&] { request.reset(); });
    EXPECT_TRUE(deleting.waitsFor(StoreInside::deleteLock()));
    EXPECT_EQ(deleted, 1) << "the block is deleted first, without the lock";
    EXPECT_EQ(hash->refCount(), 2);
    StoreInside::deleteLock().unlock();
    EXPECT_TRUE(deleting.ends());
    EXPECT_EQ(hash->refCount(), 1);
}
