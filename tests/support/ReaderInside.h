#pragma once

#include "io/ZebDataBlockReadThread.h"
#include "io/ZebPriorityList.h"
#include "support/PrivateAccess.h"

#include <QByteArray>
#include <QMutex>
#include <QReadWriteLock>
#include <QWaitCondition>

#include <atomic>

using ReaderInsideTask = ZebDataBlock* (*)(QByteArray, const ZebSmartPointer<ZebDataHash>&, bool,
                                           qint64);
using ReaderInsideList = ZebPriorityList<ZebSmartPointer<ZebDataHash>>;

ZEBTDX_ACCESS(ReaderInsideRequests, ZebDataBlockReadThread,
              ReaderInsideList ZebDataBlockReadThread::*, m_Requests)
ZEBTDX_ACCESS(ReaderInsideLock, ZebDataBlockReadThread, QReadWriteLock ZebDataBlockReadThread::*,
              m_Lock)
ZEBTDX_ACCESS(ReaderInsideWaitMutex, ZebDataBlockReadThread, QMutex ZebDataBlockReadThread::*,
              m_WaitMutex)
ZEBTDX_ACCESS(ReaderInsideWaitCondition, ZebDataBlockReadThread,
              QWaitCondition ZebDataBlockReadThread::*, m_WaitCondition)
ZEBTDX_ACCESS(ReaderInsideBytesRead, ZebDataBlockReadThread,
              std::atomic<qint64> ZebDataBlockReadThread::*, m_BytesRead)
ZEBTDX_ACCESS(ReaderInsideExit, ZebDataBlockReadThread, bool ZebDataBlockReadThread::*, m_Exit)
ZEBTDX_ACCESS(ReaderInsideMaxLowPriorityRequests, ZebDataBlockReadThread,
              const int ZebDataBlockReadThread::*, m_MaxLowPriorityRequests)
ZEBTDX_ACCESS(ReaderInsidePromotionCount, ZebDataBlockReadThread,
              std::atomic<qint64> ZebDataBlockReadThread::*, m_PromotionCount)
ZEBTDX_ACCESS(ReaderInsideDecompress, ZebDataBlockReadThread, ReaderInsideTask,
              decompressAndMakeBlock)

/// The private members of ZebDataBlockReadThread. None of the functions takes a lock of its own.
namespace ReaderInside {

/// The queue, guarded by lock().
inline ReaderInsideList& requests(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsideRequests());
}

inline QReadWriteLock& lock(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsideLock());
}

inline QMutex& waitMutex(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsideWaitMutex());
}

/// At which the idle thread sleeps.
inline QWaitCondition& waitCondition(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsideWaitCondition());
}

inline std::atomic<qint64>& bytesRead(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsideBytesRead());
}

/// Guarded by lock().
inline bool& exit(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsideExit());
}

inline const int& maxLowPriorityRequests(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsideMaxLowPriorityRequests());
}

inline std::atomic<qint64>& promotionCount(ZebDataBlockReadThread& object)
{
    return object.*privateMember(ReaderInsidePromotionCount());
}

/// Makes a block of the payload of a file, as a reader does after reading it.
inline ZebDataBlock* decompressAndMakeBlock(const QByteArray& data,
                                            const ZebSmartPointer<ZebDataHash>& hash, bool makeLive,
                                            qint64 size)
{
    return privateMember(ReaderInsideDecompress())(data, hash, makeLive, size);
}

} // namespace ReaderInside
