#pragma once

// Internal: the table of a shard of the registry. Not installed.

#include "hash/ZebHashHandle.h"

#include <QtGlobal>

#include <cstddef>
#include <memory>

/// A set of hashes that are found by the numbers of a ZebDigestMix. It knows no digests: the caller
/// says which of the hashes with one number is the right one.
///
/// Open addressing with linear probing: a hash stands at the slot that its number gives, or after
/// it with no empty slot in between. At most three quarters of the slots are full, so a hash takes
/// 21 to 43 bytes of memory while the table grows. It shrinks when less than an eighth is full.
///
/// Thread safety: that of a plain container; the shard's mutex guards it.
class ZebHashTable
{
public:
    int size() const { return static_cast<int>(m_Size); }

    /// The hash of this number that `isWanted` accepts, or null. Allocates nothing.
    template <typename IsWanted>
    ZebDataHash* find(quint64 number, IsWanted isWanted) const
    {
        if (m_Slots == nullptr)
            return nullptr;
        for (std::size_t i = number & m_Mask; !m_Slots[i].isEmpty(); i = (i + 1) & m_Mask) {
            const Slot& slot = m_Slots[i];
            if (slot.m_Number == number && isWanted(*slot.m_Handle.data()))
                return slot.m_Handle.data();
        }
        return nullptr;
    }

    /// Adds a hash that is not in the table. Throws std::bad_alloc and changes nothing if there is
    /// no memory.
    void insert(quint64 number, ZebDataHash* hash);

    /// Removes this very hash. Returns false if it is not in the table. Cannot fail.
    bool erase(quint64 number, const ZebDataHash* hash);

    /// Calls `visit` with each hash. It may change the table; the walk may then miss a hash or meet
    /// it twice, but meets none that is gone.
    template <typename Visit>
    void forEach(Visit visit) const
    {
        for (std::size_t i = 0; i < slotCount(); ++i) {
            if (!m_Slots[i].isEmpty())
                visit(m_Slots[i].m_Handle.data());
        }
    }

private:
    struct Slot
    {
        bool isEmpty() const { return m_Handle.data() == nullptr; }

        quint64 m_Number = 0;
        ZebHashHandle m_Handle;
    };

    static constexpr std::size_t s_MinSlots = 8;

    std::size_t slotCount() const { return m_Slots == nullptr ? 0 : std::size_t(m_Mask) + 1; }

    /// Moves all hashes to a table of `slotCount` slots, a power of two. Returns false and changes
    /// nothing if there is no memory.
    bool resize(std::size_t slotCount);

    /// Writes to the first empty slot from the one that the number gives.
    void place(quint64 number, const ZebHashHandle& handle);

    std::unique_ptr<Slot[]> m_Slots;
    quint32 m_Mask = 0;
    quint32 m_Size = 0;
};
