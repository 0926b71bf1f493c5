#pragma once

#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QMutex>
#include <QQueue>
#include <QSemaphore>
#include <QThread>
#include <QWaitCondition>

#include <atomic>

class ZebDataBlockWriteRequest;

/// A worker that compresses blocks for one writer. It takes requests from the writer's queue, first
/// in, first out, and returns each by its signal.
///
/// It checks the queue only after a wake-up, so a thread that queues a request must wake a worker.
///
/// Ownership: the writer owns condition, mutex and queue, which outlive the worker. The worker owns
/// a request from the queue to the signal.
///
/// Locks: the queue's mutex is level 3, inside a writer's m_Lock. It is not held during a
/// compression or while the signal is emitted.
class ZEBTDX_EXPORT ZebDataBlockCompressionThread : public QThread
{
    Q_OBJECT

public:
    /// @param condition where the worker waits for requests
    /// @param mutex guards the queue
    /// @param queue the requests to compress
    ZebDataBlockCompressionThread(QWaitCondition* condition, QMutex* mutex,
                                  QQueue<ZebDataBlockWriteRequest*>* queue, QObject* parent);

    /// Ends the thread after its current request; a waiting worker may take one more. The other
    /// requests stay in the queue.
    ~ZebDataBlockCompressionThread() override;

    /// Waits for requests and compresses them, until the worker is destroyed.
    void run() override;

    /// One permit for each free worker of the process. A writer acquires a permit before it queues
    /// a request.
    ///
    /// Kept on purpose: all writers share the permits, but each has its own queue. A permit may
    /// come from another writer's worker, and the wake-up may find every own worker busy; so
    /// writers repeat their wake-ups.
    static QSemaphore AvailableThreads;

Q_SIGNALS:
    /// The request's payload is ready. Emitted on the worker's thread with no lock held.
    void compressed(ZebDataBlockWriteRequest* request);

private:
    friend class ZebDataBlockWriteThread_Pattern2;

    /// Releases `count` permits, less those that ended workers still owe.
    static void givePermits(int count);

    /// Acquires the permit of an ending worker; when none is available, the next givePermits()
    /// does.
    static void takePermitBack();

    std::atomic<bool> m_Exit;
    QWaitCondition* const m_Condition;
    QMutex* const m_Mutex;
    QQueue<ZebDataBlockWriteRequest*>* const m_Queue ZEBTDX_PT_GUARDED_BY(m_Mutex);
};
