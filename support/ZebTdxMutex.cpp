#include "support/ZebTdxMutex.h"

ZebTdxMutex::ZebTdxMutex(int level, QMutex::RecursionMode mode) : m_Mutex(mode)
{
    Q_UNUSED(level)
}

ZebTdxMutex::~ZebTdxMutex() = default;

// The bodies below are what the attributes in the header promise; the analysis knows the QMutex
// inside as another lock, and cannot compare the two.

void ZebTdxMutex::lock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    m_Mutex.lock();
}

void ZebTdxMutex::unlock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
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

void ZebTdxMutexLocker::unlock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    // Cleared first, so that the destructor never unlocks a second time.
    m_Locked = false;
    m_Mutex->unlock();
}

void ZebTdxMutexLocker::relock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_Mutex == nullptr || m_Locked)
        return;
    m_Mutex->lock();
    m_Locked = true;
}
