#pragma once

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "io/ZebPriorityList.h"
#include "support/ZebTdxExport.h"

#include <QAtomicInt>
#include <QMutex>
#include <QReadWriteLock>
#include <QSet>
#include <QString>
#include <QThread>
#include <QVector>
#include <QWaitCondition>

#include <atomic>

class ZebDataBlock;
class ZebDataBlockWriteRequest;

/// The writer of one cache root: the queue, the counters and the signal that all writers share. How
/// the queue is worked off is a matter of the derived class.
///
/// A write that fails is tried again without limit, and each failed attempt emits writeError(). No
/// request is ever dropped, so a full disk makes the writer repeat itself until there is room.
///
/// Ownership: the writer owns the requests in its list. Requests that are queued when it is
/// destroyed are lost; whoever stops it flushes first.
///
/// Thread safety: any thread may queue blocks, read counters and wait.
///
/// Locks: m_Lock stands at level 4 of the lock order and is never held across file I/O. A writer
/// takes the delete lock with m_Lock free, to finish a block; so nobody may wait for a writer with
/// the delete lock held.
class ZEBTDX_EXPORT ZebDataBlockWriteThread : public QThread
{
    Q_OBJECT

public:
    /// @param root the cache root to serve
    /// @param bucketCount directories below it
    ZebDataBlockWriteThread(const QString& root, int bucketCount, QObject* parent);
    ~ZebDataBlockWriteThread() override;

    /// Queues a block, unless it has a file already; then it is only deleted, if `deleteBlock` says
    /// so.
    ///
    /// @param deleteBlock whether the block passes to the writer
    void writeBlock(ZebDataBlockManager::PreloadPriority priority,
                    ZebSmartPointer<ZebDataHash> hash, ZebDataBlock* block, bool deleteBlock);

    /// How many requests wait in the list.
    int requests() const;

    /// The sizes of the blocks that wait, in bytes. Until when a block waits is said by the derived
    /// class.
    qint64 bytesInQueue() const;

    /// How many block writes are finished; whether those count that found a file is said by the
    /// derived class. Takes no lock.
    int requestsHandled() const;

    /// How many block writes have left the list and are not finished; a writer with workers leaves
    /// out those that found a file. Takes no lock.
    int requestsInProgress() const;

    /// The payload bytes written, without headers. Takes no lock.
    qint64 bytesWritten() const;

    /// The sub-cache that files go to, empty at first.
    void setSubCache(const QString& subCache);
    QString subCache() const;

    /// Works the queue off until closeDown().
    void run() override = 0;

    /// Waits until whatever was queued for this hash is written. Returns at once for a null hash.
    /// Waits without limit while the disk fails.
    virtual void flush(const ZebSmartPointer<ZebDataHash>& hash) = 0;

    /// Waits until the queue is empty and nothing is in progress. Waits without limit while the
    /// disk fails.
    virtual void flush() = 0;

    /// Asks the thread to end once its list is empty. Does not wait.
    virtual void closeDown() = 0;

Q_SIGNALS:
    /// A block file could not be written; the text says why.
    void writeError(QString message);

protected:
    /// The common body of closeDown().
    void askToEnd();

    /// Whether the thread was asked to end.
    bool exitAsked() const;

    /// Waits for a wake, at most 1000 ms.
    void idle();

    /// Ends the request of a block that has its file. Takes the delete lock; m_Lock must be free.
    static void endWrite(ZebDataBlockWriteRequest* request);

    /// Marks one request less as on its way. Takes m_Lock.
    void releaseTaken();

    /// A number for a fence: the one given back last, or a new one. The caller holds what guards
    /// the fences.
    int takeFenceId();

    /// Moves the first write of this hash that is less urgent than a fence to where fences go. The
    /// caller holds m_Lock.
    void moveToFences(const ZebDataHash* hash);

    static constexpr int s_FencePriority = 0;

    const QString m_CacheRoot;
    QString m_SubCache;
    const int m_BucketCount;
    bool m_Exit;

    // Paired with m_WaitCondition and guards nothing. A wake can fall between two waits; the time
    // limit of the wait bounds what that costs.
    QMutex m_WaitMutex;
    QWaitCondition m_WaitCondition;

    // Guards the list, m_BytesInQueue, m_RequestsTaken, m_SubCache and m_Exit, and what the derived
    // class says. Recursive.
    mutable QReadWriteLock m_Lock;

    ZebPriorityList<ZebDataBlockWriteRequest*> m_Requests;
    qint64 m_BytesInQueue;

    // Requests of any kind that have left the list and still exist: what flush() waits for beside
    // the counters, so that it cannot return in the moment between list and counter.
    int m_RequestsTaken;

    QAtomicInt m_RequestsInProgress;
    std::atomic<qint64> m_BytesWritten;
    std::atomic<int> m_RequestsHandled;

    // Fences. Guarded by what the derived class says.
    int m_NextFenceId;
    QSet<int> m_FencesReached;
    QVector<int> m_FreeFenceIds;
};
