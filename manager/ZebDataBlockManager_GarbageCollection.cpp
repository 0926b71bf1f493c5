// The store's side of garbage collection: enabling it, the bracket of a pass, a pass for the host,
// and the size of the disk cache.

#include "manager/ZebDataBlockManager.h"

#include "io/ZebDataBlockReadThread.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/ZebCountUp.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebTdxMessage.h"

#include <atomic>
#include <numeric>

namespace {

// Read on each call, so a host may set it at any time.
bool isBlockedByEnvironment()
{
    return qEnvironmentVariableIsSet("ZEBA_TDX_GARBAGE_COLLECTION_DISABLED");
}

} // namespace

ZebDataBlockManager::ProgressReporter::~ProgressReporter() = default;

void ZebDataBlockManager::startGarbageCollection()
{
    if (isBlockedByEnvironment()) {
        ZebTdxMessage::debug(QStringLiteral("[TDX] Start garbage collection blocked by env"));
        return;
    }
    const ZebTdxMutexLocker deleteLocker(&deleteMutex());
    requireInitialized();
    const ZebMutexLocker locker(&m_GarbageCollectionMutex);
    m_GarbageCollecting.store(true, std::memory_order_relaxed);
    ZebCountUp(m_GarbageCollectionChanges);
}

void ZebDataBlockManager::stopGarbageCollection()
{
    // Kept on purpose: checked first, so an enabled collection stays enabled, even over cleanUp().
    if (isBlockedByEnvironment()) {
        ZebTdxMessage::debug(QStringLiteral("[TDX] Stop garbage collection blocked by env"));
        return;
    }
    if (!garbageCollecting())
        return;
    for (ZebDataBlockReadThread* const reader : qAsConst(m_ReadThreads))
        reader->killRequests();
    flush(false, GarbageCollectorThreads);
    const ZebTdxMutexLocker deleteLocker(&deleteMutex());
    requireInitialized();
    const ZebMutexLocker locker(&m_GarbageCollectionMutex);
    m_GarbageCollecting.store(false, std::memory_order_relaxed);
    ZebCountUp(m_GarbageCollectionChanges);
    // Safe with the delete lock held: no pass takes it inside its bracket.
    while (m_GarbageCollectorsRunning != 0)
        m_GarbageCollectionDone.wait(&m_GarbageCollectionMutex);
}

bool ZebDataBlockManager::garbageCollecting() const
{
    return m_GarbageCollecting.load(std::memory_order_relaxed);
}

bool ZebDataBlockManager::garbageCollectingThreadStarted()
{
    const ZebMutexLocker locker(&m_GarbageCollectionMutex);
    if (!garbageCollecting())
        return false;
    ++m_GarbageCollectorsRunning;
    return true;
}

void ZebDataBlockManager::garbageCollectingThreadFinished()
{
    const ZebMutexLocker locker(&m_GarbageCollectionMutex);
    --m_GarbageCollectorsRunning;
    if (m_GarbageCollectorsRunning == 0 && !garbageCollecting())
        m_GarbageCollectionDone.wakeOne();
}

void ZebDataBlockManager::collectGarbage(ProgressReporter* reporter)
{
    requireInitialized();
    if (reporter != nullptr) {
        // Kept on purpose: the total omits the sub-cache directories, which the passes count, so
        // the value exceeds it by one for each root whose buckets all exist.
        reporter->start(tr("Garbage Collecting"), m_GarbageCollectors.size() * numBuckets());
    }
    int count = 0;
    for (ZebGarbageCollectorThread* const collector : qAsConst(m_GarbageCollectors))
        collector->collect(reporter, &count);
    if (reporter != nullptr)
        reporter->finish();
}

void ZebDataBlockManager::cacheSizeRecord(ZebGarbageCollectorThread* thread, qint64 size)
{
    const ZebMutexLocker locker(&m_CacheSizeMutex);
    m_CacheSizeRecords.insert(thread, size);
    // Kept on purpose: emitted with the mutex held, so slots see the reports in order.
    Q_EMIT cacheSizeUpdate(currentCacheSizeInBytes());
}

qint64 ZebDataBlockManager::currentCacheSizeInBytes() const
{
    const ZebMutexLocker locker(&m_CacheSizeMutex);
    return std::accumulate(m_CacheSizeRecords.cbegin(), m_CacheSizeRecords.cend(), qint64(0));
}
