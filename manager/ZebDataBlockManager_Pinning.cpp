// Pinning: accessors pin a resident block, and each use makes it the newest. The hash does this
// without a lock; here is what it leaves to the delete lock.

#include "manager/ZebDataBlockManager.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashWord.h"
#include "manager/ZebClosedGate.h"
#include "support/ZebTdxMessage.h"
#include "support/ZebTestPoint.h"

#include <new>

using namespace ZebHashWord;

namespace {

qulonglong addressOf(const ZebDataHash* hash)
{
    return static_cast<qulonglong>(reinterpret_cast<quintptr>(hash));
}

[[noreturn]] void fatalNotListed(const ZebDataHash* hash)
{
    ZebTdxMessage::fatal(
        QStringLiteral("Hash %1 is Not Contained in the LRU").arg(addressOf(hash)));
}

[[noreturn]] void fatalTooManyPins()
{
    ZebTdxMessage::fatal(QStringLiteral("Too Many Accessors of One Block"));
}

[[noreturn]] void fatalListed(const ZebDataHash* hash)
{
    ZebTdxMessage::fatal(
        QStringLiteral("Lock Block %1 already contained in LRU").arg(addressOf(hash)));
}

} // namespace

void ZebDataBlockManager::pin(ZebDataHash* hash, ZebDataBlock* block)
{
    ZEBTDX_POINT(SlowOpen);
    const ZebTdxMutexLocker locker(&deleteMutex());
    if (hash->residentBlock() != block) {
        if (block->m_AccessCount.loadRelaxed() == 0)
            lockBlock(hash);
        block->m_AccessCount.fetchAndAddOrdered(1);
        return;
    }
    quint64 word = hash->m_Word.load(std::memory_order_relaxed);
    quint64 next = 0;
    do {
        if (pins(word) == s_MostPins)
            fatalTooManyPins();
        next = word + s_Pin;
        if (pins(word) == 0 && !hash->isDontCache()) {
            if ((word & s_Evictable) == 0)
                fatalNotListed(hash);
            next &= ~s_Evictable;
        }
        // Readers may change the word meanwhile.
    } while (!hash->m_Word.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                                 std::memory_order_relaxed));
    m_Lru.noteListed(word, next);
}

void ZebDataBlockManager::pinAgain(ZebDataHash* hash, ZebDataBlock* block)
{
    for (;;) {
        {
            const ZebTdxMutexLocker locker(&deleteMutex());
            if (hash->tryIncRef()) {
                if (hash->residentBlock() != block)
                    block->m_AccessCount.fetchAndAddOrdered(1);
                else if (hash->pins() == s_MostPins)
                    fatalTooManyPins();
                else
                    hash->m_Word.fetch_add(s_Pin, std::memory_order_relaxed);
                return;
            }
        }
        // Another thread has locked the hash. It may need the delete lock.
        hash->awaitUnlocked();
    }
}

void ZebDataBlockManager::unpin(ZebDataHash* hash, ZebDataBlock* block)
{
    ZEBTDX_POINT(SlowClose);
    const ZebTdxMutexLocker locker(&deleteMutex());
    // At process exit the store deletes its blocks. The mark is set with the delete lock held, and
    // before that.
    if (m_HasEnded.load(std::memory_order_relaxed))
        return;
    quint64 word = hash->m_Word.load(std::memory_order_relaxed);
    if (hash->residentBlock() != block) {
        // The store has freed the block under its accessor, or has never had it.
        if (pins(word) > 0 && (word & s_Resident) == 0)
            hash->m_Word.fetch_sub(s_Pin, std::memory_order_relaxed);
        else if (block->m_AccessCount.fetchAndAddOrdered(-1) == 1)
            unlockBlock(hash);
        return;
    }
    quint64 next = 0;
    do {
        next = word - s_Pin;
        if (pins(word) == 1 && !hash->isDontCache()) {
            if ((word & s_Evictable) != 0)
                fatalListed(hash);
            // In the list before it counts as evictable. Only this thread has a pin, so no other
            // one makes the block evictable.
            m_Lru.makeNewest(hash);
            next |= s_Evictable;
        }
    } while (!hash->m_Word.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                                 std::memory_order_relaxed));
    m_Lru.noteListed(word, next);
    if ((next & s_Evictable) != 0 && (word & s_Evictable) == 0)
        clearFlushedFlag();
}

void ZebDataBlockManager::clearFlushedFlag()
{
    try {
        changeAllFreeBlocksFlushed(false);
    } catch (const std::bad_alloc&) {
        // Queueing the signal to another thread allocates. The flag has changed all the same, and
        // the end of an accessor cannot fail.
    }
}

void ZebDataBlockManager::drainUses()
{
    if (!deleteMutex().tryLock())
        return;
    ZebReadGate::relax();
    m_Lru.drain();
    deleteMutex().unlock();
}

int ZebDataBlockManager::accessorsOf(const ZebDataHash* hash, const ZebDataBlock* block)
{
    const int others = block->m_AccessCount.loadRelaxed();
    return hash->residentBlock() == block ? hash->pins() + others : others;
}

void ZebDataBlockManager::changeAllFreeBlocksFlushed(bool flushed)
{
    if (allFreeBlocksFlushed() == flushed)
        return;
    // A slot that is connected directly runs with no reader inside.
    const ZebClosedGate gate(&m_GateDepth);
    setAllFreeBlocksFlushed(flushed);
}

void ZebDataBlockManager::lockBlock(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    if (!m_Lru.contains(hash))
        fatalNotListed(hash);
    m_Lru.remove(hash);
}

void ZebDataBlockManager::unlockBlock(ZebDataHash* hash)
{
    if (hash->isDontCache())
        return;
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    if (m_Lru.contains(hash))
        fatalListed(hash);
    m_Lru.add(hash);
    clearFlushedFlag();
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
    // Kept on purpose: a query counts as a use, so a host that polls a block keeps it resident.
    const ZebDataHash::Residency known = hash->tryUse();
    if (known == ZebDataHash::Residency::Resident)
        return true;
    if (known == ZebDataHash::Residency::Absent) {
        requireInitialized();
        return false;
    }
    const ZebTdxMutexLocker locker(&deleteMutex());
    requireInitialized();
    blockUsed(hash);
    return hash->residentBlock() != nullptr;
}
