#pragma once

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "io/ZebPriorityList.h"
#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QByteArray>
#include <QFuture>
#include <QMutex>
#include <QReadWriteLock>
#include <QString>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <string>

class ZebDataBlock;

/// The reader of one cache root. Its thread works through a list of preloads. loadBlock() reads a
/// file on the calling thread and decompresses it on Qt's global pool.
///
/// A failed read never ends the thread, and neither does a failed allocation: the load fails, and
/// its hash may be requested again.
///
/// Thread safety: any thread may call every operation.
///
/// Locks: m_Lock is level 3. It is never held across file I/O, a decompression or a call to the
/// manager. It is taken for writing only: a recursive read lock allocates, and stays taken when
/// that fails.
class ZEBTDX_EXPORT ZebDataBlockReadThread : public QThread
{
public:
    /// @param root the cache root to serve
    /// @param bucketCount number of buckets in the root
    /// @param maxLowPriorityRequests drops a PreloadLow request when this many are waiting
    ZebDataBlockReadThread(const QString& root, int bucketCount, int maxLowPriorityRequests,
                           QObject* parent);
    ~ZebDataBlockReadThread() override;

    /// Requests a preload. A hash that is already preloading gets no second entry: with promotion
    /// enabled, its entry becomes one step more urgent, whatever `priority` is. A PreloadLow
    /// request is dropped while the list is long.
    void request(ZebDataHash* hash, ZebDataBlockManager::PreloadPriority priority);

    /// Reads the block's file and starts its decompression. When it cannot read the file, it
    /// flushes the block's writes and retries once. When that fails, too, it flushes again and
    /// returns a cancelled future, without a result. A damaged payload gives an empty block; a
    /// decompression that runs out of memory cancels the future. Only a regular file is read, and
    /// none is waited for. The caller must not hold the delete lock.
    ///
    /// @param makeLive whether the task hands the block to the manager; otherwise the caller owns
    ///        the result
    QFuture<ZebDataBlock*> loadBlock(const ZebSmartPointer<ZebDataHash>& hash, bool makeLive)
        ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Drops all requests in the list.
    /// Kept on purpose: their hashes stay marked as preloading, so request() ignores them until a
    /// load succeeds.
    void killRequests();

    /// Waits until the list is empty. The last load may still be in progress.
    void flush() ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Flushes, then asks the thread to end. Does not wait for its end.
    void closeDown() ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// How many requests wait in the list.
    int requests() const;

    /// How many requests have been taken from the list.
    int requestsHandled() const;

    /// The sum of the sizes in the headers of all files read, in bytes.
    qint64 bytesRead() const;

    /// Whether a repeated request makes a preload more urgent. Disabled at first.
    void setRequestPromotionEnabled(bool enabled);
    bool requestPromotionEnabled() const;

    /// The sub-cache to read from, empty at first.
    void setSubCache(const QString& subCache);
    QString subCache() const;

protected:
    void run() override;

private:
    /// The task on the pool.
    class LoadTask;

    /// The body of loadBlock(). Throws std::bad_alloc.
    QFuture<ZebDataBlock*> startLoad(const ZebSmartPointer<ZebDataHash>& hash, bool makeLive);

    /// Ends a load that has run out of memory. That proves nothing about the file, so the hash may
    /// be requested again.
    static void loadRanOutOfMemory(const ZebSmartPointer<ZebDataHash>& hash) noexcept;

    /// What the task does: decompresses, makes the block, and marks its hash as not preloading.
    /// Throws std::bad_alloc.
    static ZebDataBlock* decompressAndMakeBlock(QByteArray data,
                                                const ZebSmartPointer<ZebDataHash>& hash,
                                                bool makeLive, qint64 size);

    /// Makes a hash's entry one step more urgent.
    void promote(ZebDataHash* hash);

    /// One attempt to read a block file. False when it is missing, truncated, unreadable or no
    /// regular file, or its header claims more bytes than it has. Throws std::bad_alloc.
    static bool readFile(const std::string& path, qint64* size, QByteArray* data);

    /// Wakes the thread. A wake-up between two waits counts for the next one.
    void wake();

    const QString m_CacheRoot;

    // A leaf lock.
    QMutex m_WaitMutex;
    QWaitCondition m_WaitCondition;
    // Whether there was a wake-up since the last wait.
    bool m_WakeIsPending ZEBTDX_GUARDED_BY(m_WaitMutex) = false;

    mutable QReadWriteLock m_Lock ZEBTDX_LOCK_LEVEL_3; // recursive
    bool m_Exit ZEBTDX_GUARDED_BY(m_Lock);
    QString m_SubCache ZEBTDX_GUARDED_BY(m_Lock);
    const int m_BucketCount;
    const int m_MaxLowPriorityRequests;
    std::atomic<int> m_RequestsHandled;
    std::atomic<qint64> m_BytesRead;
    ZebPriorityList<ZebSmartPointer<ZebDataHash>> m_Requests ZEBTDX_GUARDED_BY(m_Lock);
    std::atomic<bool> m_RequestPromotionEnabled;
    std::atomic<qint64> m_PromotionCount;

    // What a failed load returns. Made in advance, since every future allocates.
    const QFuture<ZebDataBlock*> m_NoBlock;
};
