// The store's disk threads: how they start, serve a root, drain and end.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebDataHash.h"
#include "io/ZebDataBlockReadThread.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "io/ZebGarbageCollectorThread.h"
#include "io/ZebWriteErrorForwarder.h"
#include "manager/ZebClosedGate.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebThreadStart.h"

#include <QThread>

namespace {

// A reader with this many waiting requests refuses low-priority ones.
constexpr int s_MaxLowPriorityRequests = 50;

constexpr unsigned long s_FlushPauseMs = 1;

} // namespace

ZebDataBlockWriteThread* ZebDataBlockManager::makeWriter(const QString& root,
                                                         int compressionThreads)
{
    if (compressionThreads > 0) {
        return new ZebDataBlockWriteThread_Pattern2(root, numBuckets(), compressionThreads, this);
    }
    return new ZebDataBlockWriteThread_Pattern1(root, numBuckets(), this);
}

void ZebDataBlockManager::startIoThreads(const QString& root, int compressionThreads)
{
    ZebDataBlockWriteThread* const writer = makeWriter(root, compressionThreads);
    auto* const reader =
        new ZebDataBlockReadThread(root, numBuckets(), s_MaxLowPriorityRequests, this);
    auto* const collector = new ZebGarbageCollectorThread(root, numBuckets(), this);
    // Before the thread starts: connecting a signal that another thread may emit races inside Qt.
    // Direct, since the forwarder queues what may wait.
    connect(writer, &ZebDataBlockWriteThread::writeError, this,
            ZebWriteErrorForwarder(this,
                                   [this](const QString& message) { Q_EMIT writeError(message); }),
            Qt::DirectConnection);
    ZebThreadStart(writer, QThread::InheritPriority);
    ZebThreadStart(reader, QThread::InheritPriority);
    ZebThreadStart(collector, QThread::InheritPriority);
    m_ReadThreads.append(reader);
    m_WriteThreads.append(writer);
    m_GarbageCollectors.append(collector);
}

void ZebDataBlockManager::stopAllIoThreads()
{
    requireInitialized();
    flush(false, AllThreads);
    // Waits with no lock held, since each thread may still need the delete lock. Writers end last:
    // a load may still flush them. All collectors are asked before the first wait, so that their
    // poll intervals overlap.
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
    const ZebTdxMutexLocker locker(&deleteMutex());
    qDeleteAll(m_GarbageCollectors);
    m_GarbageCollectors.clear();
    qDeleteAll(m_ReadThreads);
    m_ReadThreads.clear();
    qDeleteAll(m_WriteThreads);
    m_WriteThreads.clear();
    {
        const ZebMutexLocker sizeLocker(&m_CacheSizeMutex);
        m_CacheSizeRecords = QMap<ZebGarbageCollectorThread*, qint64>();
    }
    const ZebClosedGate gate(&m_GateDepth);
    Q_EMIT cacheSizeUpdate(0);
}

ZebDataBlockReadThread* ZebDataBlockManager::readerOf(int index, const ZebDataHash* hash) const
{
    if (index >= m_ReadThreads.size())
        fatalNoThread(index, hash->toString());
    return m_ReadThreads.at(index);
}

ZebDataBlockWriteThread* ZebDataBlockManager::writerOf(int index, const ZebDataHash* hash) const
{
    if (index >= m_WriteThreads.size())
        fatalNoThread(index, hash->toString());
    return m_WriteThreads.at(index);
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
    // Drained before the walk, outside the delete lock; the second wait covers what the walk
    // queues.
    waitForThreads();
    if (writeUnwritten) {
        {
            const ZebTdxMutexLocker locker(&deleteMutex());
            for (ZebDataHash* const hash : m_Lru.residents()) {
                // Kept on purpose: unreachable, the lists have no null entries.
                if (hash == nullptr)
                    ZebTdxMessage::fatal(QStringLiteral("Null Value in Hash to Block Map"));
                if (!hash->isDontCache())
                    queueWrite(hash, hash->residentBlock(), false);
            }
        }
        waitForThreads();
    }
    QThread::msleep(s_FlushPauseMs);
}

int ZebDataBlockManager::getWriteThreadCount() const
{
    return m_WriteThreads.size();
}
