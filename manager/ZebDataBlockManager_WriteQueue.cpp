// Writing: how a block is queued, the state of writes in flight, and the host's brake.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "io/ZebDataBlockWriteThread.h"
#include "support/ZebTdxMessage.h"

#include <QScopeGuard>
#include <QThread>

namespace {

constexpr unsigned long s_BrakeSleepMs = 1000;

} // namespace

bool ZebDataBlockManager::queueWrite(ZebDataHash* hash, ZebDataBlock* block, bool deleteBlock)
{
    const int index = cacheIndex(hash);
    // Kept on purpose: the index is never -1 here, since the hash is not null.
    if (index == -1 || block->cached() || m_BlocksBeingWritten.contains(block))
        return false;
    const ZebSmartPointer<ZebDataHash> held = hash->holdUnlessEnding();
    // No caller can request the block of an ending hash any more.
    if (held.isNull())
        return false;
    ZebDataBlockWriteThread* const writer = writerOf(index, hash);
    m_BlocksBeingWritten.insert(block);
    // A mark without a request would keep this block, and any later one at its address, from being
    // written.
    auto unmark = qScopeGuard(
        [this, block]() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS { m_BlocksBeingWritten.remove(block); });
    writer->writeBlock(PreloadNormal, held, block, deleteBlock);
    unmark.dismiss();
    return true;
}

bool ZebDataBlockManager::handOffToWriter(ZebDataHash* hash, ZebDataBlock* block)
{
    // A block with a write in flight went through queueWrite(), so its hash leads to a root.
    if (m_BlocksBeingWritten.contains(block)) {
        m_BlocksToFreeAfterWriting.insert(block);
        return true;
    }
    return queueWrite(hash, block, true);
}

void ZebDataBlockManager::flushWrite(const ZebSmartPointer<ZebDataHash>& hash)
{
    requireInitialized();
    for (ZebDataBlockWriteThread* const writer : qAsConst(m_WriteThreads))
        writer->flush(hash);
}

bool ZebDataBlockManager::isBlockBeingWritten(const ZebDataReference& reference)
{
    const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
    const ZebTdxMutexLocker locker(&deleteMutex());
    ZebDataBlock* const block = hash.isNull() ? nullptr : hash->residentBlock();
    return block != nullptr && m_BlocksBeingWritten.contains(block);
}

bool ZebDataBlockManager::isWriteThreadsFull()
{
    return bytesInWriteQueues() >= m_MaxWritePendingDataCacheSize.load(std::memory_order_relaxed);
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
        const qint64 limit = m_MaxWritePendingDataCacheSize.load(std::memory_order_relaxed);
        if (queued < limit)
            return;
        ZebTdxMessage::debug(QString::asprintf(
            "ZebDataBlockManager::processIO: Excessive data in the queue: %lld bytes (max = "
            "%lld): sleeping calling thread...",
            static_cast<long long>(queued), static_cast<long long>(limit)));
        QThread::msleep(s_BrakeSleepMs);
    }
}

bool ZebDataBlockManager::needsFreeingAfterWriting(ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    return m_BlocksToFreeAfterWriting.contains(block);
}

void ZebDataBlockManager::flagFreeingBlockFinishedAfterWriting(ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    m_BlocksToFreeAfterWriting.remove(block);
}

void ZebDataBlockManager::flagWritingBlockFinished(ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    m_BlocksBeingWritten.remove(block);
}
