// What readers do with a resident block without a lock. docs/CONCURRENCY.md argues why each pair of
// these operations, and each with those under the delete lock, has an allowed outcome.

#include "hash/ZebDataHash.h"

#include "hash/ZebHashWord.h"
#include "hash/ZebReadGate.h"
#include "hash/ZebThreadSlot.h"
#include "hash/ZebUseClock.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebTestPoint.h"

using namespace ZebHashWord;

namespace {

// After so many pushes a thread drains the stacks, so that the drain of an eviction, which all
// admissions wait for, takes well below a second. Large, since each hash that is drained is pushed
// again by its next use, while one that was not drained is pushed once.
constexpr quint32 s_MostPushes = 262144;

// After so many entries of a gate that is not plain a thread asks for a plain one.
constexpr quint32 s_MostFencedEntries = 4096;

bool isDrainDue(const ZebThreadSlot* slot)
{
    return slot->m_Pushes >= s_MostPushes || slot->m_FencedEntries >= s_MostFencedEntries;
}

// A counter with one writer; release, so that a thread that adds up the counters of all threads
// finds the change of the word that was counted.
void countUp(std::atomic<quint64>& counter)
{
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

// Inside the gate for the length of a scope, if that is possible without a wait.
class Passage
{
public:
    Passage() : m_Slot(ZebThreadSlot::mine())
    {
        if (m_Slot != nullptr && !ZebReadGate::enter(m_Slot))
            m_Slot = nullptr;
    }
    ~Passage()
    {
        if (m_Slot != nullptr)
            ZebReadGate::leave(m_Slot);
    }
    Passage(const Passage&) = delete;
    Passage& operator=(const Passage&) = delete;

    // Null outside of the gate.
    ZebThreadSlot* slot() const { return m_Slot; }

private:
    ZebThreadSlot* m_Slot;
};

// Whether another accessor or reference would overflow its count.
bool isFull(quint64 word)
{
    return references(word) == s_MostReferences || ZebHashWord::pins(word) == s_MostPins;
}

} // namespace

int ZebDataHash::pins() const
{
    return ZebHashWord::pins(m_Word.load(std::memory_order_relaxed));
}

ZebDataBlock* ZebDataHash::tryOpen()
{
    const Passage passage;
    if (passage.slot() == nullptr)
        return nullptr;
    ZEBTDX_POINT(OpenEntered);
    quint64 word = m_Word.load(std::memory_order_relaxed);
    for (;;) {
        if (ZEBTDX_GUARD(OpenSeesLocked, (word & s_Locked) != 0) ||
            ZEBTDX_GUARD(OpenNeedsResident, (word & s_Resident) == 0) || isFull(word))
            return nullptr;
        quint64 next = word + s_Reference + s_Pin;
        const bool unlists =
            ZebHashWord::pins(word) == 0 && !m_DontCache.load(std::memory_order_relaxed);
        if (unlists) {
            // Not evictable and not pinned is an error, which the slow path reports.
            if ((word & s_Evictable) == 0)
                return nullptr;
            next &= ~s_Evictable;
        } else if ((word & s_Evictable) != 0) {
            // The count is wrong, since accessors were assigned, or the hash was marked as uncached
            // late: the block could be evicted under the accessor.
            return nullptr;
        }
        // Acquire: the block and its bytes were written before the word became resident. From here
        // on the block is pinned: eviction needs s_Evictable, which only the last unpin sets.
        if (!m_Word.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                          std::memory_order_relaxed))
            continue;
        ZEBTDX_POINT(OpenPinned);
        if (unlists)
            countUp(passage.slot()->m_Unlisted);
        return residentBlock();
    }
}

bool ZebDataHash::tryOpenAgain(const ZebDataBlock* block)
{
    const Passage passage;
    if (passage.slot() == nullptr)
        return false;
    quint64 word = m_Word.load(std::memory_order_relaxed);
    for (;;) {
        if ((word & (s_Locked | s_Resident)) != s_Resident || isFull(word) ||
            residentBlock() != block)
            return false;
        // Relaxed: the accessor that is copied has pinned the block.
        if (m_Word.compare_exchange_weak(word, word + s_Reference + s_Pin,
                                         std::memory_order_relaxed))
            return true;
    }
}

bool ZebDataHash::pushUse(ZebThreadSlot* slot, quint64 word)
{
    if ((word & s_Used) != 0)
        return false;
    // Acquire: the drain that cleared the mark before has read the link by now.
    if (!m_Word.compare_exchange_strong(word, word | s_Used, std::memory_order_acq_rel,
                                        std::memory_order_relaxed))
        return true;
    ZEBTDX_POINT(UsedSet);
    ZebDataHash* top = slot->m_Used.load(std::memory_order_relaxed);
    do {
        m_NextUsed.store(top, std::memory_order_relaxed);
        // Release: the drain finds the link. Only a drain removes, and it takes all, so the top
        // cannot go and come back.
    } while (!slot->m_Used.compare_exchange_weak(top, this, std::memory_order_release,
                                                 std::memory_order_relaxed));
    ++slot->m_Pushes;
    ZEBTDX_POINT(UsedPushed);
    return true;
}

bool ZebDataHash::tryClose(const ZebDataBlock* block)
{
    ZebThreadSlot* slot = nullptr;
    bool isClosed = false;
    {
        const Passage passage;
        slot = passage.slot();
        if (slot == nullptr)
            return false;
        ZEBTDX_POINT(CloseEntered);
        isClosed = closeInside(block, slot);
    }
    // Another thread may have destroyed the hash.
    if (Q_UNLIKELY(isDrainDue(slot))) {
        ZebDataBlockManager::instance().drainUses();
        slot->m_FencedEntries = 0;
        // Another thread may have held the delete lock.
        if (slot->m_Used.load(std::memory_order_relaxed) == nullptr)
            slot->m_Pushes = 0;
    }
    return isClosed;
}

bool ZebDataHash::closeInside(const ZebDataBlock* block, ZebThreadSlot* slot)
{
    for (;;) {
        quint64 word = m_Word.load(std::memory_order_relaxed);
        if (ZEBTDX_GUARD(CloseSeesLocked, (word & s_Locked) != 0) || (word & s_Resident) == 0 ||
            references(word) < 2 || residentBlock() != block ||
            ZebHashWord::pins(word) == -s_MostPins)
            return false;
        const quint64 next = word - s_Reference - s_Pin;
        // Release: eviction, which acquires, comes after this thread's reads of the bytes.
        if (ZebHashWord::pins(word) != 1 || m_DontCache.load(std::memory_order_relaxed)) {
            if (m_Word.compare_exchange_weak(word, next, std::memory_order_release,
                                             std::memory_order_relaxed))
                return true;
            continue;
        }
        // Evictable and pinned is an error, which the slow path reports.
        if ((word & s_Evictable) != 0 ||
            ZEBTDX_GUARD(CloseSeesUnpinsSlow, ZebReadGate::unpinsAreSlow()))
            return false;
        // Pushed before the pin goes: afterwards another thread may end the hash.
        if (ZEBTDX_GUARD(PushBeforeUnpin, pushUse(slot, word)))
            continue;
        // A drain that clears the mark between the load of the word and the exchange may have read
        // the stamp before; the exchange fails then, and all of it is repeated. No raise needed:
        // this thread has the only pin, so what it may overwrite is the stamp of a use that began
        // before the block was pinned, and still runs.
        if (ZEBTDX_GUARD(StampOnClose, true))
            m_Stamp.store(ZebUseClock::now(), std::memory_order_relaxed);
        ZEBTDX_POINT(StampWritten);
        if (!ZEBTDX_GUARD(CasRepeatsStamp, true))
            word = m_Word.load(std::memory_order_relaxed);
        if (m_Word.compare_exchange_strong(word, (word - s_Reference - s_Pin) | s_Evictable,
                                           std::memory_order_acq_rel, std::memory_order_relaxed)) {
            ZEBTDX_POINT(Unpinned);
            // Another thread may have destroyed the hash.
            countUp(slot->m_Listed);
            return true;
        }
    }
}

void ZebDataHash::raiseStamp()
{
    // Another thread may have used the block later and written its stamp earlier.
    const quint64 now = ZebUseClock::now();
    quint64 stamp = m_Stamp.load(std::memory_order_relaxed);
    while (stamp < now && !m_Stamp.compare_exchange_weak(stamp, now, std::memory_order_relaxed)) {
    }
}

ZebDataHash::Residency ZebDataHash::tryUse()
{
    const Passage passage;
    if (passage.slot() == nullptr)
        return Residency::Unknown;
    for (;;) {
        quint64 word = m_Word.load(std::memory_order_acquire);
        if ((word & s_Resident) == 0)
            return Residency::Absent;
        if ((word & s_Evictable) == 0 || m_DontCache.load(std::memory_order_relaxed))
            return Residency::Resident;
        if ((word & s_Locked) != 0)
            return Residency::Unknown;
        if (pushUse(passage.slot(), word))
            continue;
        raiseStamp();
        // Changes nothing; fails when a drain has cleared the mark, which may have missed the
        // stamp.
        if (m_Word.compare_exchange_strong(word, word, std::memory_order_acq_rel,
                                           std::memory_order_relaxed))
            return Residency::Resident;
    }
}

ZebDataBlock* ZebDataHash::tryBeginCopy()
{
    const Passage passage;
    if (passage.slot() == nullptr)
        return nullptr;
    quint64 word = m_Word.load(std::memory_order_relaxed);
    for (;;) {
        if ((word & (s_Locked | s_Resident)) != s_Resident || (word & s_Copies) == s_Copies)
            return nullptr;
        if (m_Word.compare_exchange_weak(word, word + s_Copy, std::memory_order_acquire,
                                         std::memory_order_relaxed))
            break;
    }
    ZEBTDX_POINT(CopyBegun);
    return residentBlock();
}

void ZebDataHash::endCopy()
{
    // Allowed while the hash is locked: eviction waits for this with the delete lock held.
    // Release: the bytes are deleted after they have been copied.
    m_Word.fetch_sub(s_Copy, std::memory_order_release);
}
