#include "support/ZebTdxMutex.h"

ZebTdxMutex::ZebTdxMutex(int level, QMutex::RecursionMode mode) : m_Mutex(mode)
{
    Q_UNUSED(level)
}

ZebTdxMutex::~ZebTdxMutex() = default;

void ZebTdxMutex::lock()
{
    m_Mutex.lock();
}

void ZebTdxMutex::unlock()
{
    m_Mutex.unlock();
}

bool ZebTdxMutex::tryLock()
{
    return m_Mutex.tryLock();
}

bool ZebTdxMutex::tryLock(int timeout)
{
    return m_Mutex.tryLock(timeout);
}

ZebTdxMutexLocker::ZebTdxMutexLocker(ZebTdxMutex* mutex) : m_Mutex(mutex), m_Locked(false)
{
    relock();
}

ZebTdxMutexLocker::~ZebTdxMutexLocker()
{
    if (m_Locked)
        unlock();
}

ZebTdxMutexLocker& ZebTdxMutexLocker::operator=(const ZebTdxMutexLocker& other) = default;

void ZebTdxMutexLocker::unlock()
{
    // The mark falls first, as a destructor that runs meanwhile must not unlock a second time.
    m_Locked = false;
    m_Mutex->unlock();
}

void ZebTdxMutexLocker::relock()
{
    if (m_Mutex == nullptr || m_Locked)
        return;
    m_Mutex->lock();
    m_Locked = true;
}
