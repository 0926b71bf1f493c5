// Loading: how a block for an accessor or a preload is found resident or read from disk.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockReadThread.h"
#include "support/ZebTdxMessage.h"

#include <QFuture>

ZebDataBlock* ZebDataBlockManager::getDataBlock(ZebDataHash* hash)
{
    requireInitialized();
    if (hash == nullptr)
        return nullptr;
    if (hash->residentBlock() == nullptr) {
        const int index = cacheIndex(hash);
        // Kept on purpose: always true, since only a null hash has no index.
        if (index != -1) {
            const ZebSmartPointer<ZebDataHash> held(hash);
            ZebDataBlock* const loaded = loadWithDeletesOpen(held, index);
            if (loaded == nullptr)
                return nullptr;
            // When two threads load one block, this deletes the copy of the second.
            makeBlockLive(hash, loaded);
        }
    }
    return hash->residentBlock();
}

ZebDataBlock* ZebDataBlockManager::loadWithDeletesOpen(const ZebSmartPointer<ZebDataHash>& hash,
                                                       int index)
{
    // Releases one level of the delete lock, so that writers, eviction and other loads can proceed.
    // Every caller holds it exactly once, so this frees it.
    struct ZEBTDX_SCOPED_CAPABILITY Opening
    {
        explicit Opening(ZebTdxMutex& mutex) ZEBTDX_RELEASE(mutex) : m_Mutex(mutex)
        {
            mutex.unlock();
        }
        ~Opening() ZEBTDX_RELEASE() { m_Mutex.lock(); }
        Opening(const Opening&) = delete;
        Opening& operator=(const Opening&) = delete;
        ZebTdxMutex& m_Mutex;
    };
    ZebDataBlockReadThread* const reader = readerOf(index, hash.data());
    const Opening opening(deleteMutex());
    QFuture<ZebDataBlock*> future = reader->loadBlock(hash, false);
    future.waitForFinished();
    return future.resultCount() == 0 ? nullptr : future.result();
}

qint64 ZebDataBlockManager::blockSize(ZebDataHash* hash)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    const ZebDataBlock* const block = getDataBlock(hash);
    return block == nullptr ? 0 : block->size();
}

void ZebDataBlockManager::preloadData(const ZebDataReference& reference, PreloadPriority priority)
{
    if (reference.isNull())
        return;
    // Before any lock: the job needs the delete lock.
    reference.checkAndWaitJob();
    ZebDataHash* const hash = reference.m_DataHash.data();
    if (hash->tryUse() == ZebDataHash::Residency::Resident)
        return;
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    if (hash->residentBlock() != nullptr) {
        blockUsed(hash);
        return;
    }
    const int index = cacheIndex(hash);
    // Kept on purpose: unreachable, since only a null hash has no index.
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
    const ZebTdxMutexLocker locker(&deleteMutex());
    for (ZebDataBlockReadThread* const reader : qAsConst(m_ReadThreads))
        reader->setRequestPromotionEnabled(enabled);
    m_RequestPromotionEnabled.store(enabled, std::memory_order_relaxed);
}

bool ZebDataBlockManager::requestPromotionEnabled() const
{
    return m_RequestPromotionEnabled.load(std::memory_order_relaxed);
}
