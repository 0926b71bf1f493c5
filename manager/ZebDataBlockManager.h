#pragma once

#include "data/ZebModifyAccessor.h"
#include "hash/ZebSmartPointer.h"
#include "manager/ZebDataBlockLru.h"
#include "support/ZebTdxExport.h"
#include "support/ZebTdxMutex.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QReadWriteLock>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QWaitCondition>

#include <atomic>

class ZebConstAccessor;
class ZebDataBlock;
class ZebDataBlockReadThread;
class ZebDataBlockWriteThread;
class ZebDataHash;
class ZebDataReference;
class ZebGarbageCollectorThread;

/// The store: it admits blocks, owns everything that is resident, and knows where the file of each
/// block lies. A host sets it up once, hands bytes to it from any thread, and cleans it up at the
/// end.
///
/// Before use:
///  - An operation that needs the store set up ends the process when it is not: "Data Block Manager
///    Not Initialized. Aborting". Only cleanUp() and freeing a block return silently then.
///  - setup(), cleanUp() and the setters belong to one controlling thread, with no other operation
///    in progress.
///  - References may outlive cleanUp(); they own hashes, never blocks. Accessors may not.
///  - A store without cache roots takes do-not-cache blocks only.
///
/// Thread safety: after setup() any thread may call every other public operation.
///
/// Locks, outermost first: the delete lock, a block's mutex, the hash registry's mutex and inside
/// it a hash's, a list lock of a disk thread, the lock of the LRU. A thread takes only a lock
/// further down than those it holds, and the recursive ones again. docs/LOCKING.md tells more.
class ZEBTDX_EXPORT ZebDataBlockManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool allFreeBlocksFlushed READ allFreeBlocksFlushed)

public:
    /// How urgently a block is wanted; lower is more urgent.
    enum PreloadPriority : int
    {
        PreloadHigh = 0,
        /// The priority of every write that the manager queues.
        PreloadNormal = 1,
        PreloadLow = 2
    };

    /// Kinds of disk threads, as flags.
    enum ThreadType : int
    {
        ReadThreads = 2,
        WriteThreads = 4,
        GarbageCollectorThreads = 8,
        AllThreads = 14
    };

    friend constexpr ThreadType operator|(ThreadType a, ThreadType b)
    {
        return static_cast<ThreadType>(static_cast<int>(a) | static_cast<int>(b));
    }

    /// Cleans up, with the log turned off.
    ~ZebDataBlockManager() override;

    /// The one store of the process, built at first use.
    static ZebDataBlockManager& instance();

    // Lifetime and configuration

    /// Makes the store ready. Always true; what cannot be done is fatal: a second call in a row
    /// ("Setup called twice on DataBlock Manager"), or a root that can't be made ("Cannot Create
    /// cache root at %1").
    ///
    /// @param cacheRoots directories of the disk cache, made with their parents when missing; the
    ///        order decides which block lies where
    /// @param maxDataCacheSize limit of the resident bytes; -1 keeps the present one, which is 0
    ///        after cleanUp()
    /// @param numBuckets directories per root; must be positive
    /// @param compressionThreads compression workers per root; with 0 or less each writer
    /// compresses
    ///        on its own thread
    bool setup(const QStringList& cacheRoots, qint64 maxDataCacheSize = -1, int numBuckets = 10,
               int compressionThreads = 0);

    /// Drops every block and all settings of setup(); what lies on disk stays. Nothing happens when
    /// the store is not set up. Waits for Qt's global pool.
    ///
    /// @param processEvents whether the application's pending events are handled before the wait
    void cleanUp(bool processEvents = false);

    /// Whether setup() has completed and cleanUp() has not run since.
    bool isInitialized() const;

    QStringList cacheRoots() const;
    int numBuckets() const;

    /// Limit of the resident bytes.
    qint64 maxDataCacheSize() const;

    /// Sets the limit of the resident bytes. Evicts nothing; the next admission does.
    void setMaxDataCacheSize(qint64 size);

    /// The share of the memory limit that may wait for writing.
    float maxWritePendingSizeFactor() const;
    void setMaxWritePendingSizeFactor(float factor);

    /// Physical memory that eviction tries to leave free, in bytes.
    qint64 targetFreeMemorySize() const;
    void setTargetFreeMemorySize(qint64 size);

    /// A quarter of the physical memory, in bytes.
    static qint64 defaultCacheSize();
    static float defaultMaxWritePendingSizeFactor();
    qint64 defaultTargetFreeMemorySize() const;

    // Admission

    /// Adds a block of these bytes and gives its reference. Holds the delete lock when the hash is
    /// computed here, or none is.
    ///
    /// @param caching what becomes of the block
    /// @param immediate whether the digest is computed before the call returns; otherwise the
    ///        hashing pool does it, and the reference is pending. No effect with DontCache
    ZebDataReference addBlock(const QByteArray& data,
                              ZebModifyAccessor::Caching caching = ZebModifyAccessor::Cached,
                              bool immediate = false);

    /// A resolved reference on `hash`; null for null. Takes the delete lock.
    ZebDataReference getReference(ZebDataHash* hash);

    /// A new private block to write into, a copy of `data`. Makes room for it first; it counts
    /// nowhere until it is released.
    ZebModifyAccessor createNewBlock(const QByteArray& data);

    /// The same, of `size` bytes of the value `fill`. A negative size is fatal: "Negative value
    /// passed for size.".
    ZebModifyAccessor createNewBlock(qint64 size, unsigned char fill = 0);

    // Residency

    /// The size of the block in bytes, 0 when it can't be had. Takes the delete lock; may load the
    /// block, which lets that lock go meanwhile, so the caller must not hold it.
    qint64 blockSize(ZebDataHash* hash);

    /// Whether the block is in memory; true for a null hash. Asking counts as using the block.
    bool isInMemory(ZebDataHash* hash);

    /// How many resident blocks may be evicted: those with an open accessor and do-not-cache blocks
    /// are not counted.
    qint64 liveBlocks() const;

    /// The bytes of all resident blocks.
    qint64 liveBytes() const;

    /// How many hashes are interned, with or without a resident block.
    qint64 managedBlocks() const;

    /// Asks for a block ahead of need: the reader of its root fetches it in the background, and it
    /// becomes resident by itself. A resident block counts as used. Nothing happens for a null
    /// reference. A block that is missing from the disk is not reported, and stays marked as on its
    /// way. Fatal when the store has no roots: "Number of cache paths is zero". Waits for the
    /// reference's job; takes the delete lock.
    void preloadData(const ZebDataReference& reference, PreloadPriority priority = PreloadNormal);

    /// Whether asking again for a block that is on its way makes it more urgent.
    /// Kept on purpose: the value survives cleanUp() while the readers do not, so after a new
    /// setup() it has to be switched off and on again to reach them.
    void setRequestPromotionEnabled(bool enabled);
    bool requestPromotionEnabled() const;

    // Groups: a list of references that is itself a block. It names its members and does not own
    // them, so a member that nobody else refers to may lose its file. A group may stand in another
    // group's list; extraction gives the inner group and stops there.

    /// Stores the list, in its order and with its duplicates, as one block, and gives its
    /// reference, which is pending. Equal lists are one block. The members' blocks are not touched
    /// and may be on disk only. Waits for the jobs of the members, so the caller must not hold the
    /// delete lock.
    ///
    /// @param references none of them null: that is the caller's error. One without a whole digest
    ///        is fatal: "Size of data is incorrect is %1, should be %2"
    ZebDataReference makeGroupBlock(const QVector<ZebDataReference>& references);

    /// The members of a group, resolved, in the order of the list. A member that nobody refers to
    /// any more gets a new reference, and its bytes come from its file if that is still there.
    /// A block that is no group, or that can't be had, gives none and no message; a damaged group
    /// is read to its last whole digest. Fatal for a null reference, as its constAccessor() is.
    /// Waits for the group's job and may load the group, so the caller must not hold the delete
    /// lock.
    QVector<ZebDataReference> extractGroupBlock(const ZebDataReference& group);

    /// The same, appended to `references`, which is not cleared first and may hold the group.
    void extractGroupBlock(const ZebDataReference& group, QVector<ZebDataReference>& references);

    /// Inserts the text forms of the members' hashes into `hashes`, which is not cleared first.
    /// Interns no hash and keeps no member alive: the cheap way to ask what a group names.
    void extractGroupBlock(const ZebDataReference& group, QSet<QString>& hashes);

    /// Kept on purpose: does nothing, since no cache of groups exists.
    void clearGroupCache();

    // Memory

    /// Evicts until 512 MiB would fit under 90 percent of the memory limit and under the target of
    /// free memory. Returns whether a block left memory.
    ///
    /// @param force whether the next admission measures the free memory afresh
    bool flushMemory(bool force);

    /// A host's last resort: drops every block that may be evicted, and queues nothing for writing.
    /// Returns whether a block left memory. The writers must have drained (flush()): a block with a
    /// write in flight would be deleted under its writer.
    bool helpMeOut();

    /// Takes every block out of memory, do-not-cache blocks too, whose bytes are gone with that.
    /// No accessor may be open. Waits for the disk threads before and after; the caller must not
    /// hold the delete lock.
    void freeAllBlocks();

    /// The host's brake: sleeps, a second at a time, while the writers' queues hold as many bytes
    /// as may wait for writing. Admission never waits, so a host that adds faster than its disk
    /// takes calls this. Takes no lock of the manager.
    void processIO();

    // Waiting for the disk threads; the caller must not hold the delete lock

    /// Waits until the queues of the disk threads are empty, for blocks admitted before the call.
    /// Does not return while a disk keeps failing.
    ///
    /// @param writeUnwritten whether resident blocks without a file are queued and waited for, too
    /// @param threads which kinds of threads are waited for; collectors never are
    void flush(bool writeUnwritten = false, ThreadType threads = AllThreads);

    /// Waits until every writer has passed a fence behind the writes of this hash.
    void flushWrite(const ZebSmartPointer<ZebDataHash>& hash);

    /// Whether the reference's block is resident with a write in flight. Waits for its job.
    bool isBlockBeingWritten(const ZebDataReference& reference);

    /// Whether the writers' queues hold as many bytes as may wait for writing. Takes no lock of the
    /// manager.
    bool isWriteThreadsFull();

    /// How many writers there are: one for each root.
    int getWriteThreadCount() const;

    // What a writer tells about a block; each takes the delete lock

    /// Whether the end of this block waits for its write.
    bool needsFreeingAfterWriting(ZebDataBlock* block);

    /// The block is about to be deleted by the request that wrote it.
    void flagFreeingBlockFinishedAfterWriting(ZebDataBlock* block);

    /// The block has no write in flight any more.
    void flagWritingBlockFinished(ZebDataBlock* block);

    // Disk

    /// The path of a block's file under the sub-cache of that name, whatever the current one is.
    QString getBlockDestination(const QString& subCache, const QString& hashText);

    /// Switches the whole store to another sub-cache, one path element below each root, and the log
    /// with it, which follows under the first root. No file moves, so a block whose file lies under
    /// the old name cannot be loaded until that name is set back.
    ///
    /// The name that is set already changes nothing, and is told on standard output: "Subcache Set
    /// to %1 twice". Nothing at all happens while the garbage collection is on. A new name needs
    /// the store set up. Waits for the disk threads, so the caller must not hold the delete lock;
    /// takes that lock afterwards.
    void setSubCache(const QString& name);

    /// The current sub-cache, empty after setup(). Takes the delete lock.
    QString subCache() const;

    /// Whether a sub-cache of that name is on disk. Takes no lock.
    /// Kept on purpose: only the first root is looked at.
    bool subCacheExists(const QString& name) const;

    // Garbage collection: each root has a collector, which removes the files of contents that
    // nobody refers to, in the current sub-cache alone, and adds up the sizes of the others. A
    // store without a sub-cache is never collected, and counts as 0 bytes on disk.

    /// What a host implements to be told how far collectGarbage() has come. The host owns it. It is
    /// called on the thread of collectGarbage(), with no lock held but in the middle of a pass: it
    /// must not switch the collection, nor wait for a thread that does or for the delete lock.
    class ZEBTDX_EXPORT ProgressReporter
    {
    public:
        virtual ~ProgressReporter();

        /// Once, before the first root, with the number of directories to be expected.
        virtual void start(const QString& title, int total) = 0;

        /// Once, after the last root.
        virtual void finish() = 0;

        /// Once for each directory visited, with their number so far, over all roots, and an empty
        /// text. The number goes past the total, so a progress bar must clip it.
        virtual void update(int value, const QString& text) = 0;
    };

    /// Switches the collection on: passes may begin, and the sub-cache can't be changed. When the
    /// environment variable ZEBA_TDX_GARBAGE_COLLECTION_DISABLED exists, whatever its value, only
    /// tells "[TDX] Start garbage collection blocked by env". Takes the delete lock.
    void startGarbageCollection();

    /// Switches the collection off, unless it is; no pass is running on return. Drops the preloads
    /// that wait, whose hashes stay marked as on their way. When the environment variable exists,
    /// only tells "[TDX] Stop garbage collection blocked by env". Takes the delete lock and waits
    /// with it held; the caller must not hold it.
    void stopGarbageCollection();

    /// Makes a pass over all roots on this thread, if a pass is due: see
    /// ZebGarbageCollectorThread::collect(). The sizes found are not reported. The caller must not
    /// hold the delete lock.
    ///
    /// @param reporter null for none; otherwise started and finished also when no pass is due
    void collectGarbage(ProgressReporter* reporter);

    /// Whether the collection is switched on. Takes no lock.
    bool garbageCollecting() const;

    /// The beginning of a pass: false when it must not begin, as the collection is off. Otherwise
    /// garbageCollectingThreadFinished() must follow, with no wait for the delete lock in between.
    bool garbageCollectingThreadStarted();

    /// The end of a pass.
    void garbageCollectingThreadFinished();

    /// The size of the disk cache in bytes: whole files of live contents under the current
    /// sub-cache, as the collectors reported last. 0 without reports.
    qint64 currentCacheSizeInBytes() const;

    // Diagnostics, in every state of the store unless said otherwise

    /// Writes the figures of the store, of the hash registry and of the disk threads as debug
    /// lines; sizes in MiB, rounded toward zero. Takes the delete lock throughout, so the figures
    /// agree with each other; only those of the threads are read as they stand.
    void dumpStats();

    /// Writes how many requests wait for each disk thread as debug lines: all readers, then all
    /// writers. Takes no lock of the manager.
    void dumpThreadStats();

    /// Appends a reference for every interned hash, resident or not, do-not-cache ones too; the
    /// list is not cleared first. None of these hashes can end while the list lives. Needs the
    /// store set up; takes the delete lock.
    void snapshot(QList<ZebDataReference>& references) const;

    /// Writes the hashes that are left in the registry as debug lines; nothing when there are none.
    /// For a quiet system at its shut-down: takes no lock.
    void validateState();

public Q_SLOTS:
    /// Whether eviction has left nothing unlocked in memory. Takes no lock.
    bool allFreeBlocksFlushed();

    /// Sets the flag, and tells about a change. Takes no lock.
    void setAllFreeBlocksFlushed(bool flushed);

Q_SIGNALS:
    /// The flag has changed to the value given.
    void allFreeBlocksFlushedChanged(bool flushed);

    /// A block file could not be written; the write is tried again.
    void writeError(QString message);

    /// The size of the disk cache in bytes has changed. Emitted by the collectors' threads with the
    /// mutex of the sizes held, and with 0 by cleanUp() under the delete lock. A slot that is
    /// connected directly must not wait for another thread, nor for the delete lock.
    void cacheSizeUpdate(qint64 Size);

protected:
    friend class ZebConstAccessor;
    friend class ZebDataBlockReadThread;
    friend class ZebDataDeleteLocker;
    friend class ZebDataHash;
    friend class ZebDataReference;
    friend class ZebGarbageCollectorThread;
    friend class ZebHashingJob;
    friend class ZebModifyAccessor;

    ZebDataBlockManager();

    /// addBlock() for a block that exists already. Takes its ownership in every case, and deletes
    /// it when its content is resident. A null block gives a null reference.
    ZebDataReference addBlock(ZebDataBlock* block, ZebModifyAccessor::Caching caching,
                              bool immediate);

    /// Makes `block`, whose hash is `hash`, resident, and takes its ownership. When the hash has a
    /// block already, that one stays and `block` is deleted. Fatal: a null block ("Null Value
    /// Passed For *Me"), a null hash ("Null Value Passed For *Ptr"), and a block that is larger
    /// than the limit ("Requested Block is larger than the maximum allocation size %1 / %2").
    /// Takes the delete lock.
    void makeBlockLive(ZebDataHash* hash, ZebDataBlock* block);

    /// The resident block of `hash`, or null. The caller holds the delete lock, once; the block
    /// stays while that is held or an accessor locks it.
    ZebDataBlock* getDataBlock(ZebDataHash* hash);

    /// Takes a block out of the evictable ones: its first accessor has come. Fatal when it is not
    /// among them: "Hash %1 is Not Contained in the LRU". Takes the delete lock, unless the hash
    /// is do-not-cache: nothing happens then.
    void lockBlock(ZebDataHash* hash);

    /// Puts a block back among the evictable ones, as the newest: its last accessor has gone. Fatal
    /// when it is there: "Lock Block %1 already contained in LRU". Takes the delete lock, unless
    /// the hash is do-not-cache: nothing happens then.
    void unlockBlock(ZebDataHash* hash);

    /// Makes an evictable block the newest. Takes the delete lock, unless the hash is do-not-cache:
    /// nothing happens then.
    void blockUsed(ZebDataHash* hash);

    /// Whether the hash is not among the evictable ones, which also holds for a do-not-cache hash
    /// and for one that is not resident. Takes the delete lock.
    bool blockIsLocked(ZebDataHash* hash);

    /// Takes the block of `hash` out of memory and deletes it; nothing when it is not resident or
    /// the store is not set up. Takes the delete lock.
    ///
    /// @param hash not null
    /// @param write whether a block without a file is written before it goes
    /// @param hashLocked whether the caller holds the hash by ZebDataHash::tryLock(); it is given
    ///        back on the way
    void freeBlock(ZebDataHash* hash, bool write, bool hashLocked);

    /// The report of a collector: its root holds `size` bytes of live files. Emits
    /// cacheSizeUpdate() with the sum over all roots.
    void cacheSizeRecord(ZebGarbageCollectorThread* thread, qint64 size);

private:
    Q_DISABLE_COPY(ZebDataBlockManager)

    void lockDeletes();
    void unlockDeletes();

    /// Ends the process when the store is not set up.
    void requireInitialized() const;

    void calcMaxWritePendingDataCacheSize();

    /// Makes room for `size` more bytes, as far as the limit of resident bytes and the target of
    /// free physical memory ask for it, from the oldest evictable block on. Returns whether a block
    /// left memory. Takes the delete lock unless a look at the figures shows that there is room.
    ///
    /// @param write whether a block without a file is written before it goes, free memory may be
    ///        measured, and the host's flag is kept up to date
    bool managePhysicalMemoryUse(quint64 size, bool write);

    /// The eviction of managePhysicalMemoryUse(), with the delete lock held. Returns how many
    /// blocks left memory.
    int evict(quint64 size, quint64 free, bool write);

    /// Hands a block that eviction has taken out of the tables to its writer, or leaves it to the
    /// write in flight. Returns false when the caller can simply delete it. The caller holds the
    /// delete lock by `locker`, which this may unlock.
    bool handOffToWriter(ZebDataHash* hash, ZebDataBlock* block, ZebTdxMutexLocker& locker);

    /// Has the reader of the root `index` load the block, with the delete lock let go by one level
    /// meanwhile. The block is the caller's; null when it can't be had.
    ZebDataBlock* loadWithDeletesOpen(const ZebSmartPointer<ZebDataHash>& hash, int index);

    /// The disk threads of the root `index`, which belongs to `hash`. Fatal when they have ended
    /// already, with the words of cacheIndex(): the store is being cleaned up.
    ZebDataBlockReadThread* readerOf(int index, const ZebDataHash* hash) const;
    ZebDataBlockWriteThread* writerOf(int index, const ZebDataHash* hash) const;

    /// Queues the write of a block, the only place where that happens. Does nothing and returns
    /// false for a block that has a file or a write in flight, and for one whose hash is ending.
    /// The caller holds the delete lock by `locker`.
    ///
    /// @param deleteBlock whether the block is out of the tables and goes with its request;
    /// `locker`
    ///        is then unlocked before the block enters the queue
    bool queueWrite(ZebDataHash* hash, ZebDataBlock* block, bool deleteBlock,
                    ZebTdxMutexLocker& locker);

    /// The bytes that wait in the queues of all writers.
    qint64 bytesInWriteQueues() const;

    /// Makes the disk threads of a root and starts them.
    void startIoThreads(const QString& root, int compressionThreads);

    /// A writer of the form that setup() asks for, not started.
    ZebDataBlockWriteThread* makeWriter(const QString& root, int compressionThreads);

    /// Ends the disk threads in order: collectors, readers, writers. The caller must not hold the
    /// delete lock.
    void stopAllIoThreads();

    /// The index of the cache root of a hash text. Fatal, in this order: no roots ("Number of cache
    /// paths is zero"), less than 4 characters ("Hash String is too Short %1"), a store that is not
    /// set up, and a text that leads nowhere ("Cannot find suitable cache reading thread %1 for
    /// %2").
    int cacheIndex(const QString& hashText);

    /// The same for a hash, from its first word and without its text; -1 for a null hash. Fatal
    /// first of all when the store is not set up.
    int cacheIndex(const ZebDataHash* hash);

    /// Ends the process: the root `index` of a hash has no disk threads.
    [[noreturn]] static void fatalNoThread(int index, const QString& hashText);

    /// How many bytes lie behind accessor.data(); 0 for a null accessor. A block may say another
    /// size than it holds.
    static qint64 storedBytes(const ZebConstAccessor& accessor);

    /// The middle of cleanUp(): deletes every block with no write, empties the tables, and leaves
    /// the state of being set up. Takes the delete lock.
    void dropAllBlocks();

    /// The second half of setup(): makes the root when it is missing, or ends the process.
    static void requireCacheRoot(const QString& root);

    /// What both forms of addBlock() do with a block and its hash. The caller holds the delete
    /// lock.
    ZebDataReference admit(const ZebSmartPointer<ZebDataHash>& hash, ZebDataBlock* block);

    // Fields marked (a) are written under the delete lock or by the controlling thread, and read
    // by others with no lock: relaxed atomics, whose values need no order between them.

    // Every resident block, by its interned hash; the blocks are owned. Guarded by the delete lock.
    QHash<ZebDataHash*, ZebDataBlock*> m_HashToBlockMap;

    // The resident blocks that may be evicted. Changed under the delete lock and its own.
    ZebDataBlockLru m_Lru;

    // Index i here and in the vectors of threads means the same root. Set by the controlling
    // thread.
    QStringList m_CacheRoots;

    std::atomic<qint64> m_MaxDataCacheSize;             // (a)
    std::atomic<qint64> m_MaxWritePendingDataCacheSize; // (a) bytes queued to the writers
    std::atomic<float> m_MaxWritePendingSizeFactor;     // (a)
    std::atomic<qint64> m_TargetFreeMemorySize;         // (a)
    std::atomic<qint64> m_BlocksFreedCount;             // (a) one step for each block freed
    std::atomic<qint64> m_LiveBytes;                    // (a) sizes of m_HashToBlockMap
    std::atomic<int> m_NumBuckets;                      // (a)

    // Guards the two fields behind m_GarbageCollectionDone, and m_GarbageCollectionChanges. Outside
    // the lock order: nothing else is taken inside it.
    QMutex m_GarbageCollectionMutex;
    QWaitCondition m_GarbageCollectionDone; // the last pass has ended with the collection off
    std::atomic<bool> m_GarbageCollecting;  // read by others with no lock
    int m_GarbageCollectorsRunning;         // passes inside their bracket

    // The name that every disk thread has a copy of. Guarded by the delete lock.
    QString m_SubCache;
    std::atomic<bool> m_Initialized;             // (a)
    std::atomic<bool> m_RequestPromotionEnabled; // (a)

    QVector<ZebDataBlockReadThread*> m_ReadThreads;
    QVector<ZebDataBlockWriteThread*> m_WriteThreads;
    QVector<ZebGarbageCollectorThread*> m_GarbageCollectors;

    // The cache size that each collector reported last. Guarded by m_CacheSizeMutex.
    QMap<ZebGarbageCollectorThread*, qint64> m_CacheSizeRecords;

    // The delete lock, level 1, recursive: guards the tables of blocks and all changes of the LRU,
    // and holds off every deletion of a block.
    mutable ZebTdxMutex m_DeleteMutex;

    // Guards m_CacheSizeRecords. Recursive, since the signal is emitted with it held and a slot may
    // ask for the size. Taken inside the delete lock, never the other way round.
    mutable QMutex m_CacheSizeMutex;

    // Kept on purpose: no operation takes it.
    QReadWriteLock m_StateLock;

    std::atomic<bool> m_AllFreeBlocksFlushed; // (a)

    // Blocks with a write in flight, and among them those that eviction has taken out of the
    // tables, whose end waits for the write. Guarded by the delete lock.
    QSet<ZebDataBlock*> m_BlocksBeingWritten;
    QSet<ZebDataBlock*> m_BlocksToFreeAfterWriting;

    // Kept on purpose: one step for each switch of the collection, and nothing reads it.
    int m_GarbageCollectionChanges;
};
