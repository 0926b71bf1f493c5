#include "reads/OrderScript.h"

#include <algorithm>
#include <numeric>
#include <string>
#include <thread>

namespace {

constexpr std::size_t s_HeadBlocks = 4;
constexpr std::size_t s_UnusedBlocks = 10;
constexpr std::size_t s_FewestUsed = 4;
constexpr int s_Steps = 60;
// Each reload of a block at the head evicts another one. Together with these, no more blocks are
// evicted than there are unused.
constexpr int s_Evictions = 6;
static_assert(s_HeadBlocks + s_Evictions <= s_UnusedBlocks);

} // namespace

OrderScript::OrderScript(const std::vector<StressBlock*>& blocks, int workers, quint32 seed)
    : m_Random(seed),
      m_IsPossible(blocks.size() >= s_HeadBlocks + s_UnusedBlocks + s_FewestUsed && workers >= 3)
{
    if (!m_IsPossible)
        return;
    std::vector<StressBlock*> shuffled = blocks;
    std::shuffle(shuffled.begin(), shuffled.end(), m_Random);
    const auto unused = shuffled.begin() + s_HeadBlocks;
    const auto used = unused + s_UnusedBlocks;
    m_Head.assign(shuffled.begin(), unused);
    m_Unused.assign(unused, used);
    m_Used.assign(used, shuffled.end());
    std::vector<int> threads(static_cast<std::size_t>(workers));
    std::iota(threads.begin(), threads.end(), 0);
    std::shuffle(threads.begin(), threads.end(), m_Random);
    m_Actors = {threads[0], threads[1]};
    m_Evictor = threads[2];
    m_Open.resize(StressBlocks::s_Shared);
}

void OrderScript::load()
{
    for (const std::vector<StressBlock*>* const part : {&m_Head, &m_Unused, &m_Used}) {
        for (StressBlock* const block : *part) {
            block->requireBytes(block->m_Reference.constAccessor());
            m_Expected.push_back(block);
        }
    }
    makeSteps();
}

void OrderScript::nowNewest(StressBlock* block)
{
    m_Expected.remove(block);
    m_Expected.push_back(block);
}

void OrderScript::makeSteps()
{
    std::vector<StressBlock*> head = m_Head;
    std::vector<StressBlock*> open;
    for (int i = 0; i < s_Steps; ++i) {
        const int actor = m_Actors[m_Random() % 2];
        if (!head.empty() && m_Random() % 4 == 0) {
            m_Steps.push_back({actor, Use::OpenAndClose, head.front()});
            nowNewest(head.front());
            head.erase(head.begin());
            continue;
        }
        StressBlock* const block = m_Used[m_Random() % m_Used.size()];
        const auto opened = std::find(open.begin(), open.end(), block);
        const bool isOpen = opened != open.end();
        Use use = std::array{Use::OpenAndClose, Use::OpenAndClose, Use::Open, Use::Query,
                             Use::Preload}[m_Random() % 5];
        if (use == Use::Open && isOpen)
            use = Use::Close;
        m_Steps.push_back({actor, use, block});
        if (use == Use::Open)
            open.push_back(block);
        else if (use == Use::Close)
            open.erase(opened);
        // While an accessor is open, no use changes the order; its end makes the block the newest.
        if (use == Use::Close || (use != Use::Open && !isOpen))
            nowNewest(block);
    }
    for (StressBlock* const block : open) {
        m_Steps.push_back({m_Actors[0], Use::Close, block});
        nowNewest(block);
    }
}

void OrderScript::perform(const Step& step)
{
    const ZebDataReference& reference = step.m_Block->m_Reference;
    std::optional<ZebConstAccessor>& open =
        m_Open[static_cast<std::size_t>(step.m_Block->m_Number)];
    switch (step.m_Use) {
    case Use::OpenAndClose:
        step.m_Block->requireBytes(reference.constAccessor());
        break;
    case Use::Open:
        open.emplace(reference.constAccessor());
        break;
    case Use::Close:
        open.reset();
        break;
    case Use::Query:
        require(reference.isInMemory(), "a block that is not the oldest is not resident");
        break;
    case Use::Preload:
        reference.preload();
        break;
    }
}

void OrderScript::play(int actor)
{
    for (std::size_t turn = 0; turn < m_Steps.size(); ++turn) {
        if (m_Steps[turn].m_Actor != actor)
            continue;
        while (m_Turn.load(std::memory_order_acquire) != turn)
            std::this_thread::yield();
        perform(m_Steps[turn]);
        m_Turn.store(turn + 1, std::memory_order_release);
    }
}

void OrderScript::evictSome(const std::function<void()>& evictNext)
{
    const std::size_t stride = m_Steps.size() / s_Evictions;
    for (std::size_t i = 0; i < s_Evictions; ++i) {
        while (m_Turn.load(std::memory_order_acquire) < i * stride)
            std::this_thread::yield();
        evictNext();
    }
}

void OrderScript::requireOrder(const std::function<void()>& evictNext)
{
    const auto isUnused = [this](StressBlock* block) {
        return std::find(m_Unused.begin(), m_Unused.end(), block) != m_Unused.end();
    };
    // What was evicted meanwhile are the oldest blocks. A query of a resident block is a use, so
    // the queries keep the order.
    while (!m_Expected.empty() && !m_Expected.front()->m_Reference.isInMemory()) {
        if (!isUnused(m_Expected.front()))
            failStress("block " + std::to_string(m_Expected.front()->m_Number) +
                       " was evicted before older ones");
        m_Expected.pop_front();
    }
    // The query that has ended the loop was a use.
    bool isFirst = true;
    for (;;) {
        for (StressBlock* const block : m_Expected) {
            if (!block->m_Reference.isInMemory())
                failStress("block " + std::to_string(block->m_Number) +
                           " was evicted before older ones");
        }
        if (m_Expected.empty())
            return;
        if (isFirst && manager().liveBlocks() != static_cast<qint64>(m_Expected.size()))
            failStress("other blocks are evictable than those of the order");
        isFirst = false;
        evictNext();
        if (m_Expected.front()->m_Reference.isInMemory())
            failStress("block " + std::to_string(m_Expected.front()->m_Number) +
                       " is the oldest and was not evicted");
        m_Expected.pop_front();
    }
}
