#include "io/ZebDataBlockWriteThread_Pattern1.h"

#include "io/ZebDataBlockWriteRequest.h"
#include "support/ZebReadLocker.h"
#include "support/ZebWriteLocker.h"

namespace {

constexpr unsigned long s_FencePollUs = 10000;
constexpr unsigned long s_QueuePollUs = 10;

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
    request->setFileName(m_CacheRoot, subCache, m_BucketCount);
    if (request->fileExits()) {
        finish(request);
    } else {
        QString error;
        const int written = request->write(&error);
        if (written >= 1) {
            finish(request);
            m_BytesWritten.fetch_add(written, std::memory_order_relaxed);
        } else {
            {
                const ZebWriteLocker locker(&m_Lock);
                m_Requests.insert(priority, request);
                m_BytesInQueue += request->blockSize();
            }
            Q_EMIT writeError(error);
        }
    }
    m_RequestsInProgress.fetchAndAddOrdered(-1);
    releaseTaken();
}

void ZebDataBlockWriteThread_Pattern1::handleFence(ZebDataBlockWriteRequest* request)
{
    {
        const ZebWriteLocker locker(&m_Lock);
        m_FencesReached.insert(request->fence());
    }
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
    const ZebWriteLocker locker(&m_Lock);
    const int fence = takeFenceId();
    moveToFences(hash);
    m_Requests.insert(s_FencePriority, new ZebDataBlockWriteRequest(fence));
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
            const ZebReadLocker locker(&m_Lock);
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
