#pragma once

#include <QList>

#include <algorithm>
#include <utility>

/// A list of requests in ascending order of priority, a lower number being more urgent; requests of
/// equal priority stand in order of arrival.
///
/// Invariant: the list is in order, but for what lowerPriorityAt() has put out of order and sort()
/// has not repaired yet. While it is in order, adding behind equals and taking the head cost no
/// walk, so a long queue of equals stays cheap; out of order, insert() walks from the head.
///
/// Thread safety: none. The owner of the list guards it with its own lock.
template <typename T>
class ZebPriorityList
{
public:
    /// Places a new entry before the first one, seen from the head, whose priority number is
    /// greater, or at the end. On a list out of order, a smaller entry further along is not looked
    /// at.
    void insert(int priority, const T& value)
    {
        m_Entries.insert(positionFor(priority), Entry{priority, value});
    }

    bool isEmpty() const { return m_Entries.isEmpty(); }

    int size() const { return m_Entries.size(); }

    /// Requires a valid index, as do all operations that take one.
    int priorityAt(int index) const { return m_Entries.at(index).priority; }

    const T& valueAt(int index) const { return m_Entries.at(index).value; }

    /// Subtracts 1 from the priority number of an entry and leaves the entry where it is, so the
    /// list may be out of order afterwards.
    void lowerPriorityAt(int index)
    {
        // Promotion has no end; the number wraps rather than overflow.
        int& priority = m_Entries[index].priority;
        priority = static_cast<int>(static_cast<unsigned>(priority) - 1U);
        const bool isBelowBefore = index > 0 && m_Entries.at(index - 1).priority > priority;
        const bool isAboveNext =
            index + 1 < m_Entries.size() && m_Entries.at(index + 1).priority < priority;
        if (isBelowBefore || isAboveNext)
            m_InOrder = false;
    }

    /// Removes the head and returns its value. Requires that there is one.
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

    /// Removes all entries; what they point at stays.
    void clear()
    {
        m_Entries.clear();
        m_InOrder = true;
    }

    /// Brings the list in order again. Entries of equal priority may change places here, and only
    /// here.
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

    int positionFor(int priority) const
    {
        const auto isGreater = [](int wanted, const Entry& entry) {
            return wanted < entry.priority;
        };
        const auto begin = m_Entries.cbegin();
        const auto end = m_Entries.cend();
        if (m_InOrder) {
            // The end first: most requests come at the priority of those that wait already.
            if (m_Entries.isEmpty() || m_Entries.last().priority <= priority)
                return m_Entries.size();
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

    // Whether the whole list is known to be in order. May be false for a list that is so again by
    // the removal of the offending entry: that costs walks, never a wrong place.
    bool m_InOrder = true;
};
