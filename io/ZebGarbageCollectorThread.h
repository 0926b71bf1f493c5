#pragma once

#include "data/ZebDataReference.h"
#include "support/ZebTdxExport.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QReadWriteLock>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>

/// The garbage collector of one cache root. A pass walks the root's current sub-cache, removes the
/// block files whose hash nobody holds any more, and adds up the sizes of the others. As a thread
/// it polls ten times a second; collect() makes one pass on the calling thread.
///
/// What is a block file is told by the name alone, sixteen numbers with "-" between them. Whatever
/// else lies in the tree is neither removed nor counted, and so are hidden files.
///
/// A pass never fails: a directory that can't be read yields nothing, and a file that can't be
/// removed is tried again in the next pass.
///
/// Thread safety: any thread may call every operation. Two passes at one time over the same root do
/// no harm, but the size they find can be wrong until the next pass.
///
/// Locks: m_Lock and m_PassTimerMutex stand at level 4 of the lock order. A pass holds none of
/// them, and takes the delete lock for a moment before its bracket, never inside: who switches the
/// collection off waits for the bracket's end with that lock held.
class ZEBTDX_EXPORT ZebGarbageCollectorThread : public QThread
{
public:
    /// @param root the cache root to serve
    /// @param bucketCount directories below it
    ZebGarbageCollectorThread(const QString& root, int bucketCount, QObject* parent);
    ~ZebGarbageCollectorThread() override;

    /// Makes one pass, unless there is no sub-cache, the collection is switched off, or no block
    /// has left memory since the last pass and that one ended less than a minute ago. The caller
    /// must not hold the delete lock.
    ///
    /// @param reporter told of each directory visited; null for none, and then `count` is left
    ///        alone
    /// @param count the directories visited so far, counted on; null for no reports
    void collect(ZebDataBlockManager::ProgressReporter* reporter, int* count);

    /// Removes the file if it exists; a failure is not told.
    void deleteBlock(const QString& path);

    /// Asks the thread to end, and forgets the size found. Does not wait, and does not stop a pass
    /// that is under way: ZebDataBlockManager::stopGarbageCollection() does.
    void closeDown();

    /// The name that the store has told; empty at first.
    /// Kept on purpose: a pass does not use it, but asks the store.
    void setSubCache(const QString& subCache);
    QString subCache() const;

protected:
    void run() override;

private:
    /// Whether a pass would find what the last one found, as far as can be told without looking.
    bool isGateClosed() const;

    /// The block files below `directory`, breadth-first; those seen so far when the collection is
    /// switched off meanwhile.
    static QStringList findBlockFiles(const QString& directory,
                                      ZebDataBlockManager::ProgressReporter* reporter, int* count);

    /// Removes the dead ones of these files, and sets m_CacheSize to the size of the others.
    void sweep(const QStringList& files);

    /// What ends a pass: closes the gate behind it, and leaves the bracket.
    void endPass();

    const QString m_CacheRoot;

    // Guards m_SubCache and the moment of asking the thread to end. Recursive.
    mutable QReadWriteLock m_Lock;

    // Kept on purpose: the walk finds the buckets by itself and does not use it.
    [[maybe_unused]] const int m_BucketCount;

    // Three values that the thread and a host in collect() share with no lock: they need no order
    // between them, and what a stale one costs is a pass more or less.
    std::atomic<qint64> m_LastBlocksFreedCount; // the store's count at the end of the last pass
    std::atomic<bool> m_Exit;
    std::atomic<qint64> m_CacheSize; // bytes of the live files that the last pass found

    // Guards m_PassTimer, which is two words. Nothing else is taken inside it.
    mutable QMutex m_PassTimerMutex;

    // Runs since the end of the last pass; invalid until then.
    QElapsedTimer m_PassTimer;

    QString m_SubCache;
};
