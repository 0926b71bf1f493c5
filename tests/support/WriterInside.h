#pragma once

#include "io/ZebDataBlockWriteRequest.h"
#include "io/ZebDataBlockWriteThread.h"
#include "io/ZebPriorityList.h"
#include "support/PrivateAccess.h"

#include <QAtomicInt>
#include <QMutex>
#include <QReadWriteLock>
#include <QSet>
#include <QVector>
#include <QWaitCondition>

#include <atomic>

using WriterInsideList = ZebPriorityList<ZebDataBlockWriteRequest*>;

ZEBTDX_ACCESS(WriterInsideRequests, ZebDataBlockWriteThread,
              WriterInsideList ZebDataBlockWriteThread::*, m_Requests)
ZEBTDX_ACCESS(WriterInsideLock, ZebDataBlockWriteThread, QReadWriteLock ZebDataBlockWriteThread::*,
              m_Lock)
ZEBTDX_ACCESS(WriterInsideWaitMutex, ZebDataBlockWriteThread, QMutex ZebDataBlockWriteThread::*,
              m_WaitMutex)
ZEBTDX_ACCESS(WriterInsideWaitCondition, ZebDataBlockWriteThread,
              QWaitCondition ZebDataBlockWriteThread::*, m_WaitCondition)
ZEBTDX_ACCESS(WriterInsideBytesInQueue, ZebDataBlockWriteThread, qint64 ZebDataBlockWriteThread::*,
              m_BytesInQueue)
ZEBTDX_ACCESS(WriterInsideBytesWritten, ZebDataBlockWriteThread,
              std::atomic<qint64> ZebDataBlockWriteThread::*, m_BytesWritten)
ZEBTDX_ACCESS(WriterInsideRequestsTaken, ZebDataBlockWriteThread, int ZebDataBlockWriteThread::*,
              m_RequestsTaken)
ZEBTDX_ACCESS(WriterInsideRequestsInProgress, ZebDataBlockWriteThread,
              QAtomicInt ZebDataBlockWriteThread::*, m_RequestsInProgress)
ZEBTDX_ACCESS(WriterInsideFencesReached, ZebDataBlockWriteThread,
              QSet<int> ZebDataBlockWriteThread::*, m_FencesReached)
ZEBTDX_ACCESS(WriterInsideFreeFenceIds, ZebDataBlockWriteThread,
              QVector<int> ZebDataBlockWriteThread::*, m_FreeFenceIds)
ZEBTDX_ACCESS(WriterInsideNextFenceId, ZebDataBlockWriteThread, int ZebDataBlockWriteThread::*,
              m_NextFenceId)

/// The private members that all writers share. None of the functions takes a lock of its own.
namespace WriterInside {

/// The queue, guarded by lock().
inline WriterInsideList& requests(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideRequests());
}

inline QReadWriteLock& lock(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideLock());
}

inline QMutex& waitMutex(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideWaitMutex());
}

/// At which the idle thread sleeps.
inline QWaitCondition& waitCondition(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideWaitCondition());
}

/// Guarded by lock().
inline qint64& bytesInQueue(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideBytesInQueue());
}

inline std::atomic<qint64>& bytesWritten(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideBytesWritten());
}

/// Guarded by lock().
inline int& requestsTaken(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideRequestsTaken());
}

inline QAtomicInt& requestsInProgress(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideRequestsInProgress());
}

inline QSet<int>& fencesReached(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideFencesReached());
}

inline QVector<int>& freeFenceIds(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideFreeFenceIds());
}

inline int& nextFenceId(ZebDataBlockWriteThread& object)
{
    return object.*privateMember(WriterInsideNextFenceId());
}

} // namespace WriterInside
