#include "manager/ZebDataBlockLru.h"

#include "hash/ZebDataHash.h"
#include "hash/ZebHashWord.h"
#include "hash/ZebThreadSlot.h"
#include "hash/ZebUseClock.h"
#include "support/ZebTestPoint.h"

#include <algorithm>
#include <thread>

using namespace ZebHashWord;

QAtomicInt m_LruNodeCount;

ZebDataBlockLru::ZebDataBlockLru() = default;

ZebDataBlockLru::~ZebDataBlockLru()
{
    clear();
}

bool ZebDataBlockLru::contains(ZebDataHash* hash) const
{
    return hash != nullptr && (hash->m_Word.load(std::memory_order_acquire) & s_Evictable) != 0;
}

ZebDataBlockLru::Changes ZebDataBlockLru::changes() const
{
    Changes sum;
    sum.m_Listed = m_Listed.load(std::memory_order_acquire);
    sum.m_Unlisted = m_Unlisted.load(std::memory_order_acquire);
    if (!m_CountsReaders)
        return sum;
    for (const ZebThreadSlot* slot = ZebThreadSlot::first(); slot != nullptr; slot = slot->next()) {
        sum.m_Listed += slot->m_Listed.load(std::memory_order_acquire);
        sum.m_Unlisted += slot->m_Unlisted.load(std::memory_order_acquire);
    }
    return sum;
}

int ZebDataBlockLru::count() const
{
    // Every counter only grows. So two equal sums in a row prove that none changed in between, and
    // their difference was right at that time.
    constexpr int mostPasses = 64;
    Changes last = changes();
    for (int pass = 0; pass < mostPasses; ++pass) {
        const Changes next = changes();
        if (next.m_Listed == last.m_Listed && next.m_Unlisted == last.m_Unlisted)
            break;
        last = next;
    }
    return std::max(0, static_cast<int>(static_cast<qint64>(last.m_Listed - last.m_Unlisted)));
}

void ZebDataBlockLru::countReaders()
{
    m_CountsReaders = true;
}

void ZebDataBlockLru::noteListed(quint64 before, quint64 after)
{
    const bool was = (before & s_Evictable) != 0;
    const bool is = (after & s_Evictable) != 0;
    if (was != is)
        (is ? m_Listed : m_Unlisted).fetch_add(1, std::memory_order_release);
}

void ZebDataBlockLru::changeMark(ZebDataHash* hash, bool evictable)
{
    const quint64 before = evictable
                               ? hash->m_Word.fetch_or(s_Evictable, std::memory_order_acq_rel)
                               : hash->m_Word.fetch_and(~s_Evictable, std::memory_order_acq_rel);
    noteListed(before, evictable ? s_Evictable : 0);
}

void ZebDataBlockLru::add(ZebDataHash* hash)
{
    if (contains(hash))
        return;
    // In the list before it counts as evictable.
    makeNewest(hash);
    changeMark(hash, true);
}

void ZebDataBlockLru::touch(ZebDataHash* hash)
{
    if (contains(hash))
        makeNewest(hash);
}

void ZebDataBlockLru::remove(ZebDataHash* hash)
{
    awaitDrained(hash);
    changeMark(hash, false);
    if (hash->residentBlock() != nullptr)
        setAside(hash);
    else
        unlink(hash);
}

void ZebDataBlockLru::clear()
{
    drain();
    for (ZebDataHash* const& oldest : m_Oldest) {
        while (oldest != nullptr) {
            changeMark(oldest, false);
            unlink(oldest);
        }
    }
}

ZebDataHash* ZebDataBlockLru::takeUsed(ZebDataHash* used, ZebDataHash* chain)
{
    while (used != nullptr) {
        ZebDataHash* const hash = used;
        // Before the mark is cleared: afterwards another thread may push the hash.
        used = hash->m_NextUsed.load(std::memory_order_relaxed);
        // NOLINTNEXTLINE(clang-analyzer-deadcode.DeadStores): read while a test has the guard off.
        quint64 stamp = hash->m_Stamp.load(std::memory_order_relaxed);
        ZEBTDX_POINT(DrainRead);
        // Acquire: what was written before the last change of the word is seen, so that is the
        // stamp of every use that counted on the mark. A use that writes a stamp later fails to
        // exchange the word, and pushes the hash again.
        const quint64 word = hash->m_Word.fetch_and(~s_Used, std::memory_order_acq_rel);
        ZEBTDX_POINT(DrainCleared);
        if (ZEBTDX_GUARD(ClearUsedBeforeStamp, true))
            stamp = hash->m_Stamp.load(std::memory_order_relaxed);
        // A pinned hash stays where it is; its next close pushes it again.
        if ((word & s_Evictable) == 0)
            continue;
        // Used again while this drain runs, and met on a second stack.
        const bool isInChain = hash->m_Place == Draining;
        hash->m_PlaceStamp = stamp;
        if (isInChain)
            continue;
        unlink(hash);
        hash->m_Place = Draining;
        hash->m_Older = chain;
        chain = hash;
    }
    return chain;
}

void ZebDataBlockLru::drain()
{
    if (!m_CountsReaders)
        return;
    keepClockAhead();
    m_DrainBegan = ZebUseClock::now();
    ZebDataHash* chain = nullptr;
    for (ZebThreadSlot* slot = ZebThreadSlot::first(); slot != nullptr; slot = slot->next()) {
        // A read first: it does not take the cache line from its owner.
        if (slot->m_Used.load(std::memory_order_relaxed) == nullptr)
            continue;
        // Acquire: the links of the hashes were written before these were pushed.
        ZebDataHash* const used = slot->m_Used.exchange(nullptr, std::memory_order_acquire);
        ZEBTDX_POINT(DrainTaken);
        chain = takeUsed(used, chain);
    }
    place(sorted(chain));
}

// The newest first.
ZebDataHash* ZebDataBlockLru::merged(ZebDataHash* a, ZebDataHash* b)
{
    ZebDataHash* first = nullptr;
    ZebDataHash** end = &first;
    while (a != nullptr && b != nullptr) {
        ZebDataHash*& newer = a->m_PlaceStamp >= b->m_PlaceStamp ? a : b;
        *end = newer;
        end = &newer->m_Older;
        newer = newer->m_Older;
    }
    *end = a != nullptr ? a : b;
    return first;
}

// A merge sort from the bottom up: allocates nothing, since the end of an accessor may drain.
ZebDataHash* ZebDataBlockLru::sorted(ZebDataHash* chain)
{
    // Entry i is null or a sorted chain of 2^i hashes.
    ZebDataHash* chains[48] = {};
    int used = 0;
    while (chain != nullptr) {
        ZebDataHash* carry = chain;
        chain = chain->m_Older;
        carry->m_Older = nullptr;
        int i = 0;
        for (; chains[i] != nullptr; ++i) {
            carry = merged(chains[i], carry);
            chains[i] = nullptr;
        }
        chains[i] = carry;
        used = std::max(used, i + 1);
    }
    ZebDataHash* result = nullptr;
    for (int i = 0; i < used; ++i)
        result = merged(chains[i], result);
    return result;
}

// Links each hash of a sorted chain. The list is mostly older than what was used since the last
// drain, so the places are near its newest end.
void ZebDataBlockLru::place(ZebDataHash* newestFirst)
{
    ZebDataHash* older = m_Newest[Listed];
    while (newestFirst != nullptr) {
        ZebDataHash* const hash = newestFirst;
        newestFirst = newestFirst->m_Older;
        while (older != nullptr && older->m_PlaceStamp > hash->m_PlaceStamp)
            older = older->m_Older;
        link(hash, older, Listed);
    }
}

void ZebDataBlockLru::link(ZebDataHash* hash, ZebDataHash* older, Place place)
{
    const auto list = static_cast<std::size_t>(place);
    hash->m_Older = older;
    hash->m_Newer = older == nullptr ? m_Oldest[list] : older->m_Newer;
    (hash->m_Older == nullptr ? m_Oldest[list] : hash->m_Older->m_Newer) = hash;
    (hash->m_Newer == nullptr ? m_Newest[list] : hash->m_Newer->m_Older) = hash;
    hash->m_Place = static_cast<signed char>(place);
    if (place == Listed)
        m_LruNodeCount.fetchAndAddRelaxed(1);
}

void ZebDataBlockLru::unlink(ZebDataHash* hash)
{
    if (hash->m_Place == Nowhere)
        return;
    const auto list = static_cast<unsigned char>(hash->m_Place);
    (hash->m_Older == nullptr ? m_Oldest[list] : hash->m_Older->m_Newer) = hash->m_Newer;
    (hash->m_Newer == nullptr ? m_Newest[list] : hash->m_Newer->m_Older) = hash->m_Older;
    if (hash->m_Place == Listed)
        m_LruNodeCount.fetchAndAddRelaxed(-1);
    hash->m_Place = Nowhere;
    hash->m_Newer = nullptr;
    hash->m_Older = nullptr;
}

void ZebDataBlockLru::makeNewest(ZebDataHash* hash)
{
    unlink(hash);
    keepClockAhead();
    hash->raiseStamp();
    hash->m_PlaceStamp = hash->m_Stamp.load(std::memory_order_relaxed);
    link(hash, m_Newest[Listed], Listed);
}

// Stamps of the list were taken before this thread got the delete lock, or by it. So the next one
// is later, unless the clock has gone back.
void ZebDataBlockLru::keepClockAhead()
{
    if (m_Newest[Listed] != nullptr)
        ZebUseClock::keepAfter(m_Newest[Listed]->m_PlaceStamp);
}

void ZebDataBlockLru::setAside(ZebDataHash* hash)
{
    unlink(hash);
    link(hash, m_Newest[Aside], Aside);
}

ZebDataHash* ZebDataBlockLru::oldest()
{
    // A pinned hash that is used stays: the thread that has marked it may have yet to push it, and
    // an accessor that ends meanwhile counts on that. In the list eviction meets it again.
    constexpr quint64 keeps = s_Evictable | s_Used;
    ZebDataHash* hash = m_Oldest[Listed];
    while (hash != nullptr &&
           ZEBTDX_GUARD(EvictSeesNotEvictable,
                        (hash->m_Word.load(std::memory_order_acquire) & keeps) == 0)) {
        setAside(hash);
        hash = m_Oldest[Listed];
    }
    return hash;
}

bool ZebDataBlockLru::isUnused(const ZebDataHash* hash, bool isExact) const
{
    // A drain takes one stack after another: it may find a use on one stack and miss an earlier
    // use, noted on another stack after that one was taken. It finds every use that ended before it
    // began.
    if (ZEBTDX_GUARD(EvictSeesDrainTime, !isExact && hash->m_PlaceStamp >= m_DrainBegan))
        return false;
    const quint64 word = hash->m_Word.load(std::memory_order_acquire);
    return !ZEBTDX_GUARD(EvictSeesNotEvictable, (word & s_Evictable) == 0) &&
           !ZEBTDX_GUARD(EvictSeesUsed, (word & s_Used) != 0);
}

void ZebDataBlockLru::admit(ZebDataHash* hash, ZebDataBlock* block)
{
    const bool evictable = !hash->isDontCache();
    if (evictable)
        makeNewest(hash);
    else
        setAside(hash);
    ++m_ResidentCount;
    hash->m_Block.store(block, std::memory_order_relaxed);
    quint64 word = hash->m_Word.load(std::memory_order_relaxed);
    quint64 next = 0;
    do {
        // Pins left over are those of accessors that a block without them has outlived.
        next = withoutPins(word) | s_Resident | (evictable ? s_Evictable : 0);
        // Release: a reader that finds the block resident also finds its bytes.
    } while (!hash->m_Word.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                                 std::memory_order_relaxed));
    noteListed(word, next);
}

ZebDataBlock* ZebDataBlockLru::dismiss(ZebDataHash* hash)
{
    if (ZEBTDX_GUARD(FreeDrainsUsed, true))
        awaitDrained(hash);
    quint64 word = hash->m_Word.load(std::memory_order_acquire);
    // No copy can begin any more, but a thread that has begun one may yet read which block it is.
    // Acquire: the readers of the bytes have finished before the caller deletes them.
    while (ZEBTDX_GUARD(EvictWaitsForCopies, (word & s_Copies) != 0)) {
        std::this_thread::yield();
        word = hash->m_Word.load(std::memory_order_acquire);
    }
    unlink(hash);
    ZebDataBlock* const block = hash->residentBlock();
    hash->m_Block.store(nullptr, std::memory_order_relaxed);
    if (block != nullptr)
        --m_ResidentCount;
    quint64 next = 0;
    do {
        next = word & ~(s_Resident | s_Evictable);
        // Last: a thread with the last reference may delete the hash as soon as it has no marks.
        // Acquire: as above, for those that have pinned the block.
    } while (!hash->m_Word.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                                 std::memory_order_acquire));
    noteListed(word, next);
    return block;
}

// Returns when the hash is on no stack. A thread that has just marked it pushes it without a wait.
// Not analysed: a part of operations that require the delete lock.
void ZebDataBlockLru::awaitDrained(ZebDataHash* hash) ZEBTDX_NO_THREAD_SAFETY_ANALYSIS
{
    while (m_CountsReaders && (hash->m_Word.load(std::memory_order_acquire) & s_Used) != 0) {
        drain();
        if ((hash->m_Word.load(std::memory_order_acquire) & s_Used) != 0)
            std::this_thread::yield();
    }
}

std::vector<ZebDataHash*> ZebDataBlockLru::residents() const
{
    std::vector<ZebDataHash*> hashes;
    hashes.reserve(static_cast<std::size_t>(m_ResidentCount));
    for (ZebDataHash* const newest : m_Newest) {
        for (ZebDataHash* hash = newest; hash != nullptr; hash = hash->m_Older) {
            if (hash->residentBlock() != nullptr)
                hashes.push_back(hash);
        }
    }
    return hashes;
}

ZebDataHash* ZebDataBlockLru::anyResident() const
{
    for (ZebDataHash* const newest : m_Newest) {
        ZebDataHash* hash = newest;
        while (hash != nullptr && hash->residentBlock() == nullptr)
            hash = hash->m_Older;
        if (hash != nullptr)
            return hash;
    }
    return nullptr;
}

int ZebDataBlockLru::residentCount() const
{
    return m_ResidentCount;
}
