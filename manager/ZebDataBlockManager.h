#pragma once

#include "data/ZebModifyAccessor.h"
#include "hash/ZebSmartPointer.h"
#include "manager/ZebDataBlockLru.h"
#include "support/ZebTdxExport.h"
#include "support/ZebTdxMutex.h"
#include "support/ZebThreadSafety.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QWaitCondition>

#include <atomic>
#include <optional>

class ZebClosedGate;
class ZebConstAccessor;
class ZebDataBlock;
class ZebDataBlockReadThread;
class ZebDataBlockWriteThread;
class ZebDataHash;
class ZebDataReference;
class ZebGarbageCollectorThread;

/// The store: it admits blocks, owns every resident block, and finds the file of each block. A host
/// sets it up once, adds data from any thread, and cleans it up at the end.
///
/// Contract:
///  - An operation that needs the store set up ends the process when it is not: "Data Block Manager
///    Not Initialized. Aborting". Only cleanUp() and freeing a block then return silently.
///  - One controlling thread calls setup(), cleanUp() and the setters, with no other operation in
///    progress.
///  - References may outlive cleanUp(): they own hashes, never blocks. Accessors may not.
///  - A store without cache roots accepts uncached blocks only (ZebModifyAccessor::DontCache).
///
/// Thread safety: after setup(), any thread may call every other public operation.
///
/// Locks, three levels, outermost first: the delete lock; the mutex of the hash registry, then that
/// of a hash; the locks of a disk thread. A thread takes only locks further down than those it
/// holds; a recursive lock may be taken again. docs/LOCKING.md has the rest. Reading a resident
/// block takes none of them: docs/CONCURRENCY.md.
class ZEBTDX_EXPORT ZebDataBlockManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool allFreeBlocksFlushed READ allFreeBlocksFlushed)

public:
    /// The urgency of a request; a lower number is more urgent.
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

    /// Disables the log and cleans up.
    ~ZebDataBlockManager() override;

    /// The only store, built at first use and never destroyed. At process exit it waits for the
    /// tasks of the pools, disables the log and cleans up, unless a parent process has set it up.
    static ZebDataBlockManager& instance();

    // Lifetime and configuration

    /// Creates missing roots and starts the disk threads of each root. Always returns true; errors
    /// are fatal: a second call without a cleanUp() ("Setup called twice on DataBlock Manager"), or
    /// a root that cannot be created ("Cannot Create cache root at %1").
    ///
    /// @param cacheRoots directories of the disk cache. Their number and order decide where each
    ///        block lies, so always open a cache with the same roots in the same order
    /// @param maxDataCacheSize limit of the resident bytes; -1 keeps the current limit, which is 0
    ///        after cleanUp()
    /// @param numBuckets directories per root; must be positive
    /// @param compressionThreads compression workers per root; with 0 or less, each writer
    ///        compresses on its own thread
    bool setup(const QStringList& cacheRoots, qint64 maxDataCacheSize = -1, int numBuckets = 10,
               int compressionThreads = 0);

    /// Ends the disk threads, deletes every resident block and resets roots, buckets, sub-cache and
    /// the limit of resident bytes, to 0; files stay. Does nothing when the store is not set up, or
    /// is that of a parent process. Waits for the disk threads and for Qt's global pool, so the
    /// caller must not hold the delete lock.
    ///
    /// @param processEvents whether to process the application's pending events before the last
    ///        wait
    void cleanUp(bool processEvents = false) ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Whether setup() has completed and cleanUp() has not run since.
    bool isInitialized() const;

    QStringList cacheRoots() const;
    int numBuckets() const;

    /// Limit of the resident bytes.
    qint64 maxDataCacheSize() const;

    /// Sets the limit of the resident bytes. Evicts nothing; the next admission does.
    void setMaxDataCacheSize(qint64 size);

    /// The share of the limit of resident bytes that may wait in the writers' queues.
    float maxWritePendingSizeFactor() const;
    void setMaxWritePendingSizeFactor(float factor);

    /// Physical memory in bytes that eviction tries to keep free.
    qint64 targetFreeMemorySize() const;
    void setTargetFreeMemorySize(qint64 size);

    /// A quarter of the physical memory, in bytes.
    static qint64 defaultCacheSize();
    static float defaultMaxWritePendingSizeFactor();
    qint64 defaultTargetFreeMemorySize() const;

    // Admission

    /// Adds a block with these bytes and returns its reference. With DontCache or `immediate` it
    /// holds the delete lock throughout.
    ///
    /// @param immediate whether to compute the digest before the call returns; otherwise the
    ///        hashing pool computes it and the reference is pending. No effect with DontCache
    ZebDataReference addBlock(const QByteArray& data,
                              ZebModifyAccessor::Caching caching = ZebModifyAccessor::Cached,
                              bool immediate = false);

    /// Returns a resolved reference to `hash`; null for null. Takes the delete lock.
    ZebDataReference getReference(ZebDataHash* hash);

    /// Makes a private, writable block with a copy of `data`, and evicts to make room for it. The
    /// block does not count as resident until its accessor releases it.
    ZebModifyAccessor createNewBlock(const QByteArray& data);

    /// The same, for `size` bytes of the value `fill`. A negative size is fatal: "Negative value
    /// passed for size.".
    ZebModifyAccessor createNewBlock(qint64 size, unsigned char fill = 0);

    // Residency

    /// The size of the block in bytes, 0 when it cannot be loaded. Takes the delete lock and
    /// releases it during a load, so the caller must not hold it.
    qint64 blockSize(ZebDataHash* hash) ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Whether the block is resident; true for a null hash. Counts as a use of the block.
    bool isInMemory(ZebDataHash* hash);

    /// How many resident blocks eviction may pick: neither pinned nor uncached ones.
    qint64 liveBlocks() const;

    /// The bytes of all resident blocks.
    qint64 liveBytes() const;

    /// How many hashes are interned, with or without a resident block.
    qint64 managedBlocks() const;

    /// Requests a block ahead of need: the reader of its root loads it in the background. Counts as
    /// a use of a resident block; does nothing for a null reference. A missing file is not
    /// reported, and its hash stays marked as preloading. Fatal when the store has no roots:
    /// "Number of cache paths is zero". Waits for the reference's job, then takes the delete lock.
    void preloadData(const ZebDataReference& reference, PreloadPriority priority = PreloadNormal);

    /// Whether a repeated request makes a preload more urgent.
    /// Kept on purpose: cleanUp() ends the readers but keeps the value, so after a new setup() a
    /// host must disable and enable it again to reach the new readers.
    void setRequestPromotionEnabled(bool enabled);
    bool requestPromotionEnabled() const;

    // Groups: a list of references, stored as a block. A group names its members and does not own
    // them: a member that no reference holds may lose its file. A group may be a member of another
    // group; extraction does not descend into it.

    /// Stores the list as one block, with its order and its duplicates, and returns a pending
    /// reference. Equal lists become one block. The members need not be resident. Waits for the
    /// members' jobs, so the caller must not hold the delete lock.
    ///
    /// @param references none may be null, which is not checked. A member without a whole digest is
    ///        fatal: "Size of data is incorrect is %1, should be %2"
    ZebDataReference makeGroupBlock(const QVector<ZebDataReference>& references);

    /// Returns resolved references to the members of a group, in the order of the list. The bytes
    /// of a member that no reference held come from its file, if that still exists. Returns none,
    /// without a message, for a block that is no group or cannot be loaded; reads a damaged group
    /// to its last whole digest. Fatal for a null reference, like its constAccessor(). Waits for
    /// the group's job and may load the group, so the caller must not hold the delete lock.
    QVector<ZebDataReference> extractGroupBlock(const ZebDataReference& group);

    /// The same, appended to `references`, which may contain the group itself.
    void extractGroupBlock(const ZebDataReference& group, QVector<ZebDataReference>& references);

    /// Inserts the text forms of the members' hashes into `hashes`. Interns no hash and keeps no
    /// member alive, so this is the cheap way to list a group.
    void extractGroupBlock(const ZebDataReference& group, QSet<QString>& hashes);

    /// Kept on purpose: does nothing, since no cache of groups exists; a host may still call it.
    void clearGroupCache();

    // Memory

    /// Evicts until 512 MiB more fit under 90 percent of the limit of resident bytes and under the
    /// target of free memory. Returns whether it evicted a block. Takes the delete lock.
    ///
    /// @param force whether to measure the free memory afresh at the next admission
    bool flushMemory(bool force);

    /// The host's last resort: evicts every block it can, and writes none. Returns whether it
    /// evicted a block. Takes the delete lock. Call flush() first: a block with a write in flight
    /// would be deleted under its writer.
    bool helpMeOut();

    /// Evicts every block. Uncached blocks are lost with that. No accessor may be open. Waits for
    /// the disk threads before and after, so the caller must not hold the delete lock.
    void freeAllBlocks() ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// The host's brake: sleeps, a second at a time, while isWriteThreadsFull(). Admission itself
    /// never waits for the disk. Takes no lock of the manager.
    void processIO();

    // Waiting for the disk threads: the caller must not hold the delete lock

    /// Waits until the queues of the disk threads have drained, for blocks admitted before the
    /// call. Does not return while a disk keeps failing.
    ///
    /// @param writeUnwritten whether to queue, after a first wait, each cached resident block that
    ///        has neither a file nor a write in flight, and to wait for those, too
    /// @param threads which kinds of threads to wait for; collectors are never waited for
    void flush(bool writeUnwritten = false, ThreadType threads = AllThreads)
        ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Waits until every writer has passed a fence after the writes of this hash.
    void flushWrite(const ZebSmartPointer<ZebDataHash>& hash) ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Whether the reference's block is resident with a write in flight. Waits for its job.
    bool isBlockBeingWritten(const ZebDataReference& reference) ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Whether the writers' queues contain as many bytes as may wait for writing. Takes no lock of
    /// the manager.
    bool isWriteThreadsFull();

    /// The number of writers, one for each root.
    int getWriteThreadCount() const;

    // Reports of a writer about a block; each takes the delete lock

    /// Whether the block must be deleted at the end of its write.
    bool needsFreeingAfterWriting(ZebDataBlock* block);

    /// The request that wrote the block is about to delete it.
    void flagFreeingBlockFinishedAfterWriting(ZebDataBlock* block);

    /// The block has no write in flight any more.
    void flagWritingBlockFinished(ZebDataBlock* block);

    // Disk

    /// The path of a block's file in the sub-cache of that name.
    QString getBlockDestination(const QString& subCache, const QString& hashText);

    /// Switches the store to another sub-cache, one path element below each root, and the log to
    /// the same place below the first root. No block file moves: a block whose file lies in the old
    /// sub-cache cannot be loaded until the name is set back.
    ///
    /// Setting the current name again only prints "Subcache Set to %1 twice" to standard output.
    /// Does nothing while the collection is enabled. A new name needs the store set up. Waits for
    /// the disk threads, then takes the delete lock; the caller must not hold it.
    void setSubCache(const QString& name) ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// The current sub-cache, empty after setup(). Takes the delete lock.
    QString subCache() const;

    /// Whether a sub-cache of that name exists on disk. Takes no lock.
    /// Kept on purpose: looks below the first root only, so it misses what the others contain.
    bool subCacheExists(const QString& name) const;

    // Garbage collection: the collector of each root removes orphaned files from the current
    // sub-cache and sums up the sizes of the others. A store without a sub-cache is never
    // collected, and its cache size is 0.

    /// Implemented and owned by a host, to follow collectGarbage(). Called on that thread, with no
    /// lock held. Since update() runs inside a pass, it must not start or stop the collection, nor
    /// wait for the delete lock or for a thread that stops the collection.
    class ZEBTDX_EXPORT ProgressReporter
    {
    public:
        virtual ~ProgressReporter();

        /// Once, before the first root. `total` is the expected number of directories.
        virtual void start(const QString& title, int total) = 0;

        /// Once, after the last root.
        virtual void finish() = 0;

        /// Once for each directory visited. `value` is their number so far, over all roots; it can
        /// exceed the total, so a progress bar must clip it. `text` is empty.
        virtual void update(int value, const QString& text) = 0;
    };

    /// Enables the collection: passes may begin, and the sub-cache cannot change. Only logs "[TDX]
    /// Start garbage collection blocked by env" when the environment variable
    /// ZEBA_TDX_GARBAGE_COLLECTION_DISABLED exists, whatever its value. Takes the delete lock.
    void startGarbageCollection();

    /// Disables the collection, if it is enabled; no pass is running on return. Drops the waiting
    /// preloads, whose hashes stay marked as preloading. Only logs "[TDX] Stop garbage collection
    /// blocked by env" when the environment variable exists. Waits with the delete lock held; the
    /// caller must not hold it.
    void stopGarbageCollection() ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Makes a pass over each root on this thread, if one is due: see
    /// ZebGarbageCollectorThread::collect(). Does not report the sizes found. The caller must not
    /// hold the delete lock.
    ///
    /// @param reporter may be null; is started and finished even when no pass is due
    void collectGarbage(ProgressReporter* reporter) ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// Whether the collection is enabled. Takes no lock.
    bool garbageCollecting() const;

    /// Begins a pass; false when the collection is disabled. Otherwise
    /// garbageCollectingThreadFinished() must follow, with no wait for the delete lock in between.
    bool garbageCollectingThreadStarted();

    /// Ends a pass.
    void garbageCollectingThreadFinished();

    /// The size of the disk cache in bytes: the files of live blocks in the current sub-cache, as
    /// last reported by the collectors. 0 without reports.
    qint64 currentCacheSizeInBytes() const;

    // Diagnostics, in every state of the store unless stated otherwise

    /// Logs the figures of the store, of the hash registry and of the disk threads as debug lines;
    /// sizes are in MiB, rounded toward zero. Takes the delete lock throughout, so all figures but
    /// those of the threads agree with each other.
    void dumpStats();

    /// Logs how many requests wait for each disk thread as debug lines: all readers, then all
    /// writers. Takes no lock of the manager.
    void dumpThreadStats();

    /// Appends a reference for every interned hash, resident or not, uncached or not. No such hash
    /// ends while the list exists. Needs the store set up; takes the delete lock.
    void snapshot(QList<ZebDataReference>& references) const;

    /// Logs the hashes left in the registry as debug lines. For a quiet system at shutdown: takes
    /// no lock.
    void validateState();

public Q_SLOTS:
    /// Set when an eviction with writing leaves no evictable block; cleared when an accessor ends,
    /// or when there are more than 16 evictable blocks. Takes no lock.
    bool allFreeBlocksFlushed();

    /// Sets the flag and signals a change. Takes no lock.
    void setAllFreeBlocksFlushed(bool flushed);

Q_SIGNALS:
    /// The flag has changed to this value. Emitted with the delete lock held by an admission, an
    /// eviction or the end of an accessor. A directly connected slot that flushes hangs, since the
    /// writers need the delete lock: use a queued connection.
    void allFreeBlocksFlushedChanged(bool flushed);

    /// A writer could not write a block file; it will retry. Queued from the writer to the thread
    /// that owns the manager (the first caller of instance()), which needs an event loop. No lock
    /// is held.
    void writeError(QString message);

    /// The size of the disk cache in bytes has changed. Emitted on the collectors' threads with the
    /// mutex of the sizes held, and with 0 by cleanUp() with the delete lock held. A directly
    /// connected slot must not wait for another thread, nor for the delete lock.
    void cacheSizeUpdate(qint64 Size);

protected:
    friend class ZebConstAccessor;
    friend class ZebDataBlockReadThread;
    friend class ZebDataDeleteLocker;
    friend class ZebDataHash;
    friend class ZebDataReference;
    friend class ZebDeleteMutexLocker;
    friend class ZebGarbageCollectorThread;
    friend class ZebHashingJob;
    friend class ZebModifyAccessor;

    ZebDataBlockManager();

    /// addBlock() for an existing block. Always takes ownership, and deletes the block when an
    /// equal one is resident. A null block gives a null reference.
    ZebDataReference addBlock(ZebDataBlock* block, ZebModifyAccessor::Caching caching,
                              bool immediate);

    /// Makes `block` resident under `hash` and takes its ownership. A block that the hash already
    /// has stays, and `block` is deleted. Fatal: a null block ("Null Value Passed For *Me"), a null
    /// hash ("Null Value Passed For *Ptr"), and a block larger than the limit of resident bytes
    /// ("Requested Block is larger than the maximum allocation size %1 / %2"). Takes the delete
    /// lock.
    void makeBlockLive(ZebDataHash* hash, ZebDataBlock* block);

    /// The block of `hash`, loaded if it is not resident; null when it cannot be loaded. The caller
    /// holds the delete lock exactly once; a load releases it. The block stays while the caller
    /// holds that lock or an accessor pins it.
    ZebDataBlock* getDataBlock(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Pins a block for its first accessor: takes it off the LRU. Fatal when it is not listed
    /// there: "Hash %1 is Not Contained in the LRU". Takes the delete lock. Does nothing for an
    /// uncached block.
    void lockBlock(ZebDataHash* hash);

    /// Unpins a block after its last accessor: adds it to the LRU as the newest. Fatal when it is
    /// listed: "Lock Block %1 already contained in LRU". Takes the delete lock. Does nothing for an
    /// uncached block.
    void unlockBlock(ZebDataHash* hash);

    /// Makes a block the newest of the LRU, if it is listed. Takes the delete lock. Does nothing
    /// for an uncached block.
    void blockUsed(ZebDataHash* hash);

    /// Whether the block is not on the LRU: pinned, uncached or not resident. Takes the delete
    /// lock.
    bool blockIsLocked(ZebDataHash* hash);

    /// Evicts the block of `hash`, which is not null. Does nothing when the block is not resident
    /// or the store is not set up. Takes the delete lock.
    ///
    /// @param write whether to write a block without a file first
    /// @param hashLocked whether the caller holds the hash by ZebDataHash::tryLock(); unlocks it
    void freeBlock(ZebDataHash* hash, bool write, bool hashLocked);

    /// The report of a collector: its root contains `size` bytes of live files. Emits
    /// cacheSizeUpdate() with the sum over all roots.
    void cacheSizeRecord(ZebGarbageCollectorThread* thread, qint64 size);

private:
    Q_DISABLE_COPY(ZebDataBlockManager)

    /// The delete lock, by the name that the thread-safety analysis has for it.
    ZebTdxMutex& deleteMutex() const ZEBTDX_RETURN_CAPABILITY(ZebDeleteLock)
    {
        return m_DeleteMutex;
    }
    // For hosts: no reader opens or closes an accessor meanwhile.
    void lockDeletes() ZEBTDX_ACQUIRE(ZebDeleteLock);
    void unlockDeletes() ZEBTDX_RELEASE(ZebDeleteLock);
    // What accessors do when a hash cannot do it without a lock; pinAgain() also adds the reference
    // of a copied accessor. A block that its hash does not know counts its accessors itself.
    void pin(ZebDataHash* hash, ZebDataBlock* block);
    void pinAgain(ZebDataHash* hash, ZebDataBlock* block);
    void unpin(ZebDataHash* hash, ZebDataBlock* block);
    static int accessorsOf(const ZebDataHash* hash, const ZebDataBlock* block);
    void drainUses(); // drains the LRU and relaxes the gate unless another thread holds the lock
    void clearFlushedFlag() ZEBTDX_REQUIRES(ZebDeleteLock); // throws nothing
    // setAllFreeBlocksFlushed() with no reader inside the gate
    void changeAllFreeBlocksFlushed(bool flushed) ZEBTDX_REQUIRES(ZebDeleteLock);
    void requireInitialized() const;
    void endWithProcess();
    void calcMaxWritePendingDataCacheSize();

    /// Evicts the least recently used blocks until `size` more bytes fit the limit of resident
    /// bytes and the target of free memory. Returns whether it evicted a block. Takes the delete
    /// lock, unless there clearly is room. With `write` it writes blocks without a file first,
    /// measures free memory, and updates the host's flag.
    bool managePhysicalMemoryUse(quint64 size, bool write);
    // Returns the number of evicted blocks. A gate that it must close stays closed.
    int evict(quint64 size, quint64 free, bool write, std::optional<ZebClosedGate>* gate)
        ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Hands a block to its writer, or leaves it to the write in flight. Returns false when the
    /// caller must delete it. The caller removes the block from the tables before it releases the
    /// delete lock. When this throws, nothing has changed.
    bool handOffToWriter(ZebDataHash* hash, ZebDataBlock* block) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Loads the block through the reader of the root `index`, with the delete lock released by one
    /// level meanwhile. The caller owns the block; null when it cannot be loaded.
    ZebDataBlock* loadWithDeletesOpen(const ZebSmartPointer<ZebDataHash>& hash, int index)
        ZEBTDX_REQUIRES(ZebDeleteLock);

    /// The disk threads of the root `index`, which belongs to `hash`. Fatal like cacheIndex() when
    /// cleanUp() has already ended them.
    ZebDataBlockReadThread* readerOf(int index, const ZebDataHash* hash) const;
    ZebDataBlockWriteThread* writerOf(int index, const ZebDataHash* hash) const;

    /// Queues the write of a block; nothing else does. Returns false and does nothing for a block
    /// with a file or a write in flight, and for a block whose hash is ending. When this throws,
    /// nothing has changed. With `deleteBlock` the request takes ownership of the block, which the
    /// caller removes from the tables before it releases the delete lock.
    bool queueWrite(ZebDataHash* hash, ZebDataBlock* block, bool deleteBlock)
        ZEBTDX_REQUIRES(ZebDeleteLock);

    qint64 bytesInWriteQueues() const;
    void startIoThreads(const QString& root, int compressionThreads);
    ZebDataBlockWriteThread* makeWriter(const QString& root, int compressionThreads);

    /// Ends collectors, readers, writers, in this order.
    void stopAllIoThreads() ZEBTDX_EXCLUDES(ZebDeleteLock);

    /// The index of the cache root for a hash's text form. Fatal, in this order: no roots ("Number
    /// of cache paths is zero"), less than 4 characters ("Hash String is too Short %1"), a store
    /// that is not set up, a text that leads to no root ("Cannot find suitable cache reading thread
    /// %1 for %2").
    int cacheIndex(const QString& hashText);

    /// The same for a hash, without building its text; -1 for a null hash. A store that is not set
    /// up is fatal first.
    int cacheIndex(const ZebDataHash* hash);

    /// Ends the process: the root `index` of a hash has no disk threads.
    [[noreturn]] static void fatalNoThread(int index, const QString& hashText);

    /// How many bytes are readable at accessor.data(), 0 for a null accessor: a block may report
    /// another size than it has.
    static qint64 storedBytes(const ZebConstAccessor& accessor);

    /// The part of cleanUp() that deletes every block without a write, empties the tables and marks
    /// the store as not set up. Takes the delete lock.
    void dropAllBlocks();

    /// Creates the root if it is missing, or ends the process.
    static void requireCacheRoot(const QString& root);

    /// Makes `block` resident under its hash and returns the reference. Takes ownership of the
    /// block. Takes the delete lock twice, so callers that must not release it in between hold it.
    ZebDataReference admit(const ZebSmartPointer<ZebDataHash>& hash, ZebDataBlock* block);

    // Fields marked (a) are relaxed atomics: written under the delete lock or by the controlling
    // thread, read by any thread without a lock. Their values need no order between them.

    // The resident blocks, which the store owns, and their order. Each hash knows its block.
    ZebDataBlockLru m_Lru;

    // Index i means the same root here and in the vectors of threads. Set by the controlling
    // thread.
    QStringList m_CacheRoots;

    std::atomic<qint64> m_MaxDataCacheSize;             // (a) bytes
    std::atomic<qint64> m_MaxWritePendingDataCacheSize; // (a) bytes queued to the writers
    std::atomic<float> m_MaxWritePendingSizeFactor;     // (a)
    std::atomic<qint64> m_TargetFreeMemorySize;         // (a) bytes
    std::atomic<qint64> m_BlocksFreedCount;             // (a) counts up for each block freed
    std::atomic<qint64> m_LiveBytes;                    // (a) sizes of the resident blocks
    std::atomic<int> m_NumBuckets;                      // (a)

    // A leaf lock, taken inside the delete lock. Also held to change m_GarbageCollecting.
    QMutex m_GarbageCollectionMutex ZEBTDX_ACQUIRED_AFTER(ZebDeleteLock);
    QWaitCondition m_GarbageCollectionDone; // woken when the last pass ends with the collection off
    std::atomic<bool> m_GarbageCollecting;  // also read without the lock
    int m_GarbageCollectorsRunning          // passes inside their bracket
        ZEBTDX_GUARDED_BY(m_GarbageCollectionMutex);

    // Each disk thread has a copy of this name.
    QString m_SubCache ZEBTDX_GUARDED_BY(ZebDeleteLock);
    std::atomic<quint64> m_SubCacheGeneration{0}; // counts its changes; also read without the lock
    std::atomic<bool> m_Initialized;     // acquire and release: orders what setup() has written
    std::atomic<bool> m_HasEnded{false}; // (a) set at process exit, before the blocks go
    std::atomic<bool> m_RequestPromotionEnabled; // (a)

    QVector<ZebDataBlockReadThread*> m_ReadThreads;
    QVector<ZebDataBlockWriteThread*> m_WriteThreads;
    QVector<ZebGarbageCollectorThread*> m_GarbageCollectors;

    // The size in bytes that each collector reported last.
    QMap<ZebGarbageCollectorThread*, qint64> m_CacheSizeRecords ZEBTDX_GUARDED_BY(m_CacheSizeMutex);

    // The delete lock, level 1, recursive: guards the tables of blocks and the order of the LRU.
    // While a thread holds it, no other thread removes a resident block.
    mutable ZebTdxMutex m_DeleteMutex;

    int m_GateDepth ZEBTDX_GUARDED_BY(ZebDeleteLock) = 0; // see ZebClosedGate

    // Taken inside the delete lock. Recursive: slots of cacheSizeUpdate() run with it held and may
    // ask for the size.
    mutable QMutex m_CacheSizeMutex ZEBTDX_ACQUIRED_AFTER(ZebDeleteLock);

    std::atomic<bool> m_AllFreeBlocksFlushed; // (a)

    // Blocks with a write in flight, and those of them that eviction has removed from the tables:
    // they are deleted when their write ends.
    QSet<ZebDataBlock*> m_BlocksBeingWritten ZEBTDX_GUARDED_BY(ZebDeleteLock);
    QSet<ZebDataBlock*> m_BlocksToFreeAfterWriting ZEBTDX_GUARDED_BY(ZebDeleteLock);

    // Kept on purpose: counts each switch of the collection, and nothing reads it.
    int m_GarbageCollectionChanges ZEBTDX_GUARDED_BY(m_GarbageCollectionMutex);
};
