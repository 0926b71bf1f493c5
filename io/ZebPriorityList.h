#pragma once

#include <QList>

#include <algorithm>
#include <utility>

/// A list of requests in ascending order of priority; a lower number is more urgent. Requests of
/// equal priority are in order of arrival.
///
/// Invariant: the list is sorted, except after lowerPriorityAt() until the next sort(). While it is
/// sorted, appending after equals and taking the head take no walk; otherwise insert() walks from
/// the head.
///
/// Thread safety: none. The owner of the list guards it with its own lock.
template <typename T>
class ZebPriorityList
{
public:
    /// Inserts an entry before the first entry with a greater priority number, or at the end. On an
    /// unsorted list, smaller entries may follow.
    void insert(int priority, const T& value)
    {
        m_Entries.insert(positionFor(priority, m_Entries.size()), Entry{priority, value});
    }

    bool isEmpty() const { return m_Entries.isEmpty(); }

    int size() const { return m_Entries.size(); }

    /// Requires a valid index, like all operations that take an index.
    int priorityAt(int index) const { return m_Entries.at(index).priority; }

    const T& valueAt(int index) const { return m_Entries.at(index).value; }

    /// Subtracts 1 from the priority number of an entry without moving it, so the list may be
    /// unsorted afterwards.
    void lowerPriorityAt(int index)
    {
        // Wraps around instead of overflowing.
        int& priority = m_Entries[index].priority;
        priority = static_cast<int>(static_cast<unsigned>(priority) - 1U);
        const bool isBelowBefore = index > 0 && m_Entries.at(index - 1).priority > priority;
        const bool isAboveNext =
            index + 1 < m_Entries.size() && m_Entries.at(index + 1).priority < priority;
        if (isBelowBefore || isAboveNext)
            m_InOrder = false;
    }

    /// Gives an entry another priority and moves it to where insert() would put it. Allocates
    /// nothing.
    void moveTo(int index, int priority)
    {
        // Out of the way first, so that the others are as insert() would find them.
        const int last = m_Entries.size() - 1;
        m_Entries.move(index, last);
        const int position = positionFor(priority, last);
        m_Entries[last].priority = priority;
        m_Entries.move(last, position);
    }

    /// Removes the head and returns its value. The list must not be empty.
    T takeFirst()
    {
        T value = m_Entries.takeFirst().value;
        noteRemoval();
        return value;
    }

    void removeAt(int index)
    {
        m_Entries.removeAt(index);
        noteRemoval();
    }

    /// Removes all entries, without deleting what pointers point to.
    void clear()
    {
        m_Entries.clear();
        m_InOrder = true;
    }

    /// Sorts the list. Entries of equal priority may change their order.
    void sort()
    {
        std::sort(m_Entries.begin(), m_Entries.end(),
                  [](const Entry& a, const Entry& b) { return a.priority < b.priority; });
        m_InOrder = true;
    }

private:
    struct Entry
    {
        int priority;
        T value;
    };

    // The position among the first `count` entries.
    int positionFor(int priority, int count) const
    {
        const auto isGreater = [](int wanted, const Entry& entry) {
            return wanted < entry.priority;
        };
        const auto begin = m_Entries.cbegin();
        const auto end = begin + count;
        if (m_InOrder) {
            // The common case: equal priorities.
            if (count == 0 || m_Entries.at(count - 1).priority <= priority)
                return count;
            return static_cast<int>(std::upper_bound(begin, end, priority, isGreater) - begin);
        }
        const auto found = std::find_if(
            begin, end, [&](const Entry& entry) { return isGreater(priority, entry); });
        return static_cast<int>(found - begin);
    }

    void noteRemoval()
    {
        if (m_Entries.size() < 2)
            m_InOrder = true;
    }

    QList<Entry> m_Entries;

    // Whether the list is known to be sorted. May stay false after the offending entry has been
    // removed: that costs walks, never a wrong position.
    bool m_InOrder = true;
};
