#include "io/ZebDataBlockWriteThread.h"

#include "data/ZebDataBlock.h"
#include "io/ZebDataBlockWriteRequest.h"
#include "support/ZebDeleteMutexLocker.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebWriteLocker.h"

#include <memory>

namespace {

constexpr unsigned long s_IdleMs = 1000;
constexpr unsigned long s_MemoryPauseMs = 10;

} // namespace

ZebDataBlockWriteThread::ZebDataBlockWriteThread(const QString& root, int bucketCount,
                                                 QObject* parent)
    : QThread(parent),
      m_CacheRoot(root),
      m_BucketCount(bucketCount),
      m_Exit(false),
      m_IsWoken(false),
      m_Lock(QReadWriteLock::Recursive),
      m_BytesInQueue(0),
      m_RequestsTaken(0),
      m_RequestsInProgress(0),
      m_BytesWritten(0),
      m_RequestsHandled(0),
      m_NextFenceId(0)
{
    setObjectName(QStringLiteral("TDX Write"));
}

ZebDataBlockWriteThread::~ZebDataBlockWriteThread() = default;

void ZebDataBlockWriteThread::writeBlock(ZebDataBlockManager::PreloadPriority priority,
                                         // The signature is fixed.
                                         // NOLINTNEXTLINE(performance-unnecessary-value-param)
                                         ZebSmartPointer<ZebDataHash> hash, ZebDataBlock* block,
                                         bool deleteBlock)
{
    if (block->cached()) {
        if (deleteBlock)
            delete block;
        return;
    }
    auto request = std::make_unique<ZebDataBlockWriteRequest>(hash, block, deleteBlock);
    try {
        const ZebWriteLocker locker(&m_Lock);
        m_Requests.insert(priority, request.get());
        m_BytesInQueue += request.release()->blockSize();
    } catch (const std::bad_alloc&) {
        request->disownBlock();
        throw;
    }
    wake();
}

int ZebDataBlockWriteThread::requests() const
{
    const ZebWriteLocker locker(&m_Lock);
    return m_Requests.size();
}

qint64 ZebDataBlockWriteThread::bytesInQueue() const
{
    const ZebWriteLocker locker(&m_Lock);
    return m_BytesInQueue;
}

int ZebDataBlockWriteThread::requestsHandled() const
{
    return m_RequestsHandled.load(std::memory_order_relaxed);
}

int ZebDataBlockWriteThread::requestsInProgress() const
{
    return m_RequestsInProgress.loadAcquire();
}

qint64 ZebDataBlockWriteThread::bytesWritten() const
{
    return m_BytesWritten.load(std::memory_order_relaxed);
}

void ZebDataBlockWriteThread::setSubCache(const QString& subCache)
{
    const ZebWriteLocker locker(&m_Lock);
    m_SubCache = subCache;
}

QString ZebDataBlockWriteThread::subCache() const
{
    const ZebWriteLocker locker(&m_Lock);
    return m_SubCache;
}

void ZebDataBlockWriteThread::askToEnd()
{
    {
        const ZebWriteLocker locker(&m_Lock);
        m_Exit = true;
    }
    wake();
}

bool ZebDataBlockWriteThread::exitAsked() const
{
    const ZebWriteLocker locker(&m_Lock);
    return m_Exit;
}

void ZebDataBlockWriteThread::wake()
{
    {
        // Either the thread already waits, or it sees the mark before it does.
        const ZebMutexLocker locker(&m_WaitMutex);
        m_IsWoken = true;
    }
    m_WaitCondition.wakeAll();
}

void ZebDataBlockWriteThread::idle()
{
    const ZebMutexLocker locker(&m_WaitMutex);
    if (!m_IsWoken)
        m_WaitCondition.wait(&m_WaitMutex, s_IdleMs);
    m_IsWoken = false;
}

QString ZebDataBlockWriteThread::reportOutOfMemory()
{
    return ZebDataBlockWriteRequest::reportOutOfMemory();
}

void ZebDataBlockWriteThread::emitWriteError(const QString& message)
{
    try {
        Q_EMIT writeError(message);
    } catch (const std::bad_alloc&) {
        // The attempt is logged already.
    }
}

void ZebDataBlockWriteThread::pauseForMemory()
{
    QThread::msleep(s_MemoryPauseMs);
}

void ZebDataBlockWriteThread::endWrite(ZebDataBlockWriteRequest* request)
{
    // One hold for both steps, or a new block at the same address could be mistaken for this one.
    const ZebDeleteMutexLocker deleteLocker;
    ZebDataBlockManager::instance().flagWritingBlockFinished(request->block());
    delete request;
}

void ZebDataBlockWriteThread::releaseTaken()
{
    const ZebWriteLocker locker(&m_Lock);
    --m_RequestsTaken;
}

int ZebDataBlockWriteThread::takeFenceId()
{
    if (!m_FreeFenceIds.isEmpty())
        return m_FreeFenceIds.takeLast();
    m_FreeFenceIds.reserve(m_NextFenceId + 1);
    return m_NextFenceId++;
}

void ZebDataBlockWriteThread::numberFence(ZebDataBlockWriteRequest& fence)
{
    fence.m_Fence = takeFenceId();
}

void ZebDataBlockWriteThread::queueFence(std::unique_ptr<ZebDataBlockWriteRequest>& fence)
{
    try {
        m_Requests.insert(s_FencePriority, fence.get());
    } catch (const std::bad_alloc&) {
        m_FreeFenceIds.append(fence->fence());
        throw;
    }
    static_cast<void>(fence.release());
}

void ZebDataBlockWriteThread::moveToFences(const ZebDataHash* hash)
{
    for (int i = 0; i < m_Requests.size(); ++i) {
        if (m_Requests.valueAt(i)->hash().data() == hash &&
            m_Requests.priorityAt(i) > s_FencePriority) {
            m_Requests.moveTo(i, s_FencePriority);
            return;
        }
    }
}
