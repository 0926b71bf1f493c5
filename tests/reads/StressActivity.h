#pragma once

#include <QtGlobal>

#include <atomic>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// What an operation needs, and so what may block it; flags.
enum StressKind : unsigned
{
    /// Nothing blocks it for long.
    NeedsNothing = 0,
    /// It waits while another thread has a ZebDataDeleteLocker.
    NeedsDeleteLock = 1,
    /// It waits while another thread has locked the hash.
    ChangesReferences = 2
};

/// What a thread of the stress does now, and how many operations on each block it has begun and
/// ended.
///
/// Thread safety: the thread itself writes; any thread may read. Sequentially consistent: a check
/// relies on the order of the numbers of several threads.
class StressActivity
{
public:
    StressActivity(std::string name, int blocks)
        : m_Name(std::move(name)),
          m_Blocks(blocks),
          m_Counters(static_cast<std::size_t>(blocks) * 4)
    {}

    const std::string& name() const { return m_Name; }
    int blocks() const { return m_Blocks; }

    /// How many operations of all kinds it has begun and ended; a change is progress.
    quint64 progress() const { return m_Progress.load(); }
    void addProgress() { m_Progress.fetch_add(1); }

    std::string doing() const
    {
        const char* const what = m_What.load();
        const int block = m_Block.load();
        return block < 0 ? what : std::string(what) + " block " + std::to_string(block);
    }
    void setDoing(const char* what, int block = -1)
    {
        m_What.store(what);
        m_Block.store(block);
        addProgress();
    }

    std::atomic<quint64>& begun(StressKind kind, int block) { return counter(kind, block, 0); }
    std::atomic<quint64>& ended(StressKind kind, int block) { return counter(kind, block, 1); }

private:
    std::atomic<quint64>& counter(StressKind kind, int block, int end)
    {
        const int family = kind == NeedsDeleteLock ? 0 : 2;
        return m_Counters[static_cast<std::size_t>(block * 4 + family + end)];
    }

    std::string m_Name;
    int m_Blocks;
    std::atomic<const char*> m_What{"starts"};
    std::atomic<int> m_Block{-1};
    std::atomic<quint64> m_Progress{0};
    std::vector<std::atomic<quint64>> m_Counters;
};

/// An operation on a block, for as long as it exists.
class StressOperation
{
public:
    StressOperation(StressActivity& activity, const char* what, int block, unsigned kinds)
        : m_Activity(activity), m_Block(block), m_Kinds(kinds)
    {
        m_Activity.setDoing(what, block);
        for (const StressKind kind : {NeedsDeleteLock, ChangesReferences}) {
            if ((m_Kinds & kind) != 0)
                m_Activity.begun(kind, m_Block).fetch_add(1);
        }
    }
    ~StressOperation()
    {
        for (const StressKind kind : {NeedsDeleteLock, ChangesReferences}) {
            if ((m_Kinds & kind) != 0)
                m_Activity.ended(kind, m_Block).fetch_add(1);
        }
        m_Activity.setDoing("is between two operations");
    }
    StressOperation(const StressOperation&) = delete;
    StressOperation& operator=(const StressOperation&) = delete;

private:
    StressActivity& m_Activity;
    int m_Block;
    unsigned m_Kinds;
};
