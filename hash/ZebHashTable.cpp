#include "hash/ZebHashTable.h"

#include <algorithm>
#include <new>

void ZebHashTable::insert(quint64 number, ZebDataHash* hash)
{
    // Above a load of three quarters the runs of full slots would get long.
    const std::size_t slots = slotCount();
    if ((m_Size + std::size_t(1)) * 4 > slots * 3 && !resize(std::max(s_MinSlots, slots * 2)))
        throw std::bad_alloc();
    place(number, ZebHashHandle(hash));
    ++m_Size;
}

bool ZebHashTable::erase(quint64 number, const ZebDataHash* hash)
{
    if (m_Slots == nullptr)
        return false;
    std::size_t hole = number & m_Mask;
    while (m_Slots[hole].m_Handle.data() != hash) {
        if (m_Slots[hole].isEmpty())
            return false;
        hole = (hole + 1) & m_Mask;
    }
    // Closes the gap, so that no look-up stops at it: each later hash of the run moves into the
    // hole unless the hole is before the slot that its number gives.
    for (std::size_t i = (hole + 1) & m_Mask; !m_Slots[i].isEmpty(); i = (i + 1) & m_Mask) {
        const std::size_t home = m_Slots[i].m_Number & m_Mask;
        if (((i - home) & m_Mask) >= ((i - hole) & m_Mask)) {
            m_Slots[hole] = m_Slots[i];
            hole = i;
        }
    }
    m_Slots[hole] = Slot();
    --m_Size;
    // Gives memory back after a peak. Without memory for a smaller table this one stays.
    if (slotCount() > s_MinSlots && m_Size < slotCount() / 8)
        resize(slotCount() / 2);
    return true;
}

bool ZebHashTable::resize(std::size_t slotCount)
{
    std::unique_ptr<Slot[]> slots(new (std::nothrow) Slot[slotCount]);
    if (slots == nullptr)
        return false;
    const std::size_t oldCount = this->slotCount();
    m_Slots.swap(slots);
    m_Mask = static_cast<quint32>(slotCount - 1);
    for (std::size_t i = 0; i < oldCount; ++i) {
        if (!slots[i].isEmpty())
            place(slots[i].m_Number, slots[i].m_Handle);
    }
    return true;
}

void ZebHashTable::place(quint64 number, const ZebHashHandle& handle)
{
    std::size_t i = number & m_Mask;
    while (!m_Slots[i].isEmpty())
        i = (i + 1) & m_Mask;
    m_Slots[i].m_Number = number;
    m_Slots[i].m_Handle = handle;
}
