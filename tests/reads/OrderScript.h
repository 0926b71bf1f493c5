#pragma once

#include "reads/StressBlocks.h"

#include <QtGlobal>

#include <array>
#include <atomic>
#include <functional>
#include <list>
#include <optional>
#include <random>
#include <vector>

/// Uses of blocks by two threads that take turns, so that the order of the uses is known, while a
/// third thread evicts. Three kinds of blocks: the oldest ones, which the threads use while they
/// are being evicted; those after them, which no thread uses and which may be evicted; and the
/// others, which are used and must not be evicted.
class OrderScript
{
public:
    OrderScript(const std::vector<StressBlock*>& blocks, int workers, quint32 seed);

    /// Whether there are enough blocks and threads.
    bool isPossible() const { return m_IsPossible; }

    const std::array<int, 2>& actors() const { return m_Actors; }
    int evictor() const { return m_Evictor; }

    /// Makes the blocks resident in an order. None is evictable before.
    void load();

    /// The part of a thread.
    void play(int actor);

    /// Evicts a few blocks in the meantime.
    void evictSome(const std::function<void()>& evictNext);

    /// Evicts the blocks and compares the order. No thread uses the store meanwhile.
    void requireOrder(const std::function<void()>& evictNext);

private:
    enum class Use
    {
        OpenAndClose,
        /// Leaves the accessor open.
        Open,
        /// Closes an accessor that was left open.
        Close,
        Query,
        Preload
    };
    struct Step
    {
        int m_Actor;
        Use m_Use;
        StressBlock* m_Block;
    };

    void addStep(int actor, Use use, StressBlock* block);
    void makeSteps();
    void perform(const Step& step);
    void nowNewest(StressBlock* block);

    std::minstd_rand m_Random;
    bool m_IsPossible;
    std::array<int, 2> m_Actors{};
    int m_Evictor = 0;
    std::vector<StressBlock*> m_Head;
    std::vector<StressBlock*> m_Unused;
    std::vector<StressBlock*> m_Used;
    std::vector<Step> m_Steps;
    std::atomic<std::size_t> m_Turn{0};
    // Left open between two steps, by the number of the block.
    std::vector<std::optional<ZebConstAccessor>> m_Open;
    // All blocks in the order of their last use, the oldest first.
    std::list<StressBlock*> m_Expected;
};
