#pragma once

#include "reads/StressActivity.h"

#include <cstddef>
#include <string>
#include <vector>

/// Finds operations of other threads that both begin and end while this object exists, so that the
/// holder of a lock can check that it blocks them.
class StressWindow
{
public:
    /// @param block watches this block alone; all blocks when it is negative
    StressWindow(const std::vector<StressActivity*>& activities, StressKind kind, int block)
        : m_Activities(activities), m_Kind(kind), m_Block(block)
    {
        forEach([this](StressActivity& activity, int watched) {
            m_Begun.push_back(activity.begun(m_Kind, watched).load());
        });
    }

    /// A description of such an operation; empty when there is none so far.
    std::string completedOperation() const
    {
        std::string found;
        std::size_t place = 0;
        forEach([&](StressActivity& activity, int watched) {
            // More have ended than had begun: so at least the newest of them began later.
            if (activity.ended(m_Kind, watched).load() > m_Begun[place++])
                found = activity.name() + " ended an operation on block " + std::to_string(watched);
        });
        return found;
    }

    /// How many operations on a block have begun and not ended.
    static int underWay(const std::vector<StressActivity*>& activities, StressKind kind, int block)
    {
        qint64 count = 0;
        for (StressActivity* const activity : activities) {
            // In this order, so that an operation that ends in between is counted.
            const quint64 ended = activity->ended(kind, block).load();
            count += static_cast<qint64>(activity->begun(kind, block).load() - ended);
        }
        return static_cast<int>(count);
    }

private:
    template <typename Function>
    void forEach(Function function) const
    {
        for (StressActivity* const activity : m_Activities) {
            for (int block = 0; block < activity->blocks(); ++block) {
                if (m_Block < 0 || block == m_Block)
                    function(*activity, block);
            }
        }
    }

    const std::vector<StressActivity*>& m_Activities;
    StressKind m_Kind;
    int m_Block;
    std::vector<quint64> m_Begun;
};
