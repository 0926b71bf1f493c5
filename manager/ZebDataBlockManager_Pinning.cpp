// Pinning: accessors pin a resident block, and each use makes it the newest.

#include "manager/ZebDataBlockManager.h"

#include "hash/ZebDataHash.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebWriteLocker.h"

#include <new>

namespace {

qulonglong addressOf(const ZebDataHash* hash)
{
    return static_cast<qulonglong>(reinterpret_cast<quintptr>(hash));
}

} // namespace

void ZebDataBlockManager::lockBlock(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    if (!m_Lru.contains(hash)) {
        ZebTdxMessage::fatal(
            QStringLiteral("Hash %1 is Not Contained in the LRU").arg(addressOf(hash)));
    }
    // Keeps the block's place, so that unlockBlock() allocates nothing.
    const ZebWriteLocker lruLocker(&m_Lru.lock());
    m_Lru.park(hash);
}

void ZebDataBlockManager::unlockBlock(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    if (m_Lru.contains(hash)) {
        ZebTdxMessage::fatal(
            QStringLiteral("Lock Block %1 already contained in LRU").arg(addressOf(hash)));
    }
    m_Lru.add(hash);
    // There is an evictable block again.
    try {
        setAllFreeBlocksFlushed(false);
    } catch (const std::bad_alloc&) {
        // Queueing the signal to another thread allocates. The flag has changed all the same, and
        // the end of an accessor cannot fail.
        // NOLINTNEXTLINE(bugprone-empty-catch)
        Q_UNUSED(this)
    }
}

void ZebDataBlockManager::blockUsed(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    if (m_Lru.contains(hash))
        m_Lru.touch(hash);
}

bool ZebDataBlockManager::blockIsLocked(ZebDataHash* hash)
{
    const ZebTdxMutexLocker locker(&deleteMutex());
    return !m_Lru.contains(hash);
}

bool ZebDataBlockManager::isInMemory(ZebDataHash* hash)
{
    if (hash == nullptr)
        return true;
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    if (!m_HashToBlockMap.contains(hash))
        return false;
    // Kept on purpose: a query counts as a use, so a host that polls a block keeps it resident.
    if (!blockIsLocked(hash))
        blockUsed(hash);
    return true;
}
