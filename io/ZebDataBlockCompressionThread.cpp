#include "io/ZebDataBlockCompressionThread.h"

#include "io/ZebDataBlockWriteRequest.h"

#include <QMutexLocker>

#include <algorithm>
#include <mutex>

namespace {

constexpr std::memory_order s_Relaxed = std::memory_order_relaxed;

// Guards s_PermitsOwed, and every change of the count but a writer's acquire. Innermost: nothing is
// taken inside it.
std::mutex s_PermitMutex;

// Permits of ended workers that a writer had acquired just then. They are taken from the next ones
// that are given, so that the count is 0 again when no worker lives.
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
    m_Exit.store(true, s_Relaxed);
    {
        // With the mutex held the worker is either in its wait, or will look at the mark first.
        const QMutexLocker locker(m_Mutex);
        m_Condition->wakeAll();
    }
    wait();
}

void ZebDataBlockCompressionThread::run()
{
    QMutexLocker locker(m_Mutex);
    // Given with the mutex held, which the wait gives up: whoever gets the permit can queue its
    // request only once this worker waits, so that its wake is not missed.
    givePermits(1);
    while (!m_Exit.load(s_Relaxed)) {
        m_Condition->wait(m_Mutex);
        if (m_Queue->isEmpty())
            continue;
        ZebDataBlockWriteRequest* const request = m_Queue->dequeue();
        locker.unlock();
        request->compress();
        Q_EMIT compressed(request);
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
