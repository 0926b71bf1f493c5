#include "io/ZebDataBlockCompressionThread.h"

#include "io/ZebDataBlockWriteRequest.h"
#include "support/ZebMutexLocker.h"

#include <algorithm>
#include <mutex>
#include <new>

namespace {

// Guards s_PermitsOwed and every change of the permits but a writer's acquisition. A leaf lock.
std::mutex s_PermitMutex;

// Permits of ended workers that a writer had already acquired. Deducted from the next releases, so
// that no permit is left when no worker is.
int s_PermitsOwed = 0;

} // namespace

QSemaphore ZebDataBlockCompressionThread::AvailableThreads(0);

ZebDataBlockCompressionThread::ZebDataBlockCompressionThread(
    QWaitCondition* condition, QMutex* mutex, QQueue<ZebDataBlockWriteRequest*>* queue,
    QObject* parent)
    : QThread(parent), m_Exit(false), m_Condition(condition), m_Mutex(mutex), m_Queue(queue)
{
    setObjectName(QStringLiteral("TDX Compression"));
}

ZebDataBlockCompressionThread::~ZebDataBlockCompressionThread()
{
    m_Exit.store(true, std::memory_order_relaxed);
    {
        // With the mutex held, the worker is either waiting or about to check m_Exit.
        const ZebMutexLocker locker(m_Mutex);
        m_Condition->wakeAll();
    }
    wait();
}

void ZebDataBlockCompressionThread::run()
{
    ZebMutexLocker locker(m_Mutex);
    // Released with the mutex held until the wait: the writer that acquires the permit can queue
    // its request only once this worker waits, so the wake-up is not missed.
    givePermits(1);
    while (!m_Exit.load(std::memory_order_relaxed)) {
        m_Condition->wait(m_Mutex);
        if (m_Queue->isEmpty())
            continue;
        ZebDataBlockWriteRequest* const request = m_Queue->dequeue();
        locker.unlock();
        request->compress();
        try {
            Q_EMIT compressed(request);
        } catch (const std::bad_alloc&) {
            // From a queued connection of a host. The writer's own connection comes first.
        }
        locker.relock();
        givePermits(1);
    }
    takePermitBack();
}

void ZebDataBlockCompressionThread::givePermits(int count)
{
    const std::lock_guard<std::mutex> guard(s_PermitMutex);
    const int owed = std::min(count, s_PermitsOwed);
    s_PermitsOwed -= owed;
    AvailableThreads.release(count - owed);
}

void ZebDataBlockCompressionThread::takePermitBack()
{
    const std::lock_guard<std::mutex> guard(s_PermitMutex);
    if (!AvailableThreads.tryAcquire(1))
        ++s_PermitsOwed;
}
