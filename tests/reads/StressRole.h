#pragma once

#include "reads/StressActivity.h"
#include "reads/StressBlocks.h"

#include <QThread>
#include <QtGlobal>

#include <mutex>
#include <random>
#include <vector>

/// What differs from one round, the time between two quiet points, to the next.
struct StressRound
{
    /// Whether all blocks fit, so that none is evicted or loaded.
    bool m_IsPlentiful = false;
    /// Whether blocks are admitted that need a write. Otherwise no write is in flight.
    bool m_Writes = true;
};

/// What all threads of the stress share.
struct StressShared
{
    StressBlocks* m_Blocks = nullptr;
    /// Changes only while all workers stand still.
    StressRound m_Round;
    std::vector<StressActivity*> m_Activities;
    /// Held while a snapshot of all hashes exists: it adds references to each.
    std::mutex m_Snapshots;
};

/// The work of one thread of the stress.
class StressRole
{
public:
    StressRole(StressShared& shared, StressActivity& activity, quint32 seed)
        : m_Shared(shared), m_Activity(activity), m_Random(seed)
    {
        for (const StressBlock& block : *shared.m_Blocks)
            m_References.push_back(block.m_Reference);
    }
    virtual ~StressRole() = default;
    StressRole(const StressRole&) = delete;
    StressRole& operator=(const StressRole&) = delete;

    /// Some operations; returns within milliseconds.
    virtual void step() = 0;

    /// Drops all that the checks at a quiet point do not expect.
    virtual void prepareToStand() {}

    /// The thread's own reference to a block, one of each.
    ZebDataReference& referenceTo(int block)
    {
        return m_References[static_cast<std::size_t>(block)];
    }

protected:
    int below(int end) { return static_cast<int>(m_Random() % static_cast<quint32>(end)); }

    /// A block for any thread; few of them most of the time, so that threads meet.
    StressBlock& anyShared()
    {
        const int end = below(2) == 0 ? 4 : StressBlocks::sharedCount();
        return m_Shared.m_Blocks->at(below(end));
    }

    static void pause(int microseconds)
    {
        QThread::usleep(static_cast<unsigned long>(microseconds));
    }

    StressShared& m_Shared;
    StressActivity& m_Activity;
    std::minstd_rand m_Random;

private:
    std::vector<ZebDataReference> m_References;
};
