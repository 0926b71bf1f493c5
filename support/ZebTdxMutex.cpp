#include "support/ZebTdxMutex.h"

namespace {

// Identifies the calling thread.
const void* self()
{
    static thread_local const char s_Self = 0;
    return &s_Self;
}

} // namespace

ZebTdxMutex::ZebTdxMutex(int level, QMutex::RecursionMode mode)
    : m_IsRecursive(mode == QMutex::Recursive)
{
    Q_UNUSED(level)
}

ZebTdxMutex::~ZebTdxMutex() = default;

bool ZebTdxMutex::isMine() const
{
    return m_Owner.load(std::memory_order_relaxed) == self();
}

void ZebTdxMutex::setOwner()
{
    if (m_IsRecursive)
        m_Owner.store(self(), std::memory_order_relaxed);
}

// The bodies below are what the attributes in the header promise; the analysis knows the QMutex
// inside as another lock, and cannot compare the two.

void ZebTdxMutex::lock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (isMine()) {
        ++m_ExtraLocks;
        return;
    }
    m_Mutex.lock();
    setOwner();
}

void ZebTdxMutex::unlock() ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (m_ExtraLocks > 0) {
        --m_ExtraLocks;
        return;
    }
    // Cleared first: after the release another thread may own the mutex.
    m_Owner.store(nullptr, std::memory_order_relaxed);
    m_Mutex.unlock();
}

bool ZebTdxMutex::tryLock()
{
    return tryLock(0);
}

bool ZebTdxMutex::tryLock(int timeout) ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    if (isMine()) {
        ++m_ExtraLocks;
        return true;
    }
    if (!m_Mutex.tryLock(timeout))
        return false;
    setOwner();
    return true;
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
