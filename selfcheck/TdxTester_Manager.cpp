// The checks of the store on one thread: its settings, its paths, and its blocks one by one.

#include "selfcheck/TdxTester.h"

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "manager/ZebBuildFilename.h"
#include "manager/ZebDataBlockManager.h"
#include "selfcheck/ZebByteChain.h"
#include "selfcheck/ZebSelfCheck.h"
#include "selfcheck/ZebSelfCheckFrame.h"
#include "selfcheck/ZebSelfCheckStore.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cmath>
#include <vector>

using ZebByteUnits::s_BytesPerMiB;
using ZebSelfCheck::failure;
using ZebSelfCheck::line;
using ZebSelfCheck::s_Buckets;

namespace {

constexpr int s_SampleFiles = 1000;
constexpr int s_SampleBytes = 256 * 1024;

constexpr int s_BlockBytes = 2048;
constexpr int s_Fill = 0x80;

// Creates a file in the place of the block whose bytes are made from `index`.
bool makeSampleFile(const QString& root, int index)
{
    const ZebDataHash hash(ZebByteChain::bytes(static_cast<quint32>(index), s_SampleBytes),
                           ZebDataHash::Hash512);
    QString directory;
    QString fileName;
    if (!ZebBuildFilename(&hash, root, QLatin1String(ZebSelfCheck::s_SubCache), s_Buckets,
                          directory, fileName))
        return failure("[!!] Failed to build filename");
    if (!QDir().mkpath(directory))
        return failure("[!!] Cannot make directory");
    QFile file(directory + fileName);
    const QByteArray text = hash.toString().toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        return failure("[!!] Cannot make Sample File %s", qUtf8Printable(file.fileName()));
    return true;
}

bool makeSampleFiles(const QString& root)
{
    constexpr int step = 100;
    for (int i = 0; i < s_SampleFiles; ++i) {
        if (i % step == 0)
            line("Run test %d of %d", i, s_SampleFiles);
        if (!makeSampleFile(root, i))
            return false;
    }
    return true;
}

// The sample standard deviation of the files in each bucket, as a share of all files.
double spread(const std::vector<int>& counts)
{
    double sum = 0.0;
    for (const int count : counts)
        sum += count;
    const double mean = sum / static_cast<double>(counts.size());
    double squares = 0.0;
    for (const int count : counts)
        squares += std::pow(count - mean, 2.0);
    return std::sqrt(squares / static_cast<double>(counts.size() - 1)) / s_SampleFiles;
}

bool bucketsAreEven(const QString& root)
{
    constexpr double bound = 0.05;
    if (!QFileInfo::exists(root))
        return failure("[!!] Cache Root directory does not exist");
    const QString subCache = root + QStringLiteral("/") + QLatin1String(ZebSelfCheck::s_SubCache);
    if (!QFileInfo::exists(subCache))
        return failure("[!!] Cache Sub directory does not exist");
    const QStringList created = QDir(subCache).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    if (created.size() != s_Buckets)
        return failure("Expected %d Buckets, only %d Created", s_Buckets, created.size());
    std::vector<int> counts;
    for (int bucket = 0; bucket < s_Buckets; ++bucket) {
        const QString name = QString::number(bucket);
        if (!created.contains(name))
            return failure("[!!]Cannot find expected Bucket %s", qUtf8Printable(name));
        const QDir directory(subCache + QStringLiteral("/") + name);
        const int count = directory.entryList(QDir::Files).size();
        line("%s contains %d", qUtf8Printable(directory.path()), count);
        counts.push_back(count);
    }
    const double deviation = spread(counts);
    if (deviation > bound)
        return failure("Cache Buckets seems to misbehaving");
    line("Standard Deviation %f", deviation);
    return true;
}

bool newBlockIsFilled()
{
    const ZebModifyAccessor accessor =
        ZebDataBlockManager::instance().createNewBlock(s_BlockBytes, s_Fill);
    const unsigned char* const data = accessor.data();
    if (data == nullptr)
        return failure("New Block Data is NULL");
    if (accessor.size() != s_BlockBytes)
        return failure("New Block is an invalid size");
    for (int i = 0; i < s_BlockBytes; ++i) {
        if (data[i] != s_Fill) {
            return failure("New Block is Filled with invalid values %d=%d not %d", i, data[i],
                           s_Fill);
        }
    }
    return true;
}

unsigned char patternAt(int index)
{
    constexpr int modulus = 251;
    return static_cast<unsigned char>(index % modulus);
}

// Adds a new block of the pattern to the store.
ZebDataReference addPattern()
{
    ZebModifyAccessor accessor = ZebDataBlockManager::instance().createNewBlock(s_BlockBytes);
    unsigned char* const data = accessor.data();
    for (int i = 0; i < s_BlockBytes; ++i)
        data[i] = patternAt(i);
    return accessor.release(ZebModifyAccessor::Cached, false);
}

// Opens two accessors of the block and one of an equal block; all are closed on return.
bool accessorsAgree(const ZebDataReference& reference, ZebDataReference& twin)
{
    const ZebConstAccessor first = reference.constAccessor();
    if (first.isNull())
        return failure("Const Accessor is NULL");
    if (first.data() == nullptr)
        return failure("Const Accessor Points to NULL");
    if (first.size() == 0)
        return failure("Size of const accessor block is NULL");
    if (first.count() != 1)
        return failure("Invalid accessor count");
    const ZebConstAccessor second(first);
    if (first.count() != 2)
        return failure("Invalid accessor count after 2nd reference");
    for (int i = 0; i < s_BlockBytes; ++i) {
        if (first.data()[i] != patternAt(i))
            return failure("First accesor invalid");
        if (second.data()[i] != first.data()[i])
            return failure("Second accesor invalid data at %d", i);
    }
    twin = addPattern();
    // Equal bytes become one block as soon as the twin's hash is computed.
    const ZebConstAccessor third = twin.constAccessor();
    // Kept on purpose: blocks are not counted, and -1 takes the place of the 1 in the message.
    if (ZebSelfCheck::blockCount() != -1) {
        return failure("Block count failure, should be 1 is %d", ZebSelfCheck::blockCount());
    }
    if (ZebDataHash::hashCount() != 1)
        return failure("hash Count failure shold be one is %d", ZebDataHash::hashCount());
    if (third.isNull() || third.count() != 3) {
        return failure("Accessor count should be 3 is %d", third.isNull() ? 0 : third.count());
    }
    return true;
}

bool oneBlockIsLive()
{
    ZebDataReference twin;
    const ZebDataReference reference = addPattern();
    if (!accessorsAgree(reference, twin))
        return false;
    // A block with an open accessor does not count as live, so the accessors are closed by now.
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (manager.liveBlocks() != 1)
        return failure("Invalid Number of data blocks alive %lld", manager.liveBlocks());
    if (manager.managedBlocks() != 1) {
        return failure("Live Block Count is incorrect is %lld should be 1",
                       manager.managedBlocks());
    }
    if (manager.liveBytes() != s_BlockBytes) {
        return failure("Data block manager live bytes count size wrong. is %lld should be %lld",
                       manager.liveBytes(), qint64(s_BlockBytes));
    }
    return true;
}

bool settingsAreThoseOf(const ZebSelfCheckFrame& frame)
{
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (manager.numBuckets() != frame.m_Buckets)
        return failure("Num Buckets is different");
    if (manager.maxDataCacheSize() != frame.m_MemoryBytes)
        return failure("Size of data cache is different");
    if (manager.cacheRoots() != frame.m_Roots)
        return failure("Cache Path is different");
    if (manager.managedBlocks() != 0)
        return failure("Managed Block Count is not 0");
    if (manager.liveBytes() != 0)
        return failure("liveBytes Count is not 0");
    if (manager.liveBlocks() != 0)
        return failure("liveBlocks Count is not 0");
    return true;
}

bool nothingIsSet()
{
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (manager.managedBlocks() != 0)
        return failure("Managed Blocks is not zero after cleanup");
    if (manager.liveBytes() != 0)
        return failure("Live Bytes is not zero after cleanup");
    if (manager.liveBlocks() != 0)
        return failure("Live Blocks is not zero after cleanup");
    if (manager.maxDataCacheSize() != 0)
        return failure("Max Data Cache Size is not zero after cleanup");
    if (manager.numBuckets() != 0)
        return failure("Number of buckets is not zero after cleanup");
    if (!manager.cacheRoots().isEmpty())
        return failure("Number of cache roots is not zero after cleanup");
    if (manager.garbageCollecting())
        return failure("Garbage Collecting still enabled after cleanup");
    if (manager.isInitialized())
        return failure("Data Block Manager is still initialized after cleanup");
    return true;
}

bool subCacheIsSet()
{
    const QString name = QStringLiteral("Test1");
    ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (!manager.subCache().isEmpty())
        return failure("Sub Cache path is not empty string");
    manager.setSubCache(name);
    if (manager.subCache() != name)
        return failure("Sub Cache path is not correct ");
    return true;
}

bool nothingIsLeft()
{
    if (ZebDataHash::hashCount() != 0)
        return failure("There are %d hashes left", ZebDataHash::hashCount());
    // Kept on purpose: the count is the constant -1, so this never fails.
    if (ZebSelfCheck::blockCount() > 0)
        return failure("There are %d Blocks left", ZebSelfCheck::blockCount());
    return true;
}

} // namespace

bool TdxTester::testfilenameBuilder()
{
    ZebSelfCheckFrame frame = {"[ -- ] Starting Filename Builder Test",
                               "[ OK ] Passed Filename Builder Test"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    frame.m_MemoryBytes = 1024 * s_BytesPerMiB;
    const QString root = frame.m_Roots.first();
    return frame.run([&root] { return makeSampleFiles(root) && bucketsAreEven(root); });
}

bool TdxTester::testSubCache()
{
    ZebSelfCheckFrame frame = {"[ -- ] Starting Sub Cache Tests", "[ OK ] Passed Sub Cache Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    frame.m_MemoryBytes = 10 * s_BytesPerMiB;
    // With the collection on, the sub-cache could not be changed.
    frame.m_IsCollecting = false;
    return frame.run(&subCacheIsSet);
}

bool TdxTester::testDataBlockManagerBasic()
{
    ZebSelfCheckFrame frame = {"[ -- ] Starting Data Block Manager Basic Tests",
                               "[ OK ] Passed Data Block Manager Basic Tests"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    frame.m_MemoryBytes = 2048 * s_BytesPerMiB;
    frame.m_Buckets = 20;
    frame.m_NotReadyLine = "Cannot Initialise Data Block Manager";
    return frame.run([&frame] { return settingsAreThoseOf(frame); }, &nothingIsSet);
}

bool TdxTester::testDataBlockManagerSingleThread()
{
    ZebSelfCheckFrame frame = {"[ -- ] Started DataBlock Manager Single threaded test",
                               "[ OK ] DataBlock Manager Single threaded test passed"};
    frame.m_Roots = ZebSelfCheckStore::rootsIn(m_TestDataDirectory, 1);
    frame.m_IsCollecting = false;
    return frame.run([] { return newBlockIsFilled() && oneBlockIsLive(); }, &nothingIsLeft);
}

bool TdxTester::testDataBlockManagerDataStress()
{
    line("[ -- ] Starting Datablock Data Stress Test");
    const ZebDataBlockManager& manager = ZebDataBlockManager::instance();
    if (manager.managedBlocks() != 0)
        return failure("Data Block Manager has managed blocks");
    if (manager.liveBlocks() != 0)
        return failure("Data Block Manager has live blocks");
    if (manager.liveBytes() != 0)
        return failure("Data Block Manager has live bytes");
    line("[ OK ] Passed Datablock Data Stress Test");
    return true;
}
