// Eviction: its two limits, its order, and the host's calls that evict.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashWord.h"
#include "manager/ZebClosedGate.h"
#include "manager/ZebSystemMemory.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebTestPoint.h"

#include <QScopeGuard>

#include <atomic>
#include <optional>

namespace {

// Free memory is measured about once for this many bytes requested.
constexpr qint32 s_MeasureIntervalBytes = 134217728;

// A sum after which the next request of at least a byte crosses a multiple of the interval.
constexpr qint32 s_MeasureNextBytes = s_MeasureIntervalBytes - 1;

// Eviction stops at this share of the limit of resident bytes.
constexpr double s_EvictionShare = 0.9;

// The host's flag is cleared when more than this many blocks are evictable.
constexpr int s_FlushedFlagBlocks = 16;

// How often eviction looks for a block that readers leave alone, before it holds them off.
constexpr int s_MostTurns = 16;

constexpr quint64 s_FlushMemoryBytes = 536870912;
constexpr quint64 s_HelpMeOutBytes = 1099511627776;

// State of the process, not of the store: it survives cleanUp() into the next setup(). Relaxed
// atomics, written by any admitting thread; a stale value costs a measurement too many or too few.
namespace ProcessWide {

// The low 32 bits of the sum of all bytes requested; set to s_MeasureNextBytes to force a
// measurement.
std::atomic<qint32> s_RequestedBytes{0};

// The free physical memory in bytes, as last measured; first measured at first use.
std::atomic<quint64>& freePhysicalMemory()
{
    static std::atomic<quint64> measured{static_cast<quint64>(ZebGetFreePhysicalMemoryBytes())};
    return measured;
}

} // namespace ProcessWide

// Counts a request and returns whether it must measure free memory.
bool countRequest(quint64 size)
{
    const auto low = static_cast<quint32>(size);
    const qint32 before = ProcessWide::s_RequestedBytes.fetch_add(static_cast<qint32>(low),
                                                                  std::memory_order_relaxed);
    const auto after = static_cast<qint32>(static_cast<quint32>(before) + low);
    return size >= static_cast<quint64>(s_MeasureIntervalBytes) ||
           before / s_MeasureIntervalBytes != after / s_MeasureIntervalBytes;
}

} // namespace

bool ZebDataBlockManager::managePhysicalMemoryUse(quint64 size, bool write)
{
    std::atomic<quint64>& measured = ProcessWide::freePhysicalMemory();
    const bool measure = countRequest(size);
    const auto target = static_cast<quint64>(targetFreeMemorySize());
    // Kept on purpose: this check allows the whole limit, the loop of evict() 90 percent of it.
    if (!measure &&
        static_cast<quint64>(liveBytes()) + size < static_cast<quint64>(maxDataCacheSize()) &&
        measured.load(std::memory_order_relaxed) > target + size) {
        if (allFreeBlocksFlushed()) {
            const ZebTdxMutexLocker locker(&deleteMutex());
            if (m_Lru.count() > s_FlushedFlagBlocks)
                changeAllFreeBlocksFlushed(false);
        }
        return false;
    }
    const ZebTdxMutexLocker locker(&deleteMutex());
    if (measure && write)
        measured.store(static_cast<quint64>(ZebGetFreePhysicalMemoryBytes()),
                       std::memory_order_relaxed);
    // Once closed, it stays closed until the flag has been decided.
    std::optional<ZebClosedGate> gate;
    const int freed = evict(size, measured.load(std::memory_order_relaxed), write, &gate);
    if (freed > 0) {
        // Kept on purpose: the next request measures and takes the slow path again, so a full
        // store stays at 90 percent and evicts at each admission.
        ProcessWide::s_RequestedBytes.store(s_MeasureNextBytes, std::memory_order_relaxed);
        if (write && m_Lru.count() == 0) {
            if (!gate)
                gate.emplace(&m_GateDepth);
            // Exact now: no reader is opening or closing.
            if (m_Lru.count() == 0)
                changeAllFreeBlocksFlushed(true);
        }
        return true;
    }
    if (write && allFreeBlocksFlushed() && m_Lru.count() > s_FlushedFlagBlocks)
        changeAllFreeBlocksFlushed(false);
    return false;
}

int ZebDataBlockManager::evict(quint64 size, quint64 free, bool write,
                               std::optional<ZebClosedGate>* gate)
{
    int freed = 0;
    int turns = 0;
    bool isDrained = false;
    for (;;) {
        const qint64 maximum = qMax<qint64>(0, maxDataCacheSize());
        const auto limit = static_cast<quint64>(static_cast<double>(maximum) * s_EvictionShare);
        if (static_cast<quint64>(liveBytes()) + size <= limit &&
            free >= static_cast<quint64>(targetFreeMemorySize()) + size)
            return freed;
        if (!isDrained)
            m_Lru.drain();
        isDrained = true;
        const qint64 liveBefore = liveBytes();
        ZebDataHash* const hash = m_Lru.oldest();
        if (hash == nullptr) {
            // A reader may be about to make a block evictable, or to note one. So nothing is
            // evictable only if that is so while no reader is inside the gate.
            if (!*gate && ZEBTDX_GUARD(EmptyUnderClosedGate, true)) {
                gate->emplace(&m_GateDepth);
                isDrained = false;
                continue;
            }
            return freed;
        }
        ZEBTDX_POINT(EvictChosen);
        // A pinned one is in the list while its use has yet to be drained.
        bool isDue = !ZEBTDX_GUARD(EvictSeesNotEvictable, !m_Lru.contains(hash));
        if (isDue && !hash->tryLock()) {
            // A host holds the hash, or its last release is being decided; eviction does not wait.
            m_Lru.touch(hash);
            continue;
        }
        if (isDue) {
            ZEBTDX_POINT(EvictLocked);
            // From here on no reader changes the hash.
            isDue = m_Lru.isUnused(hash, m_GateDepth > 0);
            if (!isDue)
                hash->unlock();
        }
        if (!isDue) {
            // Opened, or used, since it was drained. In the end readers that do so again and again
            // wait.
            isDrained = false;
            if (++turns == s_MostTurns && !*gate)
                gate->emplace(&m_GateDepth);
            continue;
        }
        freeBlock(hash, write, true);
        // An estimate until the next measurement.
        free += static_cast<quint64>(liveBefore - liveBytes());
        ++freed;
    }
}

void ZebDataBlockManager::freeBlock(ZebDataHash* hash, bool write, bool hashLocked)
{
    // References may outlive the store, and their last release calls this.
    if (!isInitialized())
        return;
    constexpr quint64 marks =
        ZebHashWord::s_Resident | ZebHashWord::s_Evictable | ZebHashWord::s_Used;
    // The last release of a hash without a block: no other thread can make it resident. But the
    // eviction that has just ended its residency may have yet to unlock it.
    if (hash->refCount() == 0 && (hash->m_Word.load(std::memory_order_acquire) & marks) == 0) {
        if (ZEBTDX_GUARD(EndAwaitsUnlock, true))
            hash->awaitUnlocked();
        return;
    }
    bool handedOff = false;
    ZebDataBlock* block = nullptr;
    {
        const ZebTdxMutexLocker locker(&deleteMutex());
        const auto unlockHash = qScopeGuard([hash, hashLocked] {
            if (hashLocked)
                hash->unlock();
        });
        // Threads may drop references while the process exits; the end of the store is no mistake
        // then.
        if (!m_HasEnded.load(std::memory_order_relaxed))
            requireInitialized();
        block = hash->residentBlock();
        if (block != nullptr) {
            // First, since only this may throw; the block stays resident then. The writer may start
            // at once, but needs the delete lock before it deletes the block.
            handedOff = write && !hash->isDontCache() && handOffToWriter(hash, block);
            m_LiveBytes.fetch_sub(block->size(), std::memory_order_relaxed);
            m_BlocksFreedCount.fetch_add(1, std::memory_order_relaxed);
        }
        m_Lru.dismiss(hash);
        ZEBTDX_POINT(Dismissed);
    }
    if (!handedOff)
        delete block;
}

bool ZebDataBlockManager::flushMemory(bool force)
{
    if (force)
        ProcessWide::s_RequestedBytes.store(s_MeasureNextBytes, std::memory_order_relaxed);
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
        const ZebTdxMutexLocker locker(&deleteMutex());
        requireInitialized();
        const ZebClosedGate gate(&m_GateDepth);
        while (ZebDataHash* const hash = m_Lru.anyResident())
            freeBlock(hash, true, false);
        m_Lru.clear();
    }
    flush(false, AllThreads);
}
