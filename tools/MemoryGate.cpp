#include "tools/MemoryGate.h"

#include "manager/ZebDataBlockManager.h"

MemoryGate::MemoryGate(qint64 limit) : m_Limit(limit), m_PendingBytes(0), m_Closed(false) {}

bool MemoryGate::enter(qint64 bytes)
{
    std::unique_lock<std::mutex> locker(m_Mutex);
    for (;;) {
        if (m_Closed)
            return false;
        const qint64 live = ZebDataBlockManager::instance().liveBytes();
        if (live + m_PendingBytes + bytes <= m_Limit) {
            m_PendingBytes += bytes;
            return true;
        }
        if (m_PendingBytes == 0) {
            m_Closed = true;
            m_SomethingLeft.notify_all();
            return false;
        }
        m_SomethingLeft.wait(locker);
    }
}

void MemoryGate::leave(qint64 bytes)
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    m_PendingBytes -= bytes;
    m_SomethingLeft.notify_all();
}

bool MemoryGate::isClosed() const
{
    const std::lock_guard<std::mutex> locker(m_Mutex);
    return m_Closed;
}
