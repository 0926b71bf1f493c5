#pragma once

#include "data/ZebDataBlock.h"
#include "data/ZebDataReference.h"
#include "io/ZebDataBlockReadThread.h"
#include "io/ZebDataBlockWriteThread.h"
#include "manager/ZebDataBlockManager.h"
#include "support/PrivateAccess.h"

#include <QFile>
#include <QHash>
#include <QReadLocker>
#include <QSet>
#include <QVector>

#include <atomic>
#include <vector>

using StoreBlocks = QHash<ZebDataHash*, ZebDataBlock*>;
using StoreBlocksMember = StoreBlocks ZebDataBlockManager::*;
using StoreBlockSetMember = QSet<ZebDataBlock*> ZebDataBlockManager::*;
using StoreReadersMember = QVector<ZebDataBlockReadThread*> ZebDataBlockManager::*;
using StoreWritersMember = QVector<ZebDataBlockWriteThread*> ZebDataBlockManager::*;

ZEBTDX_ACCESS(StoreBlocksTag, ZebDataBlockManager, StoreBlocksMember, m_HashToBlockMap)
ZEBTDX_ACCESS(StoreLruTag, ZebDataBlockManager, ZebDataBlockLru ZebDataBlockManager::*, m_Lru)
ZEBTDX_ACCESS(StoreLruOldestTag, ZebDataBlockLru, ZebDataBlockLruNode* ZebDataBlockLru::*, m_Oldest)
ZEBTDX_ACCESS(StoreBeingWrittenTag, ZebDataBlockManager, StoreBlockSetMember, m_BlocksBeingWritten)
ZEBTDX_ACCESS(StoreToFreeTag, ZebDataBlockManager, StoreBlockSetMember, m_BlocksToFreeAfterWriting)
ZEBTDX_ACCESS(StoreFreedTag, ZebDataBlockManager, std::atomic<qint64> ZebDataBlockManager::*,
              m_BlocksFreedCount)
ZEBTDX_ACCESS(StoreDeleteLockTag, ZebDataBlockManager, ZebTdxMutex ZebDataBlockManager::*,
              m_DeleteMutex)
ZEBTDX_ACCESS(StoreReadersTag, ZebDataBlockManager, StoreReadersMember, m_ReadThreads)
ZEBTDX_ACCESS(StoreWritersTag, ZebDataBlockManager, StoreWritersMember, m_WriteThreads)
ZEBTDX_ACCESS(StoreMakeRoomTag, ZebDataBlockManager, bool (ZebDataBlockManager::*)(quint64, bool),
              managePhysicalMemoryUse)
ZEBTDX_ACCESS(StoreFreeBlockTag, ZebDataBlockManager,
              void (ZebDataBlockManager::*)(ZebDataHash*, bool, bool), freeBlock)
ZEBTDX_ACCESS(BlockCachedTag, ZebDataBlock, std::atomic<bool> ZebDataBlock::*, m_Cached)

/// What the store keeps to itself, for tests that must see it.
///
/// Locks: the read-outs take what guards the thing read.
namespace StoreInside {

inline ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

inline ZebTdxMutex& deleteLock()
{
    return manager().*privateMember(StoreDeleteLockTag());
}

/// The resident block of a reference, null when there is none.
inline ZebDataBlock* blockOf(const ZebDataReference& reference)
{
    const ZebSmartPointer<ZebDataHash> hash = reference.hashPtr();
    const ZebTdxMutexLocker locker(&deleteLock());
    return (manager().*privateMember(StoreBlocksTag())).value(hash.data(), nullptr);
}

/// How many blocks are resident, locked and do-not-cache ones too.
inline int residentBlocks()
{
    const ZebTdxMutexLocker locker(&deleteLock());
    return (manager().*privateMember(StoreBlocksTag())).size();
}

/// The evictable hashes, the next victim first.
inline std::vector<ZebDataHash*> evictable()
{
    const ZebDataBlockLru& lru = manager().*privateMember(StoreLruTag());
    const QReadLocker locker(&lru.lock());
    std::vector<ZebDataHash*> hashes;
    for (const ZebDataBlockLruNode* node = lru.*privateMember(StoreLruOldestTag()); node != nullptr;
         node = node->m_Newer)
        hashes.push_back(node->m_Hash);
    return hashes;
}

inline QSet<ZebDataBlock*> beingWritten()
{
    const ZebTdxMutexLocker locker(&deleteLock());
    return manager().*privateMember(StoreBeingWrittenTag());
}

inline QSet<ZebDataBlock*> toFreeAfterWriting()
{
    const ZebTdxMutexLocker locker(&deleteLock());
    return manager().*privateMember(StoreToFreeTag());
}

inline qint64 blocksFreed()
{
    return (manager().*privateMember(StoreFreedTag())).load();
}

inline QVector<ZebDataBlockReadThread*> readers()
{
    return manager().*privateMember(StoreReadersTag());
}

inline QVector<ZebDataBlockWriteThread*> writers()
{
    return manager().*privateMember(StoreWritersTag());
}

/// How many block writes all writers have finished.
inline int writesHandled()
{
    int handled = 0;
    for (const ZebDataBlockWriteThread* const writer : writers())
        handled += writer->requestsHandled();
    return handled;
}

/// How many preloads all readers have taken up.
inline int preloadsHandled()
{
    int handled = 0;
    for (const ZebDataBlockReadThread* const reader : readers())
        handled += reader->requestsHandled();
    return handled;
}

/// The decision point of eviction; `write` as every caller but a host's last resort has it.
inline bool makeRoom(quint64 size, bool write = true)
{
    return (manager().*privateMember(StoreMakeRoomTag()))(size, write);
}

inline void freeBlock(ZebDataHash* hash, bool write, bool hashLocked)
{
    (manager().*privateMember(StoreFreeBlockTag()))(hash, write, hashLocked);
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
    block->*privateMember(BlockCachedTag()) = false;
    return QFile::remove(fileOf(reference));
}

} // namespace StoreInside
