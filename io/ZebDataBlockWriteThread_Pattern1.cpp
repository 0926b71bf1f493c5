#include "io/ZebDataBlockWriteThread_Pattern1.h"

#include "io/ZebDataBlockWriteRequest.h"
#include "support/ZebWriteLocker.h"

namespace {

constexpr unsigned long s_FencePollUs = 10000;
constexpr unsigned long s_QueuePollUs = 10;
constexpr int s_NoNumberYet = 0;

} // namespace

ZebDataBlockWriteThread_Pattern1::ZebDataBlockWriteThread_Pattern1(const QString& root,
                                                                   int bucketCount, QObject* parent)
    : ZebDataBlockWriteThread(root, bucketCount, parent)
{}

ZebDataBlockWriteThread_Pattern1::~ZebDataBlockWriteThread_Pattern1() = default;

void ZebDataBlockWriteThread_Pattern1::run()
{
    while (!exitAsked()) {
        idle();
        drain();
    }
}

void ZebDataBlockWriteThread_Pattern1::drain()
{
    ZebWriteLocker locker(&m_Lock);
    while (!m_Requests.isEmpty()) {
        const int priority = m_Requests.priorityAt(0);
        ZebDataBlockWriteRequest* const request = m_Requests.takeFirst();
        ++m_RequestsTaken;
        locker.unlock();
        if (request->isFence())
            handleFence(request);
        else
            handleWrite(priority, request);
        locker.relock();
    }
}

void ZebDataBlockWriteThread_Pattern1::handleWrite(int priority, ZebDataBlockWriteRequest* request)
{
    QString subCache;
    {
        const ZebWriteLocker locker(&m_Lock);
        m_BytesInQueue -= request->blockSize();
        subCache = m_SubCache;
    }
    m_RequestsInProgress.fetchAndAddOrdered(1);
    bool isFound = false;
    int written = 0;
    QString error;
    try {
        request->setFileName(m_CacheRoot, subCache, m_BucketCount);
        isFound = request->fileExits();
        if (!isFound)
            written = request->write(&error);
    } catch (const std::bad_alloc&) {
        error = reportOutOfMemory();
    }
    if (isFound || written >= 1) {
        finish(request);
        m_BytesWritten.fetch_add(written, std::memory_order_relaxed);
    } else {
        requeue(priority, request);
        emitWriteError(error);
    }
    m_RequestsInProgress.fetchAndAddOrdered(-1);
    releaseTaken();
}

void ZebDataBlockWriteThread_Pattern1::requeue(int priority, ZebDataBlockWriteRequest* request)
{
    untilMemorySuffices([this, priority, request] {
        const ZebWriteLocker locker(&m_Lock);
        m_Requests.insert(priority, request);
        m_BytesInQueue += request->blockSize();
    });
}

void ZebDataBlockWriteThread_Pattern1::handleFence(ZebDataBlockWriteRequest* request)
{
    untilMemorySuffices([this, request] {
        const ZebWriteLocker locker(&m_Lock);
        m_FencesReached.insert(request->fence());
    });
    delete request;
    releaseTaken();
}

void ZebDataBlockWriteThread_Pattern1::finish(ZebDataBlockWriteRequest* request)
{
    endWrite(request);
    m_RequestsHandled.fetch_add(1, std::memory_order_relaxed);
}

void ZebDataBlockWriteThread_Pattern1::flush(const ZebSmartPointer<ZebDataHash>& hash)
{
    if (hash.isNull())
        return;
    const int fence = insertFence(hash.data());
    while (!collectFence(fence))
        QThread::usleep(s_FencePollUs);
}

int ZebDataBlockWriteThread_Pattern1::insertFence(const ZebDataHash* hash)
{
    // Outlives the lock, as queueFence() requires.
    auto request = std::make_unique<ZebDataBlockWriteRequest>(s_NoNumberYet);
    const ZebWriteLocker locker(&m_Lock);
    numberFence(*request);
    const int fence = request->fence();
    moveToFences(hash);
    queueFence(request);
    return fence;
}

bool ZebDataBlockWriteThread_Pattern1::collectFence(int fence)
{
    const ZebWriteLocker locker(&m_Lock);
    if (!m_FencesReached.remove(fence))
        return false;
    m_FreeFenceIds.append(fence);
    return true;
}

void ZebDataBlockWriteThread_Pattern1::flush()
{
    for (;;) {
        {
            const ZebWriteLocker locker(&m_Lock);
            if (m_Requests.isEmpty() && m_RequestsInProgress.loadAcquire() == 0 &&
                m_RequestsTaken == 0)
                return;
        }
        QThread::usleep(s_QueuePollUs);
    }
}

void ZebDataBlockWriteThread_Pattern1::closeDown()
{
    askToEnd();
}
