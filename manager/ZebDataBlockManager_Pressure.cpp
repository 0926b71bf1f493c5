// How blocks leave memory: the two limits, eviction, and the host's levers.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebDataHash.h"
#include "io/ZebDataBlockWriteThread.h"
#include "manager/ZebSystemMemory.h"
#include "support/ZebTdxMessage.h"

#include <QReadLocker>
#include <QThread>
#include <QWriteLocker>

namespace {

constexpr std::memory_order s_Relaxed = std::memory_order_relaxed;

// Free memory is measured about once for so many bytes requested.
constexpr qint32 s_MeasureInterval = 134217728;

// A sum from which the very next request, of one byte or more, crosses a multiple of the interval.
constexpr qint32 s_MeasureNext = s_MeasureInterval - 1;

// Eviction goes on down to this share of the limit, so that it does not run on every admission.
constexpr double s_EvictionShare = 0.9;

// The host's flag falls when more than this many blocks could be evicted.
constexpr int s_FlushedFlagBlocks = 16;

constexpr quint64 s_FlushMemoryBytes = 536870912;
constexpr quint64 s_HelpMeOutBytes = 1099511627776;
constexpr unsigned long s_BrakeMs = 1000;

// The running sum of all bytes requested, in its low 32 bits; it wraps freely.
std::atomic<qint32> s_RequestedBytes{0};

// The last measure of free physical memory, taken at first use.
std::atomic<quint64>& freePhysicalMemory()
{
    static std::atomic<quint64> s_FreePhysicalMemory{
        static_cast<quint64>(ZebGetFreePhysicalMemoryBytes())};
    return s_FreePhysicalMemory;
}

// Counts a request. Returns whether it is one to measure free memory for.
bool countRequest(quint64 size)
{
    const auto low = static_cast<quint32>(size);
    const qint32 before = s_RequestedBytes.fetch_add(static_cast<qint32>(low), s_Relaxed);
    const auto after = static_cast<qint32>(static_cast<quint32>(before) + low);
    return size >= static_cast<quint64>(s_MeasureInterval) ||
           before / s_MeasureInterval != after / s_MeasureInterval;
}

} // namespace

bool ZebDataBlockManager::managePhysicalMemoryUse(quint64 size, bool write)
{
    std::atomic<quint64>& measured = freePhysicalMemory();
    const bool measure = countRequest(size);
    const auto target = static_cast<quint64>(targetFreeMemorySize());
    if (!measure &&
        static_cast<quint64>(liveBytes()) + size < static_cast<quint64>(maxDataCacheSize()) &&
        measured.load(s_Relaxed) > target + size) {
        if (allFreeBlocksFlushed()) {
            const ZebTdxMutexLocker locker(&m_DeleteMutex);
            if (m_Lru.count() > s_FlushedFlagBlocks)
                setAllFreeBlocksFlushed(false);
        }
        return false;
    }
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    if (measure && write)
        measured.store(static_cast<quint64>(ZebGetFreePhysicalMemoryBytes()), s_Relaxed);
    const int freed = evict(size, measured.load(s_Relaxed), write);
    if (freed > 0) {
        s_RequestedBytes.store(s_MeasureNext, s_Relaxed);
        if (write && m_Lru.count() == 0)
            setAllFreeBlocksFlushed(true);
        return true;
    }
    if (write && m_Lru.count() > s_FlushedFlagBlocks)
        setAllFreeBlocksFlushed(false);
    return false;
}

int ZebDataBlockManager::evict(quint64 size, quint64 free, bool write)
{
    int freed = 0;
    for (;;) {
        const qint64 maximum = qMax<qint64>(0, maxDataCacheSize());
        const auto limit = static_cast<quint64>(static_cast<double>(maximum) * s_EvictionShare);
        if (static_cast<quint64>(liveBytes()) + size <= limit &&
            free >= static_cast<quint64>(targetFreeMemorySize()) + size)
            return freed;
        const qint64 liveBefore = liveBytes();
        ZebDataHash* hash = nullptr;
        {
            const QReadLocker lruLocker(&m_Lru.lock());
            hash = m_Lru.oldest();
        }
        if (hash == nullptr)
            return freed;
        if (!hash->tryLock()) {
            // Somebody takes or releases a reference on it at this moment; eviction does not wait.
            m_Lru.touch(hash);
            continue;
        }
        {
            const QWriteLocker lruLocker(&m_Lru.lock());
            m_Lru.remove(hash);
        }
        freeBlock(hash, write, true);
        // The estimate is corrected by what went; only a measure makes it right again.
        free += static_cast<quint64>(liveBefore - liveBytes());
        ++freed;
    }
}

void ZebDataBlockManager::freeBlock(ZebDataHash* hash, bool write, bool hashLocked)
{
    // References may outlive the store, and their last release ends here.
    if (!isInitialized())
        return;
    ZebTdxMutexLocker locker(&m_DeleteMutex);
    {
        const ZebTdxMutexLocker lookupLocker(&m_DeleteMutex);
        requireInitialized();
        if (!m_HashToBlockMap.contains(hash)) {
            if (hashLocked)
                hash->unlock();
            return;
        }
        if (!blockIsLocked(hash))
            blockUsed(hash);
    }
    ZebDataBlock* const block = m_HashToBlockMap.value(hash);
    m_LiveBytes.fetch_sub(block->size(), s_Relaxed);
    m_HashToBlockMap.remove(hash);
    {
        const QWriteLocker lruLocker(&m_Lru.lock());
        m_Lru.remove(hash);
    }
    m_BlocksFreedCount.fetch_add(1, s_Relaxed);
    if (hashLocked)
        hash->unlock();
    if (write && !hash->isDontCache() && leaveToWriter(hash, block, locker))
        return;
    locker.unlock();
    delete block;
}

bool ZebDataBlockManager::leaveToWriter(ZebDataHash* hash, ZebDataBlock* block,
                                        ZebTdxMutexLocker& locker)
{
    const int index = cacheIndex(hash);
    const bool isBeingWritten = m_BlocksBeingWritten.contains(block);
    if (index != -1 && !block->cached() && !isBeingWritten) {
        const ZebSmartPointer<ZebDataHash> held = hash->holdUnlessEnding();
        // Nobody can ask for the block of an ending hash again.
        if (held.isNull())
            return false;
        ZebDataBlockWriteThread* const writer = writerOf(index, hash);
        m_BlocksBeingWritten.insert(block);
        locker.unlock();
        writer->writeBlock(PreloadNormal, held, block, true);
        return true;
    }
    if (!isBeingWritten)
        return false;
    m_BlocksToFreeAfterWriting.insert(block);
    return true;
}

bool ZebDataBlockManager::flushMemory(bool force)
{
    if (force)
        s_RequestedBytes.store(s_MeasureNext, s_Relaxed);
    return managePhysicalMemoryUse(s_FlushMemoryBytes, true);
}

bool ZebDataBlockManager::helpMeOut()
{
    return managePhysicalMemoryUse(s_HelpMeOutBytes, false);
}

void ZebDataBlockManager::freeAllBlocks()
{
    flush(false, AllThreads);
    {
        const ZebTdxMutexLocker locker(&m_DeleteMutex);
        requireInitialized();
        const QHash<ZebDataHash*, ZebDataBlock*> blocks = m_HashToBlockMap;
        for (auto block = blocks.constBegin(); block != blocks.constEnd(); ++block)
            freeBlock(block.key(), true, false);
        m_HashToBlockMap.clear();
        const QWriteLocker lruLocker(&m_Lru.lock());
        m_Lru.clear();
    }
    flush(false, AllThreads);
}

qint64 ZebDataBlockManager::bytesInWriteQueues() const
{
    qint64 sum = 0;
    for (const ZebDataBlockWriteThread* const writer : m_WriteThreads)
        sum += writer->bytesInQueue();
    return sum;
}

void ZebDataBlockManager::processIO()
{
    for (;;) {
        const qint64 queued = bytesInWriteQueues();
        const qint64 limit = m_MaxWritePendingDataCacheSize.load(s_Relaxed);
        if (queued < limit)
            return;
        ZebTdxMessage::debug(QString::asprintf(
            "ZebDataBlockManager::processIO: Excessive data in the queue: %lld bytes (max = "
            "%lld): sleeping calling thread...",
            static_cast<long long>(queued), static_cast<long long>(limit)));
        QThread::msleep(s_BrakeMs);
    }
}
