// How a block becomes resident, how it is found, and how reading protects it.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockReadThread.h"
#include "support/ZebTdxMessage.h"

#include <QFuture>
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
    if (hash == nullptr) {
        // A second guard, behind the first one above.
        ZebTdxMessage::fatal(QStringLiteral("Null Ptr"));
    }
    // The entry comes before the sum, as a table that cannot grow must leave nothing half done.
    m_HashToBlockMap.insert(hash, block);
    static_cast<void>(owned.release());
    m_LiveBytes.fetch_add(block->size(), s_Relaxed);
    if (hash->isDontCache())
        return;
    m_Lru.add(hash);
    // The disk copy is made now, long before eviction asks for it.
    queueWrite(hash, block);
}

ZebDataBlock* ZebDataBlockManager::getDataBlock(ZebDataHash* hash)
{
    requireInitialized();
    if (hash == nullptr)
        return nullptr;
    if (!m_HashToBlockMap.contains(hash)) {
        const int index = cacheIndex(hash);
        if (index != -1) {
            const ZebSmartPointer<ZebDataHash> held(hash);
            ZebDataBlock* const loaded = loadWithDeletesOpen(held, index);
            if (loaded == nullptr)
                return nullptr;
            // Of two threads that have loaded one block at once, the second drops its copy here.
            makeBlockLive(hash, loaded);
        }
    }
    return m_HashToBlockMap.value(hash, nullptr);
}

ZebDataBlock* ZebDataBlockManager::loadWithDeletesOpen(const ZebSmartPointer<ZebDataHash>& hash,
                                                       int index)
{
    // One level is let go, so that writers, eviction and other readers can go on meanwhile. That
    // truly opens the lock, since every caller holds it once; it is held again on every way out.
    struct Opening
    {
        explicit Opening(ZebTdxMutex& mutex) : m_Mutex(mutex) { m_Mutex.unlock(); }
        ~Opening() { m_Mutex.lock(); }
        Opening(const Opening&) = delete;
        Opening& operator=(const Opening&) = delete;
        ZebTdxMutex& m_Mutex;
    };
    ZebDataBlockReadThread* const reader = readerOf(index, hash.data());
    const Opening opening(m_DeleteMutex);
    QFuture<ZebDataBlock*> future = reader->loadBlock(hash, false);
    future.waitForFinished();
    return future.resultCount() == 0 ? nullptr : future.result();
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
    if (reference.isNull())
        return;
    // Before any lock, as the job itself needs the delete lock.
    reference.checkAndWaitJob();
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    requireInitialized();
    ZebDataHash* const hash = reference.m_DataHash.data();
    if (m_HashToBlockMap.contains(hash)) {
        blockUsed(hash);
        return;
    }
    const int index = cacheIndex(hash);
    if (index == -1)
        ZebTdxMessage::fatal(QStringLiteral("Invalid Cache Bucket"));
    readerOf(index, hash)->request(hash, priority);
}

void ZebDataBlockManager::setRequestPromotionEnabled(bool enabled)
{
    if (enabled == requestPromotionEnabled())
        return;
    ZebTdxMessage::debug(QString::asprintf("ZebTDx Setting Request Promotion Enabled to %s %d",
                                           enabled ? "TRUE" : "FALSE", enabled ? 1 : 0));
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    for (ZebDataBlockReadThread* const reader : qAsConst(m_ReadThreads))
        reader->setRequestPromotionEnabled(enabled);
    m_RequestPromotionEnabled.store(enabled, s_Relaxed);
}

bool ZebDataBlockManager::requestPromotionEnabled() const
{
    return m_RequestPromotionEnabled.load(s_Relaxed);
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
