// How blocks leave memory.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebDataHash.h"
#include "support/ZebTdxMessage.h"

#include <QWriteLocker>

namespace {

constexpr std::memory_order s_Relaxed = std::memory_order_relaxed;

} // namespace

bool ZebDataBlockManager::managePhysicalMemoryUse(quint64 size, bool write)
{
    // No block has a copy outside memory, so none may leave it while somebody can ask for it.
    Q_UNUSED(size)
    Q_UNUSED(write)
    return false;
}

void ZebDataBlockManager::freeBlock(ZebDataHash* hash, bool write, bool hashLocked)
{
    Q_UNUSED(write)
    // References may outlive the store, and their last release ends here.
    if (!isInitialized())
        return;
    ZebTdxMutexLocker locker(&m_DeleteMutex);
    {
        const ZebTdxMutexLocker lookupLocker(&m_DeleteMutex);
        requireInitialized();
        if (!m_HashToBlockMap.contains(hash))
            return;
        if (!blockIsLocked(hash))
            blockUsed(hash);
    }
    ZebDataBlock* const block = m_HashToBlockMap.take(hash);
    m_LiveBytes.fetch_sub(block->size(), s_Relaxed);
    {
        const QWriteLocker lruLocker(&m_Lru.lock());
        m_Lru.remove(hash);
    }
    m_BlocksFreedCount.fetch_add(1, s_Relaxed);
    if (hashLocked)
        hash->unlock();
    locker.unlock();
    delete block;
}
