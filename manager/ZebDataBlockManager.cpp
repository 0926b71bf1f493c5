// The store's setup and cleanup, its settings, and its flag for the host.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "manager/ZebClosedGate.h"
#include "manager/ZebSystemMemory.h"
#include "support/ZebByteUnits.h"
#include "support/ZebForkWatch.h"
#include "support/ZebPoolExit.h"
#include "support/ZebTdxLog.h"
#include "support/ZebTdxMessage.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QThreadPool>

#include <algorithm>
#include <limits>

namespace {

constexpr int s_DeleteLockLevel = 0;
constexpr int s_DefaultBuckets = 10;
constexpr qint64 s_MinWritePendingBytes = 1048576;
constexpr qint64 s_NoBlocksFreed = -1;

void printSize(const char* format, qint64 bytes)
{
    ZebTdxMessage::debug(
        QString::asprintf(format, static_cast<long long>(bytes),
                          static_cast<long long>(bytes / ZebByteUnits::s_BytesPerMiB)));
}

// Truncates toward zero; values out of range become the nearest 64-bit integer.
qint64 truncated(float value)
{
    constexpr float end = 9223372036854775808.0F;
    if (value >= end)
        return std::numeric_limits<qint64>::max();
    if (!(value >= -end))
        return std::numeric_limits<qint64>::min();
    return static_cast<qint64>(value);
}

void waitForGlobalPool(bool atProcessEnd)
{
    // At process exit Qt may have destroyed the pool before the store.
    QThreadPool* const pool = QThreadPool::globalInstance();
    if (pool != nullptr && atProcessEnd)
        ZebPoolExit::waitForOthers(*pool);
    else if (pool != nullptr)
        pool->waitForDone(-1);
}

// Kept on purpose: the misspelt and uneven lines, which hosts may match.
void warnOfMissingVirtualMemory()
{
    static const char* const lines[] = {
        "Warning: #######################################################################",
        "Warning:  #####################################################################",
        "Warning: #######################################################################",
        "Warning: ",
        "Warning: No Virtual Memory System detected.",
        "Warning: It is highly recomended that you use Zeba with a virtual memory system.",
        "Warning: ",
        "Warning: #######################################################################",
        "Warning:  ##################################################################### ",
        "Warning: #######################################################################",
    };
    for (const char* const line : lines)
        ZebTdxMessage::debug(QLatin1String(line));
}

} // namespace

ZebDataBlockManager::ZebDataBlockManager()
    : m_MaxDataCacheSize(defaultCacheSize()),
      m_MaxWritePendingDataCacheSize(0),
      m_MaxWritePendingSizeFactor(defaultMaxWritePendingSizeFactor()),
      m_TargetFreeMemorySize(defaultTargetFreeMemorySize()),
      m_BlocksFreedCount(s_NoBlocksFreed),
      m_LiveBytes(0),
      m_NumBuckets(s_DefaultBuckets),
      m_GarbageCollecting(false),
      m_GarbageCollectorsRunning(0),
      m_Initialized(false),
      m_RequestPromotionEnabled(false),
      m_DeleteMutex(s_DeleteLockLevel, QMutex::Recursive),
      m_CacheSizeMutex(QMutex::Recursive),
      m_AllFreeBlocksFlushed(false),
      m_GarbageCollectionChanges(0)
{
    m_Lru.countReaders();
    calcMaxWritePendingDataCacheSize();
    setTargetFreeMemorySize(defaultTargetFreeMemorySize());
    ZebHashManager::instance();
    // Static objects that Qt constructs before the store are destroyed after it: a reader may need
    // the pool until the store has ended.
    QThreadPool::globalInstance();
}

ZebDataBlockManager::~ZebDataBlockManager()
{
    ZebTdxLog::instance().setEnabled(false);
    cleanUp(false);
}

ZebDataBlockManager& ZebDataBlockManager::instance()
{
    // What outlives the store still takes the delete lock, and finds the store not set up.
    struct ProcessEnd
    {
        ~ProcessEnd() { m_Manager.endWithProcess(); }
        ZebDataBlockManager& m_Manager;
    };
    static ZebDataBlockManager& manager = []() -> ZebDataBlockManager& {
        static const ProcessEnd end{*new ZebDataBlockManager};
        return end.m_Manager;
    }();
    return manager;
}

void ZebDataBlockManager::endWithProcess()
{
    if (ZebForkWatch::isStoreOfParent())
        return;
    // A job that is pending still adds its block, and the block is written.
    if (isInitialized())
        ZebThreadPoolManager::instance().waitForTasks();
    {
        const ZebTdxMutexLocker locker(&deleteMutex());
        m_HasEnded.store(true, std::memory_order_relaxed);
    }
    ZebTdxLog::instance().setEnabled(false);
    cleanUp(false);
}

bool ZebDataBlockManager::setup(const QStringList& cacheRoots, qint64 maxDataCacheSize,
                                int numBuckets, int compressionThreads)
{
    if (isInitialized())
        ZebTdxMessage::fatal(QStringLiteral("Setup called twice on DataBlock Manager"));
    if (!ZebSystemHasVirtualMemory())
        warnOfMissingVirtualMemory();
    m_NumBuckets.store(numBuckets, std::memory_order_relaxed);
    if (maxDataCacheSize != -1)
        setMaxDataCacheSize(maxDataCacheSize);
    for (const QString& root : cacheRoots)
        requireCacheRoot(root);
    m_CacheRoots = cacheRoots;
    ZebForkWatch::setStoreIsSetUp(true);
    for (const QString& root : cacheRoots)
        startIoThreads(root, compressionThreads);
    {
        // Nothing has closed it lately, so readers may pass it the cheaper way.
        const ZebTdxMutexLocker locker(&deleteMutex());
        ZebReadGate::relax();
    }
    m_Initialized.store(true, std::memory_order_release);
    return true;
}

void ZebDataBlockManager::requireCacheRoot(const QString& root)
{
    if (QDir(root).exists())
        return;
    const QString path = QFileInfo(root).absoluteFilePath();
    if (!QDir().mkpath(path) || !QFileInfo::exists(root))
        ZebTdxMessage::fatal(QStringLiteral("Cannot Create cache root at %1").arg(path));
}

void ZebDataBlockManager::cleanUp(bool processEvents)
{
    // In a forked child the threads to wait for are the parent's.
    if (!isInitialized() || ZebForkWatch::isStoreOfParent())
        return;
    stopGarbageCollection();
    stopAllIoThreads();
    // A decompression in progress must find the store set up when it makes its block live.
    waitForGlobalPool(m_HasEnded.load(std::memory_order_relaxed));
    dropAllBlocks();
    setAllFreeBlocksFlushed(false);
    if (processEvents && QCoreApplication::instance() != nullptr)
        QCoreApplication::processEvents();
    waitForGlobalPool(m_HasEnded.load(std::memory_order_relaxed));
}

void ZebDataBlockManager::dropAllBlocks()
{
    // Keeps other threads from half-cleared tables. A thread that drops a last reference meanwhile
    // breaks the contract of cleanUp(): it waits for this lock, and freeBlock() then aborts.
    const ZebTdxMutexLocker deleteLocker(&deleteMutex());
    const ZebClosedGate gate(&m_GateDepth);
    while (ZebDataHash* const hash = m_Lru.anyResident())
        delete m_Lru.dismiss(hash);
    m_MaxDataCacheSize.store(0, std::memory_order_relaxed);
    m_LiveBytes.store(0, std::memory_order_relaxed);
    m_NumBuckets.store(0, std::memory_order_relaxed);
    m_BlocksFreedCount.store(s_NoBlocksFreed, std::memory_order_relaxed);
    m_CacheRoots.clear();
    m_Lru.clear();
    m_SubCache.clear();
    m_SubCacheGeneration.fetch_add(1, std::memory_order_relaxed);
    // The writers have ended, so no request refers to these. A later block may get their addresses.
    m_BlocksBeingWritten.clear();
    m_BlocksToFreeAfterWriting.clear();
    m_Initialized.store(false, std::memory_order_release);
    ZebForkWatch::setStoreIsSetUp(false);
}

bool ZebDataBlockManager::isInitialized() const
{
    return m_Initialized.load(std::memory_order_acquire);
}

void ZebDataBlockManager::requireInitialized() const
{
    if (!isInitialized())
        ZebTdxMessage::fatalNotInitialized();
}

QStringList ZebDataBlockManager::cacheRoots() const
{
    return m_CacheRoots;
}

int ZebDataBlockManager::numBuckets() const
{
    return m_NumBuckets.load(std::memory_order_relaxed);
}

qint64 ZebDataBlockManager::maxDataCacheSize() const
{
    return m_MaxDataCacheSize.load(std::memory_order_relaxed);
}

void ZebDataBlockManager::setMaxDataCacheSize(qint64 size)
{
    m_MaxDataCacheSize.store(size, std::memory_order_relaxed);
    calcMaxWritePendingDataCacheSize();
}

float ZebDataBlockManager::maxWritePendingSizeFactor() const
{
    return m_MaxWritePendingSizeFactor.load(std::memory_order_relaxed);
}

void ZebDataBlockManager::setMaxWritePendingSizeFactor(float factor)
{
    m_MaxWritePendingSizeFactor.store(factor, std::memory_order_relaxed);
    calcMaxWritePendingDataCacheSize();
}

void ZebDataBlockManager::calcMaxWritePendingDataCacheSize()
{
    const qint64 limit = maxDataCacheSize();
    // Kept on purpose: single precision, so a limit above 16 MiB is rounded to 24 bits.
    const float product = static_cast<float>(limit) * maxWritePendingSizeFactor();
    const qint64 pending = std::max(s_MinWritePendingBytes, std::min(limit, truncated(product)));
    m_MaxWritePendingDataCacheSize.store(pending, std::memory_order_relaxed);
    printSize("[TDX] Max data cache size    = %lld bytes (%lld MB)", limit);
    printSize("[TDX] Max write pending size = %lld bytes (%lld MB)", pending);
}

qint64 ZebDataBlockManager::targetFreeMemorySize() const
{
    return m_TargetFreeMemorySize.load(std::memory_order_relaxed);
}

void ZebDataBlockManager::setTargetFreeMemorySize(qint64 size)
{
    m_TargetFreeMemorySize.store(size, std::memory_order_relaxed);
    printSize("[TDX] Target Free Memory = %lld bytes (%lld MB)", size);
}

qint64 ZebDataBlockManager::defaultCacheSize()
{
    return ZebGetTotalPhysicalMemoryBytes() / 4;
}

float ZebDataBlockManager::defaultMaxWritePendingSizeFactor()
{
    return 0.5F;
}

qint64 ZebDataBlockManager::defaultTargetFreeMemorySize() const
{
    return 0x20000000;
}

bool ZebDataBlockManager::allFreeBlocksFlushed()
{
    return m_AllFreeBlocksFlushed.load(std::memory_order_relaxed);
}

void ZebDataBlockManager::setAllFreeBlocksFlushed(bool flushed)
{
    if (m_AllFreeBlocksFlushed.load(std::memory_order_relaxed) == flushed)
        return;
    m_AllFreeBlocksFlushed.store(flushed, std::memory_order_seq_cst);
    // While the flag is set, the end of an accessor takes the delete lock and clears it. Repeated
    // until the mark agrees with the flag, which another thread may have set meanwhile.
    bool marked = flushed;
    do {
        marked = m_AllFreeBlocksFlushed.load(std::memory_order_seq_cst);
        ZebReadGate::setUnpinsSlow(marked);
    } while (m_AllFreeBlocksFlushed.load(std::memory_order_seq_cst) != marked);
    Q_EMIT allFreeBlocksFlushedChanged(flushed);
}

void ZebDataBlockManager::lockDeletes()
{
    deleteMutex().lock();
    ZebClosedGate::close(&m_GateDepth);
}

void ZebDataBlockManager::unlockDeletes()
{
    ZebClosedGate::open(&m_GateDepth);
    deleteMutex().unlock();
}
