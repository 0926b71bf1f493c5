#include "io/ZebDataBlockWriteThread_Pattern2.h"

#include "io/ZebDataBlockCompressionThread.h"
#include "io/ZebDataBlockWriteRequest.h"
#include "support/ZebMutexLocker.h"
#include "support/ZebThreadStart.h"
#include "support/ZebWriteLocker.h"

#include <algorithm>
#include <memory>

namespace {

constexpr int s_NoFence = -1;
constexpr int s_NoNumberYet = 0;
constexpr unsigned long s_EmptyListPauseMs = 10;
constexpr int s_PermitWaitMs = 1;

} // namespace

ZebDataBlockWriteThread_Pattern2::ZebDataBlockWriteThread_Pattern2(const QString& root,
                                                                   int bucketCount,
                                                                   int compressionThreads,
                                                                   QObject* parent)
    : ZebDataBlockWriteThread(root, bucketCount, parent)
{
    m_CompressionThreads.reserve(std::max(0, compressionThreads));
    for (int i = 0; i < compressionThreads; ++i) {
        auto* const worker = new ZebDataBlockCompressionThread(
            &m_CompressionCondition, &m_CompressionQueueMutex, &m_CompressionQueue, this);
        connect(worker, &ZebDataBlockCompressionThread::compressed, this,
                &ZebDataBlockWriteThread_Pattern2::pushWrite, Qt::DirectConnection);
        m_CompressionThreads.append(worker);
        ZebThreadStart(worker, QThread::InheritPriority);
    }
}

ZebDataBlockWriteThread_Pattern2::~ZebDataBlockWriteThread_Pattern2()
{
    qDeleteAll(m_CompressionThreads);
    // No worker is left to release the permits of these requests.
    ZebDataBlockCompressionThread::givePermits(m_CompressionQueue.size());
}

void ZebDataBlockWriteThread_Pattern2::run()
{
    while (!exitAsked()) {
        idle();
        drain();
        const ZebMutexLocker locker(&m_FlushMutex);
        m_FlushCondition.wakeAll();
    }
}

void ZebDataBlockWriteThread_Pattern2::drain()
{
    // Alternates between writing and queueing, so that the workers stay busy.
    int fence = s_NoFence;
    do {
        writeNext();
        if (fence != s_NoFence)
            passFence(fence);
        fence = takeUpNext();
    } while (fence != s_NoFence || !isDrained());
}

bool ZebDataBlockWriteThread_Pattern2::isDrained()
{
    if (m_RequestsInProgress.loadAcquire() != 0)
        return false;
    const ZebWriteLocker locker(&m_Lock);
    return m_Requests.isEmpty();
}

bool ZebDataBlockWriteThread_Pattern2::writeNext()
{
    ZebDataBlockWriteRequest* const request = popWrite();
    if (request == nullptr)
        return false;
    int written = 0;
    QString error;
    try {
        // A retry keeps its path, so nothing else would create a removed directory again.
        request->makeDirectory();
        written = request->write(&error);
    } catch (const std::bad_alloc&) {
        error = reportOutOfMemory();
    }
    if (written < 1) {
        pushWrite(request);
        emitWriteError(error);
        return true;
    }
    lowerBytesInQueue(request);
    m_BytesWritten.fetch_add(written, std::memory_order_relaxed);
    m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
    m_RequestsInProgress.fetchAndAddOrdered(-1);
    endWrite(request);
    releaseTaken();
    return true;
}

int ZebDataBlockWriteThread_Pattern2::takeUpNext()
{
    ZebDataBlockWriteRequest* const request = popRequest();
    if (request == nullptr) {
        wakeWorkersAgain();
        QThread::msleep(s_EmptyListPauseMs);
        return s_NoFence;
    }
    if (!request->isFence()) {
        handleWrite(request);
        return s_NoFence;
    }
    const int fence = request->fence();
    delete request;
    releaseTaken();
    return fence;
}

void ZebDataBlockWriteThread_Pattern2::handleWrite(ZebDataBlockWriteRequest* request)
{
    if (findFile(request)) {
        // Kept on purpose: counts neither as in progress nor as handled.
        lowerBytesInQueue(request);
        endWrite(request);
        releaseTaken();
        return;
    }
    m_RequestsInProgress.fetchAndAddOrdered(1);
    pushCompression(request);
}

bool ZebDataBlockWriteThread_Pattern2::findFile(ZebDataBlockWriteRequest* request)
{
    for (;;) {
        try {
            request->setFileName(m_CacheRoot, subCache(), m_BucketCount);
            return request->fileExits();
        } catch (const std::bad_alloc&) {
            emitWriteError(reportOutOfMemory());
            pauseForMemory();
        }
    }
}

void ZebDataBlockWriteThread_Pattern2::passFence(int fence)
{
    // A barrier: workers finish in any order, so everything in progress must be written.
    while (m_RequestsInProgress.loadAcquire() > 0) {
        // Needed even while a failing write keeps the write queue busy: other blocks must progress.
        wakeWorkersAgain();
        if (writeNext())
            continue;
        QThread::yieldCurrentThread();
    }
    untilMemorySuffices([this, fence] {
        const ZebMutexLocker locker(&m_FenceMutex);
        m_FencesReached.insert(fence);
    });
    m_FenceCondition.wakeAll();
}

void ZebDataBlockWriteThread_Pattern2::lowerBytesInQueue(ZebDataBlockWriteRequest* request)
{
    const ZebWriteLocker locker(&m_Lock);
    m_BytesInQueue -= request->blockSize();
}

ZebDataBlockWriteRequest* ZebDataBlockWriteThread_Pattern2::popRequest()
{
    const ZebWriteLocker locker(&m_Lock);
    if (m_Requests.isEmpty())
        return nullptr;
    ++m_RequestsTaken;
    return m_Requests.takeFirst();
}

ZebDataBlockWriteRequest* ZebDataBlockWriteThread_Pattern2::popWrite()
{
    const ZebMutexLocker locker(&m_WriteQueueMutex);
    return m_WriteQueue.isEmpty() ? nullptr : m_WriteQueue.dequeue();
}

void ZebDataBlockWriteThread_Pattern2::pushWrite(ZebDataBlockWriteRequest* request)
{
    // No wake-up: the writer polls while a block is in progress.
    untilMemorySuffices([this, request] {
        const ZebMutexLocker locker(&m_WriteQueueMutex);
        m_WriteQueue.enqueue(request);
    });
}

void ZebDataBlockWriteThread_Pattern2::pushCompression(ZebDataBlockWriteRequest* request)
{
    // All writers share the permits, and this writer's own workers may have missed a wake-up for a
    // queued request.
    while (!ZebDataBlockCompressionThread::AvailableThreads.tryAcquire(1, s_PermitWaitMs))
        wakeWorkersAgain();
    untilMemorySuffices([this, request] {
        const ZebMutexLocker locker(&m_CompressionQueueMutex);
        m_CompressionQueue.enqueue(request);
    });
    m_CompressionCondition.wakeOne();
}

void ZebDataBlockWriteThread_Pattern2::wakeWorkersAgain()
{
    {
        const ZebMutexLocker locker(&m_CompressionQueueMutex);
        if (m_CompressionQueue.isEmpty())
            return;
    }
    m_CompressionCondition.wakeAll();
}

void ZebDataBlockWriteThread_Pattern2::flush(const ZebSmartPointer<ZebDataHash>& hash)
{
    if (hash.isNull())
        return;
    // Outlives the lock, as queueFence() requires.
    auto request = std::make_unique<ZebDataBlockWriteRequest>(s_NoNumberYet);
    {
        const ZebMutexLocker locker(&m_FenceMutex);
        numberFence(*request);
    }
    const int fence = request->fence();
    ZebWriteLocker locker(&m_Lock);
    moveToFences(hash.data());
    const ZebMutexLocker fenceLocker(&m_FenceMutex);
    queueFence(request);
    locker.unlock();
    while (!m_FencesReached.remove(fence))
        m_FenceCondition.wait(&m_FenceMutex);
    m_FreeFenceIds.append(fence);
}

void ZebDataBlockWriteThread_Pattern2::flush()
{
    for (;;) {
        ZebWriteLocker locker(&m_Lock);
        ZebMutexLocker writeLocker(&m_WriteQueueMutex);
        ZebMutexLocker compressionLocker(&m_CompressionQueueMutex);
        if (m_RequestsInProgress.loadAcquire() < 1 && m_RequestsTaken == 0 &&
            m_Requests.isEmpty() && m_WriteQueue.isEmpty() && m_CompressionQueue.isEmpty())
            return;
        // Locked before the others are released, so that the wake-up is not missed.
        const ZebMutexLocker flushLocker(&m_FlushMutex);
        compressionLocker.unlock();
        writeLocker.unlock();
        locker.unlock();
        m_FlushCondition.wait(&m_FlushMutex);
    }
}

void ZebDataBlockWriteThread_Pattern2::closeDown()
{
    askToEnd();
}
