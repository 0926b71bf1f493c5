#pragma once

#include "data/ZebDataBlock.h"
#include "io/ZebDataBlockCompressionThread.h"
#include "io/ZebDataBlockWriteRequest.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "support/PrivateAccess.h"
#include "support/WaitUntil.h"

#include <QMutexLocker>
#include <QObject>
#include <QQueue>
#include <QVector>
#include <QWaitCondition>

#include <string>
#include <vector>

using RequestQueue = QQueue<ZebDataBlockWriteRequest*>;
using Pattern2WorkersMember =
    QVector<ZebDataBlockCompressionThread*> ZebDataBlockWriteThread_Pattern2::*;

ZEBTDX_ACCESS(Pattern2WorkersTag, ZebDataBlockWriteThread_Pattern2, Pattern2WorkersMember,
              m_CompressionThreads)
ZEBTDX_ACCESS(Pattern2QueueTag, ZebDataBlockWriteThread_Pattern2,
              RequestQueue ZebDataBlockWriteThread_Pattern2::*, m_CompressionQueue)
ZEBTDX_ACCESS(Pattern2QueueMutexTag, ZebDataBlockWriteThread_Pattern2,
              QMutex ZebDataBlockWriteThread_Pattern2::*, m_CompressionQueueMutex)
ZEBTDX_ACCESS(Pattern2QueueConditionTag, ZebDataBlockWriteThread_Pattern2,
              QWaitCondition ZebDataBlockWriteThread_Pattern2::*, m_CompressionCondition)

ZEBTDX_ACCESS(Pattern2WriteQueueTag, ZebDataBlockWriteThread_Pattern2,
              RequestQueue ZebDataBlockWriteThread_Pattern2::*, m_WriteQueue)
ZEBTDX_ACCESS(Pattern2WriteQueueMutexTag, ZebDataBlockWriteThread_Pattern2,
              QMutex ZebDataBlockWriteThread_Pattern2::*, m_WriteQueueMutex)
ZEBTDX_ACCESS(Pattern2FenceMutexTag, ZebDataBlockWriteThread_Pattern2,
              QMutex ZebDataBlockWriteThread_Pattern2::*, m_FenceMutex)
ZEBTDX_ACCESS(Pattern2FenceConditionTag, ZebDataBlockWriteThread_Pattern2,
              QWaitCondition ZebDataBlockWriteThread_Pattern2::*, m_FenceCondition)
ZEBTDX_ACCESS(Pattern2FlushMutexTag, ZebDataBlockWriteThread_Pattern2,
              QMutex ZebDataBlockWriteThread_Pattern2::*, m_FlushMutex)
ZEBTDX_ACCESS(Pattern2FlushConditionTag, ZebDataBlockWriteThread_Pattern2,
              QWaitCondition ZebDataBlockWriteThread_Pattern2::*, m_FlushCondition)
ZEBTDX_ACCESS(Pattern2PushCompressionTag, ZebDataBlockWriteThread_Pattern2,
              void (ZebDataBlockWriteThread_Pattern2::*)(ZebDataBlockWriteRequest*),
              pushCompression)

/// The private state of a writer with workers, for tests that must see it.
namespace Pattern2Inside {

inline const QVector<ZebDataBlockCompressionThread*>&
workers(ZebDataBlockWriteThread_Pattern2& writer)
{
    return writer.*privateMember(Pattern2WorkersTag());
}

/// Guards the fences.
inline QMutex& fenceMutex(ZebDataBlockWriteThread_Pattern2& writer)
{
    return writer.*privateMember(Pattern2FenceMutexTag());
}

/// Where the flush of a hash waits.
inline QWaitCondition& fenceCondition(ZebDataBlockWriteThread_Pattern2& writer)
{
    return writer.*privateMember(Pattern2FenceConditionTag());
}

/// Where the flush of everything waits.
inline QWaitCondition& flushCondition(ZebDataBlockWriteThread_Pattern2& writer)
{
    return writer.*privateMember(Pattern2FlushConditionTag());
}

/// Wakes the flushes of everything, as the end of a pass does.
inline void endPass(ZebDataBlockWriteThread_Pattern2& writer)
{
    const QMutexLocker locker(&(writer.*privateMember(Pattern2FlushMutexTag())));
    flushCondition(writer).wakeAll();
}

/// Calls `action` with the queue of requests to be written, which is locked until `action` returns.
template <typename Action>
auto withWriteQueue(ZebDataBlockWriteThread_Pattern2& writer, Action action)
{
    const QMutexLocker locker(&(writer.*privateMember(Pattern2WriteQueueMutexTag())));
    return action(writer.*privateMember(Pattern2WriteQueueTag()));
}

/// How many requests are in the queue for the workers.
inline int queued(ZebDataBlockWriteThread_Pattern2& writer)
{
    const QMutexLocker locker(&(writer.*privateMember(Pattern2QueueMutexTag())));
    return (writer.*privateMember(Pattern2QueueTag())).size();
}

/// Hands a request to the workers. Waits while none is free.
inline void pushCompression(ZebDataBlockWriteThread_Pattern2& writer,
                            ZebDataBlockWriteRequest* request)
{
    (writer.*privateMember(Pattern2PushCompressionTag()))(request);
}

/// How many workers of the process are free.
inline int freeWorkers()
{
    return ZebDataBlockCompressionThread::AvailableThreads.available();
}

inline bool workersAreFree(int count)
{
    return waitUntil([count] { return freeWorkers() == count; });
}

/// A worker for the queue of a writer that was made without one.
inline ZebDataBlockCompressionThread* makeWorker(ZebDataBlockWriteThread_Pattern2& writer)
{
    auto* const worker =
        new ZebDataBlockCompressionThread(&(writer.*privateMember(Pattern2QueueConditionTag())),
                                          &(writer.*privateMember(Pattern2QueueMutexTag())),
                                          &(writer.*privateMember(Pattern2QueueTag())), nullptr);
    QObject::connect(worker, &ZebDataBlockCompressionThread::compressed, &writer,
                     &ZebDataBlockWriteThread_Pattern2::pushWrite, Qt::DirectConnection);
    return worker;
}

} // namespace Pattern2Inside
