#include "hash/ZebHashRemovalList.h"

#include "hash/ZebHashRemoval.h"
#include "support/ZebMutexLocker.h"

void ZebHashRemovalList::begin(ZebHashRemoval* removal, ZebHashShard& shard)
{
    const ZebMutexLocker locker(&m_Mutex);
    removal->m_Shard = &shard;
    removal->m_Next = m_First;
    m_First = removal;
    shard.m_RemovalCount.fetch_add(1, std::memory_order_relaxed);
}

void ZebHashRemovalList::end(ZebHashRemoval* removal)
{
    const ZebMutexLocker locker(&m_Mutex);
    ZebHashRemoval** link = &m_First;
    while (*link != removal)
        link = &(*link)->m_Next;
    *link = removal->m_Next;
    // Release: pairs with await().
    removal->m_Shard->m_RemovalCount.fetch_sub(1, std::memory_order_release);
    m_Ended.wakeAll();
}

bool ZebHashRemovalList::contains(const ZebDigestView& digest) const
{
    const ZebHashRemoval* removal = m_First;
    while (removal != nullptr && !(removal->m_Digest.view() == digest))
        removal = removal->m_Next;
    return removal != nullptr;
}

void ZebHashRemovalList::awaitEnd(ZebHashShard& shard, const ZebDigestView& digest)
{
    // The caller may hold the delete lock, or entries of the shard's mutex further out. The wait
    // still ends: a collector whose removal has begun takes neither before it ends, and in between
    // it only removes one file.
    while (shard.m_RemovalCount.load(std::memory_order_acquire) != 0) {
        ZebMutexLocker locker(&m_Mutex);
        if (!contains(digest))
            return;
        shard.m_Mutex.unlock();
        m_Ended.wait(&m_Mutex);
        // Unlocked first: the shard's mutex comes before it. Another removal may begin in between.
        locker.unlock();
        shard.m_Mutex.lock();
    }
}
