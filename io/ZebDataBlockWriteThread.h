#pragma once

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "io/ZebPriorityList.h"
#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QAtomicInt>
#include <QMutex>
#include <QReadWriteLock>
#include <QSet>
#include <QString>
#include <QThread>
#include <QVector>
#include <QWaitCondition>

#include <atomic>
#include <memory>
#include <new>

class ZebDataBlock;
class ZebDataBlockWriteRequest;

/// The writer of one cache root: the list of requests, the counters and the signal that both kinds
/// of writers share. The derived class decides how it processes the list.
///
/// A failed write is retried indefinitely, and each failure emits writeError(). No request is
/// dropped: on a full disk the writer retries until there is space, and so it does when an
/// allocation fails.
///
/// Ownership: the writer owns the requests in its list. Flush before destroying it: requests that
/// are still queued are lost.
///
/// Thread safety: any thread may queue blocks, read counters and wait.
///
/// Locks: m_Lock is level 3 and never held across file I/O. A writer takes the delete lock, without
/// m_Lock, to finish a block; so do not wait for a writer with the delete lock held.
class ZEBTDX_EXPORT ZebDataBlockWriteThread : public QThread
{
    Q_OBJECT

public:
    /// @param root the cache root to serve
    /// @param bucketCount number of buckets in the root
    ZebDataBlockWriteThread(const QString& root, int bucketCount, QObject* parent);
    ~ZebDataBlockWriteThread() override;

    /// Queues a block, unless its file is known to exist (ZebDataBlock::cached()).
    ///
    /// When it throws std::bad_alloc, nothing is queued, and the block still belongs to the caller.
    ///
    /// @param deleteBlock whether the writer takes ownership; it then deletes the block in any case
    void writeBlock(ZebDataBlockManager::PreloadPriority priority,
                    ZebSmartPointer<ZebDataHash> hash, ZebDataBlock* block, bool deleteBlock);

    /// How many requests wait in the list.
    int requests() const;

    /// The sum of the sizes of the waiting blocks, in bytes. The derived class decides how long a
    /// block waits.
    qint64 bytesInQueue() const;

    /// How many block writes are finished. The derived class decides whether a write that found a
    /// complete file counts. Takes no lock.
    int requestsHandled() const;

    /// How many block writes have left the list and are not finished; a writer with workers omits
    /// those that found a complete file. Takes no lock.
    int requestsInProgress() const;

    /// The sum of the payloads written, in bytes, without headers. Takes no lock.
    qint64 bytesWritten() const;

    /// The sub-cache to write to, empty at first.
    void setSubCache(const QString& subCache);
    QString subCache() const;

    /// Processes the list until closeDown().
    void run() override = 0;

    /// Waits until the writer has passed a fence after the queued write of this hash. Returns at
    /// once for a null hash. The derived class decides whether a failed write delays the fence.
    virtual void flush(const ZebSmartPointer<ZebDataHash>& hash) ZEBTDX_EXCLUDES(ZebDeleteLock) = 0;

    /// Waits until the list is empty and nothing is in progress, and indefinitely while the disk
    /// fails.
    virtual void flush() ZEBTDX_EXCLUDES(ZebDeleteLock) = 0;

    /// Asks the thread to end once its list is empty. Does not wait.
    virtual void closeDown() = 0;

Q_SIGNALS:
    /// The writer could not write a block file; `message` gives the reason. Emitted on the writer's
    /// thread with no lock held.
    void writeError(QString message);

protected:
    /// The shared body of closeDown().
    void askToEnd();

    /// Whether the thread was asked to end.
    bool exitAsked() const;

    /// Wakes the thread. A wake-up between two waits counts for the next one.
    void wake();

    /// Waits for a wake-up, at most 1000 ms.
    void idle();

    /// Logs that an allocation failed in an attempt to write, and returns the text. Throws nothing.
    static QString reportOutOfMemory();

    /// Emits writeError(). Throws nothing: a queued connection that cannot allocate its event loses
    /// that event.
    void emitWriteError(const QString& message);

    /// Calls `step` until it finds the memory that it needs, and logs and pauses after each failed
    /// allocation. For steps that would lose a request or a fence otherwise. `step` takes its own
    /// locks, and the caller holds none.
    template <typename Step>
    static void untilMemorySuffices(Step step)
    {
        for (;;) {
            try {
                step();
                return;
            } catch (const std::bad_alloc&) {
                reportOutOfMemory();
                pauseForMemory();
            }
        }
    }

    /// Sleeps briefly, so that other threads can release memory.
    static void pauseForMemory();

    /// Deletes the request of a block that has its file. Takes the delete lock; the caller must not
    /// hold m_Lock.
    static void endWrite(ZebDataBlockWriteRequest* request);

    /// Decrements m_RequestsTaken. Takes m_Lock.
    void releaseTaken();

    /// A number for a fence: the last one that became free, or a new one. The caller holds the lock
    /// that guards the fences. Appending the number to m_FreeFenceIds again allocates nothing.
    int takeFenceId();

    /// Gives `fence` the number of takeFenceId(). The caller holds the lock that guards the fences.
    void numberFence(ZebDataBlockWriteRequest& fence);

    /// Queues a numbered fence. When it throws, the number is free again and `fence` still belongs
    /// to the caller, who must not destroy it with m_Lock held: that takes the delete lock. The
    /// caller also holds the lock that guards the fences.
    void queueFence(std::unique_ptr<ZebDataBlockWriteRequest>& fence) ZEBTDX_REQUIRES(m_Lock);

    /// Raises the first write of this hash to the priority of fences, if it is less urgent.
    /// Allocates nothing.
    void moveToFences(const ZebDataHash* hash) ZEBTDX_REQUIRES(m_Lock);

    static constexpr int s_FencePriority = 0;

    const QString m_CacheRoot;
    QString m_SubCache ZEBTDX_GUARDED_BY(m_Lock);
    const int m_BucketCount;
    bool m_Exit ZEBTDX_GUARDED_BY(m_Lock);

    // Paired with m_WaitCondition.
    QMutex m_WaitMutex;
    QWaitCondition m_WaitCondition;

    // Whether there was a wake-up since the last wait.
    bool m_IsWoken ZEBTDX_GUARDED_BY(m_WaitMutex);

    // Recursive, and taken for writing only: Qt counts the readers of such a lock in a table, and
    // when that cannot grow, the lock is never free again.
    mutable QReadWriteLock m_Lock ZEBTDX_LOCK_LEVEL_3;

    ZebPriorityList<ZebDataBlockWriteRequest*> m_Requests ZEBTDX_GUARDED_BY(m_Lock);
    qint64 m_BytesInQueue ZEBTDX_GUARDED_BY(m_Lock);

    // Requests of any kind that have left the list and still exist. flush() waits for them, too: a
    // request that has left the list may not be counted as in progress yet.
    int m_RequestsTaken ZEBTDX_GUARDED_BY(m_Lock);

    QAtomicInt m_RequestsInProgress;
    std::atomic<qint64> m_BytesWritten;
    std::atomic<int> m_RequestsHandled;

    // Fences. Guarded by m_Lock or by another lock of the derived class, so without an attribute.
    int m_NextFenceId;
    QSet<int> m_FencesReached;
    QVector<int> m_FreeFenceIds;
};
