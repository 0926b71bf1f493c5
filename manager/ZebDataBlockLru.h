#pragma once

#include "support/ZebTdxExport.h"
#include "support/ZebThreadSafety.h"

#include <QAtomicInt>

#include <array>
#include <atomic>
#include <vector>

class ZebDataBlock;
class ZebDataHash;

/// The resident blocks that may be evicted, from the most to the least recently used.
///
/// The links are in the hashes themselves, so a hash is in one list at most, and no operation but
/// residents() allocates. A hash counts as listed while its word says that it is evictable. Readers
/// change that without a lock: opening a block only clears the mark, and closing it only notes the
/// hash on a stack of the closing thread, with the time. drain() brings the list up to date.
///
/// Invariants, with the delete lock held:
///  - The list is sorted by m_PlaceStamp, the newest first.
///  - An evictable hash is in the list, or on the stack of a thread, or both.
///  - After drain() every hash is at its place that was not used since the drain began.
///  - A resident hash is in the list or set aside.
///
/// Locks: every operation but contains(), count() and countReaders(), which take no lock, requires
/// the delete lock.
class ZEBTDX_EXPORT ZebDataBlockLru
{
public:
    ZebDataBlockLru();
    ~ZebDataBlockLru();

    /// Whether the hash is listed.
    bool contains(ZebDataHash* hash) const;

    /// How many hashes are listed. While other threads open and close accessors: the number at some
    /// moment of the call, or, if they never pause, an approximation.
    int count() const;

    /// Adds the hash as the newest, unless it is listed.
    void add(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Makes a listed hash the newest; ignores any other.
    void touch(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Removes a hash, and the note of its use; ignores one that is not listed. A hash without a
    /// block must be removed before it ends.
    void remove(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Removes every hash that is listed or set aside.
    void clear() ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Brings the list up to date with the uses that other threads have noted.
    void drain() ZEBTDX_REQUIRES(ZebDeleteLock);

    /// The next hash to evict as far as drained, null when the list is empty. Sets pinned hashes
    /// aside that it meets.
    ZebDataHash* oldest() ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Whether a hash is listed and not used since the last drain, and that drain has found every
    /// use that ended before its own. So the least recently used one may be evicted.
    ///
    /// @param isExact whether no reader has passed the gate during the drain
    bool isUnused(const ZebDataHash* hash, bool isExact) const ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Makes `block` the resident block of the hash, evictable as the newest unless it is uncached.
    void admit(ZebDataHash* hash, ZebDataBlock* block) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Ends the residency of the block of a hash and returns it; null when there is none. Removes
    /// the hash. Waits until threads that copy the bytes of the block have finished. No thread may
    /// open the block meanwhile: the hash is locked, has ended, or the gate of the readers is
    /// closed.
    ZebDataBlock* dismiss(ZebDataHash* hash) ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Every hash with a resident block, in no particular order.
    std::vector<ZebDataHash*> residents() const ZEBTDX_REQUIRES(ZebDeleteLock);

    /// One of them, null when there is none.
    ZebDataHash* anyResident() const ZEBTDX_REQUIRES(ZebDeleteLock);

    /// How many blocks are resident, pinned and uncached ones included.
    int residentCount() const ZEBTDX_REQUIRES(ZebDeleteLock);

    /// Makes this the list of the store: count() then includes what readers have opened and closed.
    void countReaders();

private:
    friend class ZebDataBlockManager;

    Q_DISABLE_COPY(ZebDataBlockLru)

    // The lists that a hash can be in.
    enum Place : int
    {
        Listed = 0,
        Aside = 1,
        Nowhere = 2,
        // On the way from a stack into the list, while a drain runs.
        Draining = 3
    };

    // How often hashes were listed and unlisted.
    struct Changes
    {
        quint64 m_Listed = 0;
        quint64 m_Unlisted = 0;
    };

    // Chains are linked by m_Older alone.
    ZebDataHash* takeUsed(ZebDataHash* used, ZebDataHash* chain);
    static ZebDataHash* merged(ZebDataHash* a, ZebDataHash* b);
    static ZebDataHash* sorted(ZebDataHash* chain);
    void place(ZebDataHash* newestFirst);

    void link(ZebDataHash* hash, ZebDataHash* older, Place place);
    void unlink(ZebDataHash* hash);
    void keepClockAhead();
    void makeNewest(ZebDataHash* hash);
    void setAside(ZebDataHash* hash);
    void noteListed(quint64 before, quint64 after);
    void changeMark(ZebDataHash* hash, bool evictable);
    void awaitDrained(ZebDataHash* hash);
    Changes changes() const;

    // The ends of each list, by its place.
    std::array<ZebDataHash*, 2> m_Newest{};
    std::array<ZebDataHash*, 2> m_Oldest{};

    int m_ResidentCount = 0;

    // When the last drain began, by ZebUseClock.
    quint64 m_DrainBegan = 0;

    // How often hashes were listed and unlisted with the delete lock held; threads count their own
    // in their slots. Both only grow.
    std::atomic<quint64> m_Listed{0};
    std::atomic<quint64> m_Unlisted{0};

    bool m_CountsReaders = false;
};

/// How many hashes are linked in a list, over all lists; pinned ones among them until eviction
/// meets them. Kept on purpose: nothing in the library reads it; hosts and debuggers may.
extern ZEBTDX_EXPORT QAtomicInt m_LruNodeCount;
