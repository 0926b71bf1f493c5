#pragma once

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "io/ZebDataBlockReadThread.h"
#include "io/ZebDataBlockWriteThread.h"
#include "io/ZebGarbageCollectorThread.h"
#include "manager/ZebClosedGate.h"
#include "manager/ZebDataBlockManager.h"
#include "support/BlockInside.h"
#include "support/LruInside.h"
#include "support/Manager.h"
#include "support/PrivateAccess.h"
#include "support/WaitPlace.h"

#include <QFile>
#include <QMutex>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVector>
#include <QWaitCondition>

#include <atomic>
#include <vector>

using StoreBlockSetMember = QSet<ZebDataBlock*> ZebDataBlockManager::*;
using StoreReadersMember = QVector<ZebDataBlockReadThread*> ZebDataBlockManager::*;
using StoreWritersMember = QVector<ZebDataBlockWriteThread*> ZebDataBlockManager::*;

ZEBTDX_ACCESS(StoreInsideResidentBlock, ZebDataHash, ZebDataBlock* (ZebDataHash::*)() const,
              residentBlock)
ZEBTDX_ACCESS(StoreInsideGateDepth, ZebDataBlockManager, int ZebDataBlockManager::*, m_GateDepth)
ZEBTDX_ACCESS(StoreInsideLru, ZebDataBlockManager, ZebDataBlockLru ZebDataBlockManager::*, m_Lru)
ZEBTDX_ACCESS(StoreInsideBeingWritten, ZebDataBlockManager, StoreBlockSetMember,
              m_BlocksBeingWritten)
ZEBTDX_ACCESS(StoreInsideToFree, ZebDataBlockManager, StoreBlockSetMember,
              m_BlocksToFreeAfterWriting)
ZEBTDX_ACCESS(StoreInsideFreed, ZebDataBlockManager, std::atomic<qint64> ZebDataBlockManager::*,
              m_BlocksFreedCount)
ZEBTDX_ACCESS(StoreInsideDeleteLock, ZebDataBlockManager, ZebTdxMutex ZebDataBlockManager::*,
              m_DeleteMutex)
ZEBTDX_ACCESS(StoreInsideReaders, ZebDataBlockManager, StoreReadersMember, m_ReadThreads)
ZEBTDX_ACCESS(StoreInsideWriters, ZebDataBlockManager, StoreWritersMember, m_WriteThreads)
ZEBTDX_ACCESS(StoreInsideMakeRoom, ZebDataBlockManager,
              bool (ZebDataBlockManager::*)(quint64, bool), managePhysicalMemoryUse)
ZEBTDX_ACCESS(StoreInsideFreeBlock, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebDataHash*, bool, bool), freeBlock)

using StoreInsideCollectors = QVector<ZebGarbageCollectorThread*>;
using StoreInsideOnHash = void (ZebDataBlockManager::*)(ZebDataHash*);

ZEBTDX_ACCESS(StoreInsideCacheRoots, ZebDataBlockManager, QStringList ZebDataBlockManager::*,
              m_CacheRoots)
ZEBTDX_ACCESS(StoreInsideSubCache, ZebDataBlockManager, QString ZebDataBlockManager::*, m_SubCache)
ZEBTDX_ACCESS(StoreInsideWritePending, ZebDataBlockManager,
              std::atomic<qint64> ZebDataBlockManager::*, m_MaxWritePendingDataCacheSize)
ZEBTDX_ACCESS(StoreInsidePromotion, ZebDataBlockManager, std::atomic<bool> ZebDataBlockManager::*,
              m_RequestPromotionEnabled)
ZEBTDX_ACCESS(StoreInsideCollectorThreads, ZebDataBlockManager,
              StoreInsideCollectors ZebDataBlockManager::*, m_GarbageCollectors)
ZEBTDX_ACCESS(StoreInsideCollecting, ZebDataBlockManager, std::atomic<bool> ZebDataBlockManager::*,
              m_GarbageCollecting)
ZEBTDX_ACCESS(StoreInsideCollectionMutex, ZebDataBlockManager, QMutex ZebDataBlockManager::*,
              m_GarbageCollectionMutex)
ZEBTDX_ACCESS(StoreInsideCollectionDone, ZebDataBlockManager, QWaitCondition ZebDataBlockManager::*,
              m_GarbageCollectionDone)
ZEBTDX_ACCESS(StoreInsideCollectorsRunning, ZebDataBlockManager, int ZebDataBlockManager::*,
              m_GarbageCollectorsRunning)
ZEBTDX_ACCESS(StoreInsideCollectionChanges, ZebDataBlockManager, int ZebDataBlockManager::*,
              m_GarbageCollectionChanges)
ZEBTDX_ACCESS(StoreInsideAddBlock, ZebDataBlockManager,
              ZebDataReference (ZebDataBlockManager::*)(ZebDataBlock*, ZebModifyAccessor::Caching,
                                                        bool),
              addBlock)
ZEBTDX_ACCESS(StoreInsideMakeBlockLive, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebDataHash*, ZebDataBlock*), makeBlockLive)
ZEBTDX_ACCESS(StoreInsideGetDataBlock, ZebDataBlockManager,
              ZebDataBlock* (ZebDataBlockManager::*)(ZebDataHash*), getDataBlock)
ZEBTDX_ACCESS(StoreInsideLockBlock, ZebDataBlockManager, StoreInsideOnHash, lockBlock)
ZEBTDX_ACCESS(StoreInsideUnlockBlock, ZebDataBlockManager, StoreInsideOnHash, unlockBlock)
ZEBTDX_ACCESS(StoreInsideBlockUsed, ZebDataBlockManager, StoreInsideOnHash, blockUsed)
ZEBTDX_ACCESS(StoreInsideBlockIsLocked, ZebDataBlockManager,
              bool (ZebDataBlockManager::*)(ZebDataHash*), blockIsLocked)
ZEBTDX_ACCESS(StoreInsideIndexOfText, ZebDataBlockManager,
              int (ZebDataBlockManager::*)(const QString&), cacheIndex)
ZEBTDX_ACCESS(StoreInsideIndexOfHash, ZebDataBlockManager,
              int (ZebDataBlockManager::*)(const ZebDataHash*), cacheIndex)
ZEBTDX_ACCESS(StoreInsideRecordCacheSize, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebGarbageCollectorThread*, qint64), cacheSizeRecord)
ZEBTDX_ACCESS(StoreInsideStopAllIoThreads, ZebDataBlockManager, void (ZebDataBlockManager::*)(),
              stopAllIoThreads)

/// The private members of the store, for tests that must see or set them.
///
/// Locks: the read-outs, which return copies, take the lock that guards what they read. A function
/// that returns a reference to a field takes none.
namespace StoreInside {

using ::manager;

/// The mutex of the delete lock. Readers of resident blocks take no notice of it.
inline ZebTdxMutex& deleteMutex()
{
    return manager().*privateMember(StoreInsideDeleteLock());
}

/// The delete lock as a host takes it: readers wait for it, too.
class DeleteLock
{
public:
    void lock()
    {
        deleteMutex().lock();
        ZebClosedGate::close(depth());
    }
    bool tryLock(int timeout = 0)
    {
        if (!deleteMutex().tryLock(timeout))
            return false;
        ZebClosedGate::close(depth());
        return true;
    }
    void unlock()
    {
        ZebClosedGate::open(depth());
        deleteMutex().unlock();
    }

    operator WaitPlace() const { return deleteMutex(); }

private:
    static int* depth() { return &(manager().*privateMember(StoreInsideGateDepth())); }
};

inline DeleteLock& deleteLock()
{
    static DeleteLock lock;
    return lock;
}

/// The resident block of a hash, null when there is none.
inline ZebDataBlock* residentBlock(const ZebDataHash* hash)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    return (hash->*privateMember(StoreInsideResidentBlock()))();
}

/// The resident block of a reference, null when there is none.
inline ZebDataBlock* blockOf(const ZebDataReference& reference)
{
    const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
    return hash.isNull() ? nullptr : residentBlock(hash.data());
}

inline ZebDataBlockLru& lru()
{
    return manager().*privateMember(StoreInsideLru());
}

/// How many blocks are resident, pinned and uncached ones included.
inline int residentBlocks()
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    return lru().residentCount();
}

/// The evictable hashes, the next victim first.
inline std::vector<ZebDataHash*> evictable()
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    lru().drain();
    std::vector<ZebDataHash*> hashes;
    for (ZebDataHash* const hash : LruInside::oldestToNewest(lru())) {
        if (lru().contains(hash))
            hashes.push_back(hash);
    }
    return hashes;
}

inline QSet<ZebDataBlock*> beingWritten()
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    return manager().*privateMember(StoreInsideBeingWritten());
}

inline QSet<ZebDataBlock*> toFreeAfterWriting()
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    return manager().*privateMember(StoreInsideToFree());
}

inline qint64 blocksFreed()
{
    return (manager().*privateMember(StoreInsideFreed())).load();
}

/// Set to -1 by construction and clean-up, and counted up by the first set-up.
inline std::atomic<qint64>& blocksFreedCount(ZebDataBlockManager& store = manager())
{
    return store.*privateMember(StoreInsideFreed());
}

inline std::atomic<bool>& requestPromotionEnabled(ZebDataBlockManager& store = manager())
{
    return store.*privateMember(StoreInsidePromotion());
}

inline QString& subCache(ZebDataBlockManager& store = manager())
{
    return store.*privateMember(StoreInsideSubCache());
}

inline QStringList& cacheRoots()
{
    return manager().*privateMember(StoreInsideCacheRoots());
}

inline qint64 writePendingLimit()
{
    return (manager().*privateMember(StoreInsideWritePending())).load();
}

/// The blocks that a writer has in hand, as the field; guarded by deleteLock().
inline QSet<ZebDataBlock*>& beingWrittenSet()
{
    return manager().*privateMember(StoreInsideBeingWritten());
}

/// The blocks to delete after their write, as the field; guarded by deleteLock().
inline QSet<ZebDataBlock*>& toFreeAfterWritingSet()
{
    return manager().*privateMember(StoreInsideToFree());
}

inline QVector<ZebDataBlockReadThread*>& readers()
{
    return manager().*privateMember(StoreInsideReaders());
}

inline QVector<ZebDataBlockWriteThread*>& writers()
{
    return manager().*privateMember(StoreInsideWriters());
}

inline StoreInsideCollectors& collectors()
{
    return manager().*privateMember(StoreInsideCollectorThreads());
}

inline void stopAllIoThreads()
{
    (manager().*privateMember(StoreInsideStopAllIoThreads()))();
}

// The collection

inline std::atomic<bool>& collecting()
{
    return manager().*privateMember(StoreInsideCollecting());
}

inline QMutex& collectionMutex()
{
    return manager().*privateMember(StoreInsideCollectionMutex());
}

/// Woken when the last pass has ended with the collection off.
inline QWaitCondition& collectionDone()
{
    return manager().*privateMember(StoreInsideCollectionDone());
}

/// How often the collection was switched; guarded by collectionMutex().
inline int& collectionChanges()
{
    return manager().*privateMember(StoreInsideCollectionChanges());
}

/// How many passes are running.
inline int passesRunning()
{
    const QMutexLocker locker(&collectionMutex());
    return manager().*privateMember(StoreInsideCollectorsRunning());
}

inline void recordCacheSize(ZebGarbageCollectorThread* collector, qint64 size)
{
    (manager().*privateMember(StoreInsideRecordCacheSize()))(collector, size);
}

// The disk threads

/// How many block writes all writers have finished.
inline int writesHandled()
{
    int handled = 0;
    for (const ZebDataBlockWriteThread* const writer : qAsConst(writers()))
        handled += writer->requestsHandled();
    return handled;
}

/// How many bytes all writers have written to block files.
inline qint64 bytesWritten()
{
    qint64 written = 0;
    for (const ZebDataBlockWriteThread* const writer : qAsConst(writers()))
        written += writer->bytesWritten();
    return written;
}

/// How many preloads all readers have handled.
inline int preloadsHandled()
{
    int handled = 0;
    for (const ZebDataBlockReadThread* const reader : qAsConst(readers()))
        handled += reader->requestsHandled();
    return handled;
}

/// Decides about eviction. Only a host's last resort passes false for `write`.
inline bool makeRoom(quint64 size, bool write = true)
{
    return (manager().*privateMember(StoreInsideMakeRoom()))(size, write);
}

inline void freeBlock(ZebDataHash* hash, bool write, bool hashLocked)
{
    (manager().*privateMember(StoreInsideFreeBlock()))(hash, write, hashLocked);
}

/// addBlock() for a block that exists already, which the store takes over.
inline ZebDataReference addBlock(ZebDataBlock* block, ZebModifyAccessor::Caching caching,
                                 bool immediate)
{
    return (manager().*privateMember(StoreInsideAddBlock()))(block, caching, immediate);
}

inline void makeBlockLive(ZebDataHash* hash, ZebDataBlock* block)
{
    (manager().*privateMember(StoreInsideMakeBlockLive()))(hash, block);
}

inline ZebDataBlock* getDataBlock(ZebDataHash* hash)
{
    return (manager().*privateMember(StoreInsideGetDataBlock()))(hash);
}

inline void lockBlock(ZebDataHash* hash)
{
    (manager().*privateMember(StoreInsideLockBlock()))(hash);
}

inline void unlockBlock(ZebDataHash* hash)
{
    (manager().*privateMember(StoreInsideUnlockBlock()))(hash);
}

inline void blockUsed(ZebDataHash* hash)
{
    (manager().*privateMember(StoreInsideBlockUsed()))(hash);
}

inline bool blockIsLocked(ZebDataHash* hash)
{
    return (manager().*privateMember(StoreInsideBlockIsLocked()))(hash);
}

// Layout

/// The number of the root of a block, by the text of its hash.
inline int cacheIndex(const QString& hashText)
{
    return (manager().*privateMember(StoreInsideIndexOfText()))(hashText);
}

inline int cacheIndex(const ZebDataHash* hash)
{
    return (manager().*privateMember(StoreInsideIndexOfHash()))(hash);
}

inline QString fileOf(const ZebDataReference& reference)
{
    return manager().getBlockDestination(QString(), reference.hash());
}

inline bool hasFile(const ZebDataReference& reference)
{
    return QFile::exists(fileOf(reference));
}

/// Takes a resident, written block back to the state of one that was never written.
inline bool forgetFile(const ZebDataReference& reference)
{
    ZebDataBlock* const block = blockOf(reference);
    if (block == nullptr || !block->cached())
        return false;
    BlockInside::cached(*block) = false;
    return QFile::remove(fileOf(reference));
}

} // namespace StoreInside
