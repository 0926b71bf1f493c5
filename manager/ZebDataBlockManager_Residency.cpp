// How a block becomes resident, how it is found, and how reading protects it.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "support/ZebTdxMessage.h"

#include <QWriteLocker>

#include <memory>

namespace {

constexpr std::memory_order s_Relaxed = std::memory_order_relaxed;

qulonglong addressOf(const ZebDataHash* hash)
{
    return static_cast<qulonglong>(reinterpret_cast<quintptr>(hash));
}

} // namespace

void ZebDataBlockManager::makeBlockLive(ZebDataHash* hash, ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    requireInitialized();
    if (block == nullptr)
        ZebTdxMessage::fatal(QStringLiteral("Null Value Passed For *Me"));
    if (hash == nullptr)
        ZebTdxMessage::fatal(QStringLiteral("Null Value Passed For *Ptr"));
    std::unique_ptr<ZebDataBlock> owned(block);
    // Here equal bytes become one block.
    // Kept on purpose: the resident block does not count as used, and a duplicate is dropped
    // before its size is looked at.
    if (m_HashToBlockMap.contains(hash))
        return;
    if (block->size() > maxDataCacheSize()) {
        ZebTdxMessage::fatal(
            QStringLiteral("Requested Block is larger than the maximum allocation size %1 / %2")
                .arg(block->size())
                .arg(maxDataCacheSize()));
    }
    managePhysicalMemoryUse(static_cast<quint64>(block->size()), true);
    m_LiveBytes.fetch_add(block->size(), s_Relaxed);
    if (hash == nullptr) {
        // A second guard, behind the first one above.
        ZebTdxMessage::fatal(QStringLiteral("Null Ptr"));
    }
    m_HashToBlockMap.insert(hash, owned.release());
    if (hash->isDontCache())
        return;
    m_Lru.add(hash);
    // A store without roots has no place for a block that may be evicted, and ends here.
    cacheIndex(hash);
}

ZebDataBlock* ZebDataBlockManager::getDataBlock(ZebDataHash* hash)
{
    requireInitialized();
    if (hash == nullptr)
        return nullptr;
    return m_HashToBlockMap.value(hash, nullptr);
}

void ZebDataBlockManager::lockBlock(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    requireInitialized();
    if (!m_Lru.contains(hash)) {
        ZebTdxMessage::fatal(
            QStringLiteral("Hash %1 is Not Contained in the LRU").arg(addressOf(hash)));
    }
    const QWriteLocker lruLocker(&m_Lru.lock());
    m_Lru.remove(hash);
}

void ZebDataBlockManager::unlockBlock(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    requireInitialized();
    if (m_Lru.contains(hash)) {
        ZebTdxMessage::fatal(
            QStringLiteral("Lock Block %1 already contained in LRU").arg(addressOf(hash)));
    }
    m_Lru.add(hash);
    // There is something to free again.
    setAllFreeBlocksFlushed(false);
}

void ZebDataBlockManager::blockUsed(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    requireInitialized();
    if (m_Lru.contains(hash))
        m_Lru.touch(hash);
}

bool ZebDataBlockManager::blockIsLocked(ZebDataHash* hash)
{
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    return !m_Lru.contains(hash);
}

bool ZebDataBlockManager::isInMemory(ZebDataHash* hash)
{
    if (hash == nullptr)
        return true;
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    requireInitialized();
    if (!m_HashToBlockMap.contains(hash))
        return false;
    // Kept on purpose: asking counts as using, so a host that polls a block keeps it young.
    if (!blockIsLocked(hash))
        blockUsed(hash);
    return true;
}

qint64 ZebDataBlockManager::blockSize(ZebDataHash* hash)
{
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    const ZebDataBlock* const block = getDataBlock(hash);
    return block == nullptr ? 0 : block->size();
}

void ZebDataBlockManager::preloadData(const ZebDataReference& reference, PreloadPriority priority)
{
    // The order in which absent blocks are fetched; a resident one needs none.
    Q_UNUSED(priority)
    if (reference.isNull())
        return;
    // Before any lock, as the job itself needs the delete lock.
    reference.checkAndWaitJob();
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    requireInitialized();
    ZebDataHash* const hash = reference.m_DataHash.data();
    if (m_HashToBlockMap.contains(hash))
        blockUsed(hash);
}

qint64 ZebDataBlockManager::liveBlocks() const
{
    return m_Lru.count();
}

qint64 ZebDataBlockManager::liveBytes() const
{
    return m_LiveBytes.load(s_Relaxed);
}

qint64 ZebDataBlockManager::managedBlocks() const
{
    return ZebHashManager::instance().hashCount();
}
