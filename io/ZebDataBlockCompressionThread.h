#pragma once

#include "support/ZebTdxExport.h"

#include <QMutex>
#include <QQueue>
#include <QSemaphore>
#include <QThread>
#include <QWaitCondition>

#include <atomic>

class ZebDataBlockWriteRequest;

/// A worker that compresses blocks for one writer: it takes requests from the writer's queue, first
/// in first out, and hands each back by its signal.
///
/// It looks at the queue only after a wake, so whoever queues a request wakes a worker as well.
///
/// Ownership: condition, mutex and queue are the writer's and outlive the worker. A request belongs
/// to the worker from the queue to the signal.
///
/// Locks: the queue's mutex stands inside a writer's m_Lock, at level 4. It is held neither across
/// a compression nor while the signal is emitted.
class ZEBTDX_EXPORT ZebDataBlockCompressionThread : public QThread
{
    Q_OBJECT

public:
    /// @param condition where the worker waits for requests
    /// @param mutex what guards the queue
    /// @param queue where requests come from
    ZebDataBlockCompressionThread(QWaitCondition* condition, QMutex* mutex,
                                  QQueue<ZebDataBlockWriteRequest*>* queue, QObject* parent);

    /// Ends the thread once it has finished what it has in hand. What is queued stays there.
    ~ZebDataBlockCompressionThread() override;

    /// Waits for requests and compresses them, until the worker is destroyed.
    void run() override;

    /// One permit for each worker of the process that is free to take a request; a writer acquires
    /// one before it queues a request.
    ///
    /// Kept on purpose: all writers share the count, while each has its own queue. A permit may
    /// come from another writer's worker, so a request may lie in a queue that no wake will come
    /// for; writers wake their workers again for that.
    static QSemaphore AvailableThreads;

Q_SIGNALS:
    /// The payload of the request is made. Emitted on the worker's thread, with no lock held.
    void compressed(ZebDataBlockWriteRequest* request);

private:
    friend class ZebDataBlockWriteThread_Pattern2;

    /// Counts `count` workers more as free. Permits that an ended worker could not take back are
    /// settled first.
    static void givePermits(int count);

    /// Counts one worker less, now or as soon as there is a permit to take.
    static void takePermitBack();

    std::atomic<bool> m_Exit;
    QWaitCondition* const m_Condition;
    QMutex* const m_Mutex;
    QQueue<ZebDataBlockWriteRequest*>* const m_Queue;
};
