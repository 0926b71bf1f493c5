#pragma once

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebSmartPointer.h"
#include "io/ZebPriorityList.h"
#include "support/ZebTdxExport.h"

#include <QByteArray>
#include <QFuture>
#include <QMutex>
#include <QReadWriteLock>
#include <QString>
#include <QThread>
#include <QWaitCondition>

#include <atomic>

class QFile;
class ZebDataBlock;

/// The reader of one cache root. As a thread it works off a list of preloads, so that blocks come
/// back before anybody asks for them. As a plain object it offers loadBlock(), which reads one file
/// on the calling thread and has it decompressed on Qt's global pool.
///
/// A failed read never ends the thread.
///
/// Thread safety: any thread may call every operation.
///
/// Locks: m_Lock stands at level 4 of the lock order; it is never held across file I/O, a
/// decompression or a call to the manager.
class ZEBTDX_EXPORT ZebDataBlockReadThread : public QThread
{
public:
    /// @param root the cache root to serve
    /// @param bucketCount directories below it
    /// @param maxLowPriorityRequests length of the list from which PreloadLow is refused
    ZebDataBlockReadThread(const QString& root, int bucketCount, int maxLowPriorityRequests,
                           QObject* parent);
    ~ZebDataBlockReadThread() override;

    /// Asks for a preload. A hash whose preload is under way gets no second entry; with promotion
    /// on, asking again makes its entry one step more urgent, and `priority` plays no part then. A
    /// PreloadLow request is dropped while the list is long.
    void request(ZebDataHash* hash, ZebDataBlockManager::PreloadPriority priority);

    /// Reads the block's file and starts its decompression. When the file can't be read, the
    /// writers are asked for it and it is tried once more; after that the future comes back
    /// cancelled, with no result. The caller must not hold the delete lock.
    ///
    /// A damaged payload gives an empty block.
    ///
    /// @param makeLive whether the task hands the block to the manager; otherwise it belongs to
    ///        whoever takes the result
    QFuture<ZebDataBlock*> loadBlock(const ZebSmartPointer<ZebDataHash>& hash, bool makeLive);

    /// Forgets all requests in the list.
    /// Kept on purpose: their hashes stay marked as preloading, and are refused until a load of
    /// them succeeds.
    void killRequests();

    /// Waits until the list is empty. The load in hand may still be under way.
    void flush();

    /// Flushes, and asks the thread to end. Does not wait for that.
    void closeDown();

    /// How many requests wait in the list.
    int requests() const;

    /// How many requests were taken from the list.
    int requestsHandled() const;

    /// The sizes of all blocks read, in bytes, as their files' headers tell.
    qint64 bytesRead() const;

    /// Whether asking again for a block makes its preload more urgent. Starts off.
    void setRequestPromotionEnabled(bool enabled);
    bool requestPromotionEnabled() const;

    /// The sub-cache that files are read from, empty at first.
    void setSubCache(const QString& subCache);
    QString subCache() const;

protected:
    void run() override;

private:
    /// The task on the pool: decompresses, makes the block, and ends the preload of its hash.
    static ZebDataBlock* decompressAndMakeBlock(QByteArray data,
                                                const ZebSmartPointer<ZebDataHash>& hash,
                                                bool makeLive, qint64 size);

    /// Makes the entry of a hash one step more urgent.
    void promote(ZebDataHash* hash);

    /// One attempt to read a whole block file. False when it is missing, short or unreadable, or
    /// names more bytes than it has.
    static bool readFile(QFile& file, qint64* size, QByteArray* data);

    const QString m_CacheRoot;

    // Paired with m_WaitCondition and guards nothing. A wake can fall between two waits; the time
    // limit of the wait bounds what that costs.
    QMutex m_WaitMutex;
    QWaitCondition m_WaitCondition;

    // Guards m_Exit, m_SubCache and m_Requests. Recursive.
    mutable QReadWriteLock m_Lock;
    bool m_Exit;
    QString m_SubCache;
    const int m_BucketCount;
    const int m_MaxLowPriorityRequests;
    std::atomic<int> m_RequestsHandled;
    std::atomic<qint64> m_BytesRead;
    ZebPriorityList<ZebSmartPointer<ZebDataHash>> m_Requests;
    std::atomic<bool> m_RequestPromotionEnabled;
    std::atomic<qint64> m_PromotionCount;
};
