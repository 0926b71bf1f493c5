// The store's disk threads: starting and ending them, queueing writes, and waiting for both.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "io/ZebDataBlockReadThread.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebGarbageCollectorThread.h"
#include "support/ZebTdxMessage.h"

#include <QMutexLocker>
#include <QThread>

namespace {

// Length of a reader's list from which requests of low priority are refused.
constexpr int s_MaxLowPriorityRequests = 50;

constexpr unsigned long s_FlushPauseMs = 1;

[[noreturn]] void fatalNoThread(int index, const ZebDataHash* hash)
{
    ZebTdxMessage::fatal(QStringLiteral("Cannot find suitable cache reading thread %1 for %2")
                             .arg(index)
                             .arg(hash->toString()));
}

} // namespace

void ZebDataBlockManager::startIoThreads(const QString& root)
{
    auto* const writer = new ZebDataBlockWriteThread_Pattern1(root, numBuckets(), this);
    auto* const reader =
        new ZebDataBlockReadThread(root, numBuckets(), s_MaxLowPriorityRequests, this);
    auto* const collector = new ZebGarbageCollectorThread(root, numBuckets(), this);
    writer->start(QThread::InheritPriority);
    reader->start(QThread::InheritPriority);
    collector->start(QThread::InheritPriority);
    m_ReadThreads.append(reader);
    m_WriteThreads.append(writer);
    m_GarbageCollectors.append(collector);
    connect(writer, &ZebDataBlockWriteThread::writeError, this, &ZebDataBlockManager::writeError,
            Qt::AutoConnection);
}

void ZebDataBlockManager::stopAllIoThreads()
{
    requireInitialized();
    flush(false, AllThreads);
    // Waited for with no lock held: a thread may need the delete lock once more, to release its
    // last reference on a hash, and a collector to ask for the sub-cache. The writers come last,
    // since a load may still ask them to flush. The collectors are asked to end all at once, as
    // each may sleep through a poll before it sees that.
    for (ZebGarbageCollectorThread* const collector : qAsConst(m_GarbageCollectors))
        collector->closeDown();
    for (ZebGarbageCollectorThread* const collector : qAsConst(m_GarbageCollectors))
        collector->wait();
    for (ZebDataBlockReadThread* const reader : qAsConst(m_ReadThreads)) {
        reader->closeDown();
        reader->wait();
    }
    for (ZebDataBlockWriteThread* const writer : qAsConst(m_WriteThreads)) {
        writer->closeDown();
        writer->wait();
    }
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    qDeleteAll(m_GarbageCollectors);
    m_GarbageCollectors.clear();
    qDeleteAll(m_ReadThreads);
    m_ReadThreads.clear();
    qDeleteAll(m_WriteThreads);
    m_WriteThreads.clear();
    {
        const QMutexLocker sizeLocker(&m_CacheSizeMutex);
        m_CacheSizeRecords = QMap<ZebGarbageCollectorThread*, qint64>();
    }
    Q_EMIT cacheSizeUpdate(0);
}

ZebDataBlockReadThread* ZebDataBlockManager::readerOf(int index, const ZebDataHash* hash) const
{
    if (index >= m_ReadThreads.size())
        fatalNoThread(index, hash);
    return m_ReadThreads.at(index);
}

ZebDataBlockWriteThread* ZebDataBlockManager::writerOf(int index, const ZebDataHash* hash) const
{
    if (index >= m_WriteThreads.size())
        fatalNoThread(index, hash);
    return m_WriteThreads.at(index);
}

void ZebDataBlockManager::queueWrite(ZebDataHash* hash, ZebDataBlock* block)
{
    const int index = cacheIndex(hash);
    if (index == -1 || block->cached() || m_BlocksBeingWritten.contains(block))
        return;
    const ZebSmartPointer<ZebDataHash> held = hash->holdUnlessEnding();
    // Nobody can ask for the block of an ending hash again.
    if (held.isNull())
        return;
    ZebDataBlockWriteThread* const writer = writerOf(index, hash);
    m_BlocksBeingWritten.insert(block);
    writer->writeBlock(PreloadNormal, held, block, false);
}

void ZebDataBlockManager::flush(bool writeUnwritten, ThreadType threads)
{
    requireInitialized();
    const auto waitForThreads = [this, threads] {
        if ((threads & ReadThreads) != 0) {
            for (ZebDataBlockReadThread* const reader : qAsConst(m_ReadThreads))
                reader->flush();
        }
        if ((threads & WriteThreads) != 0) {
            for (ZebDataBlockWriteThread* const writer : qAsConst(m_WriteThreads))
                writer->flush();
        }
    };
    // The queues are drained before the walk, outside the delete lock; the second pass waits for
    // what the walk has queued.
    waitForThreads();
    if (writeUnwritten) {
        {
            const ZebTdxMutexLocker locker(&m_DeleteMutex);
            for (auto entry = m_HashToBlockMap.constBegin(); entry != m_HashToBlockMap.constEnd();
                 ++entry) {
                if (entry.key() == nullptr)
                    ZebTdxMessage::fatal(QStringLiteral("Null Value in Hash to Block Map"));
                if (!entry.key()->isDontCache())
                    queueWrite(entry.key(), entry.value());
            }
        }
        waitForThreads();
    }
    QThread::msleep(s_FlushPauseMs);
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
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    ZebDataBlock* const block = m_HashToBlockMap.value(hash.data(), nullptr);
    return block != nullptr && m_BlocksBeingWritten.contains(block);
}

bool ZebDataBlockManager::isWriteThreadsFull()
{
    return bytesInWriteQueues() >= m_MaxWritePendingDataCacheSize.load(std::memory_order_relaxed);
}

int ZebDataBlockManager::getWriteThreadCount() const
{
    return m_WriteThreads.size();
}

bool ZebDataBlockManager::needsFreeingAfterWriting(ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    return m_BlocksToFreeAfterWriting.contains(block);
}

void ZebDataBlockManager::flagFreeingBlockFinishedAfterWriting(ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    m_BlocksToFreeAfterWriting.remove(block);
}

void ZebDataBlockManager::flagWritingBlockFinished(ZebDataBlock* block)
{
    const ZebTdxMutexLocker locker(&m_DeleteMutex);
    m_BlocksBeingWritten.remove(block);
}
