#pragma once

#include "data/ZebDataReference.h"
#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QReadWriteLock>
#include <QString>
#include <QThread>

#include <atomic>
#include <string>
#include <vector>

class ZebDirectory;

/// The garbage collector of one cache root. A pass walks the root's current sub-cache, removes
/// orphaned files, whose hash no reference holds, and sums up the sizes of the others. The thread
/// polls ten times a second; collect() makes a pass on the calling thread.
///
/// The name alone identifies a block file: it has 15 "-", whatever stands between them. A pass
/// neither removes nor counts files of other names, hidden files, or anything but a regular file.
/// Below the root it follows no link: it stays in the tree.
///
/// A pass skips what it would do when the sub-cache changed between reading its name and the
/// bracket; it is still due then.
///
/// Between the decision that a file is orphaned and its removal, the registry keeps its digest out
/// (ZebHashRemoval), so bytes that are added again are written again.
///
/// A pass never fails: a directory that cannot be read counts as empty, and the next pass retries a
/// file that cannot be removed.
///
/// Thread safety: any thread may call every operation. Concurrent passes over one root are safe,
/// but the size they find can be wrong until the next pass.
///
/// Locks: m_Lock is level 3; m_PassTimerMutex is a leaf lock. A pass holds neither across a file
/// operation. It takes the delete lock briefly before its bracket, never inside:
/// ZebDataBlockManager::stopGarbageCollection() waits for the bracket's end with that lock held.
/// m_Lock is taken for writing only: a recursive read lock allocates, and stays taken when that
/// fails. closeDown() is the exception.
class ZEBTDX_EXPORT ZebGarbageCollectorThread : public QThread
{
public:
    /// @param root the cache root to serve
    /// @param bucketCount number of buckets in the root
    ZebGarbageCollectorThread(const QString& root, int bucketCount, QObject* parent);
    ~ZebGarbageCollectorThread() override;

    /// Makes one pass, unless there is no sub-cache, the collection is disabled, or the last pass
    /// ended less than a minute ago and no block has been freed since. The caller must not hold the
    /// delete lock.
    ///
    /// @param reporter receives each directory visited; null for no reports
    /// @param count the number of directories visited so far, which a report increments; null for
    ///        no reports
    void collect(ZebDataBlockManager::ProgressReporter* reporter, int* count)
        ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Removes the file if it is a regular one. Ignores a failure.
    void deleteBlock(const QString& path);

    /// Asks the thread to end and resets the size found. Does not wait, and does not stop a running
    /// pass: ZebDataBlockManager::stopGarbageCollection() does.
    void closeDown();

    /// The sub-cache, empty at first.
    /// Kept on purpose: a pass does not use it, but asks the store.
    void setSubCache(const QString& subCache);
    QString subCache() const;

protected:
    void run() override;

private:
    /// Whether a pass can be skipped: no block was freed since the last one, which is recent.
    bool isGateClosed() const;

    /// A directory that the walk has visited.
    struct Visited
    {
        /// Its path below the sub-cache.
        std::string m_Path;
        /// The names of its block files, each followed by a NUL.
        std::string m_FileNames;
    };

    /// Visits the directories below `subCache`, breadth-first. Stops early when the collection is
    /// disabled.
    static std::vector<Visited> walk(const ZebDirectory& subCache,
                                     ZebDataBlockManager::ProgressReporter* reporter, int* count);

    /// Adds the block files and the subdirectories of a directory.
    static void visit(const ZebDirectory& directory, std::size_t index,
                      std::vector<Visited>* visited);

    /// Removes the orphaned files of these directories, and sets m_CacheSize to the size of the
    /// others.
    void sweep(const ZebDirectory& subCache, const std::vector<Visited>& visited);

    /// Removes an orphaned file or counts a live one. False when the collection is disabled.
    bool sweepFile(const ZebDirectory& directory, const std::string& name);

    /// Closes the gate and ends the bracket of a pass.
    void endPass();

    const QString m_CacheRoot;

    // Recursive. closeDown() and collect() also take it, to wait for setSubCache().
    mutable QReadWriteLock m_Lock ZEBTDX_LOCK_LEVEL_3;

    // Kept on purpose: unused, since the walk finds the buckets itself.
    [[maybe_unused]] const int m_BucketCount;

    // Shared without a lock between the thread and a host in collect(). The values need no order
    // between them; a stale one costs a pass too many or too few.
    std::atomic<qint64> m_LastBlocksFreedCount; // the store's, at the end of the last pass
    std::atomic<bool> m_Exit;
    std::atomic<qint64> m_CacheSize; // bytes of the live files that the last pass found

    mutable QMutex m_PassTimerMutex; // a leaf lock

    // Started at the end of each pass; invalid before the first.
    QElapsedTimer m_PassTimer ZEBTDX_GUARDED_BY(m_PassTimerMutex);

    QString m_SubCache ZEBTDX_GUARDED_BY(m_Lock);
};
