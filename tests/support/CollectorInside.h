#pragma once

#include "io/ZebGarbageCollectorThread.h"
#include "support/PrivateAccess.h"

#include <QElapsedTimer>
#include <QReadWriteLock>

#include <atomic>

ZEBTDX_ACCESS(CollectorInsideCacheSize, ZebGarbageCollectorThread,
              std::atomic<qint64> ZebGarbageCollectorThread::*, m_CacheSize)
ZEBTDX_ACCESS(CollectorInsideLastBlocksFreedCount, ZebGarbageCollectorThread,
              std::atomic<qint64> ZebGarbageCollectorThread::*, m_LastBlocksFreedCount)
ZEBTDX_ACCESS(CollectorInsideExit, ZebGarbageCollectorThread,
              std::atomic<bool> ZebGarbageCollectorThread::*, m_Exit)
ZEBTDX_ACCESS(CollectorInsideLock, ZebGarbageCollectorThread,
              QReadWriteLock ZebGarbageCollectorThread::*, m_Lock)
ZEBTDX_ACCESS(CollectorInsidePassTimer, ZebGarbageCollectorThread,
              QElapsedTimer ZebGarbageCollectorThread::*, m_PassTimer)
// Where a timer keeps the second at which it was started.
ZEBTDX_ACCESS(CollectorInsideTimerSeconds, QElapsedTimer, qint64 QElapsedTimer::*, t1)

/// The private members of ZebGarbageCollectorThread. None of the functions takes a lock of its own.
namespace CollectorInside {

/// The bytes of live files that the last pass found.
inline std::atomic<qint64>& cacheSize(ZebGarbageCollectorThread& object)
{
    return object.*privateMember(CollectorInsideCacheSize());
}

/// The store's count at the end of the last pass.
inline std::atomic<qint64>& lastBlocksFreedCount(ZebGarbageCollectorThread& object)
{
    return object.*privateMember(CollectorInsideLastBlocksFreedCount());
}

inline std::atomic<bool>& exit(ZebGarbageCollectorThread& object)
{
    return object.*privateMember(CollectorInsideExit());
}

inline QReadWriteLock& lock(ZebGarbageCollectorThread& object)
{
    return object.*privateMember(CollectorInsideLock());
}

/// Runs since the end of the last pass.
inline QElapsedTimer& passTimer(ZebGarbageCollectorThread& object)
{
    return object.*privateMember(CollectorInsidePassTimer());
}

/// Moves the end of the last pass back.
inline void letSecondsPass(ZebGarbageCollectorThread& collector, qint64 seconds)
{
    passTimer(collector).*privateMember(CollectorInsideTimerSeconds()) -= seconds;
}

} // namespace CollectorInside
