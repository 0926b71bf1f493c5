// The cost of a long queue of equal priorities, compared with a list that searches from its head
// for every insertion. The writers' queues are like that: every block has the same priority, and a
// fence goes to the head.
//
// The cost of one block should not grow with the length of the queue; in the naive list it does. A
// fence finds its place at the head in both.

#include "io/ZebPriorityList.h"

#include <QList>

#include <benchmark/benchmark.h>

namespace {

constexpr int s_BlockPriority = 1;
constexpr int s_FencePriority = 0;
constexpr int s_ShortQueue = 1000;
constexpr int s_LongQueue = 100000;

// The naive list takes seconds for the long queue, so it runs once.
constexpr int s_OneRound = 1;

// The naive list: every insertion searches from the head.
class PlainWalk
{
public:
    void insert(int priority, int value)
    {
        int index = 0;
        while (index < m_Entries.size() && m_Entries.at(index).priority <= priority)
            ++index;
        m_Entries.insert(index, {priority, value});
    }
    int takeFirst() { return m_Entries.takeFirst().value; }
    bool isEmpty() const { return m_Entries.isEmpty(); }

private:
    struct Entry
    {
        int priority;
        int value;
    };
    QList<Entry> m_Entries;
};

// Inserts `count` values of equal priority, and takes them all in the same order.
template <typename List>
void equalsComeAndGo(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    for ([[maybe_unused]] auto _ : state) {
        List list;
        for (int i = 0; i < count; ++i)
            list.insert(s_BlockPriority, i);
        for (int expected = 0; !list.isEmpty(); ++expected) {
            if (list.takeFirst() != expected) {
                state.SkipWithError("equal priorities changed their order");
                return;
            }
        }
    }
    state.SetItemsProcessed(state.iterations() * count);
}

// Inserts a fence before `count` values of equal priority, and takes it.
template <typename List>
void fenceAtTheHead(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    constexpr int fence = -1;
    List list;
    for (int i = 0; i < count; ++i)
        list.insert(s_BlockPriority, i);
    for ([[maybe_unused]] auto _ : state) {
        list.insert(s_FencePriority, fence);
        if (list.takeFirst() != fence) {
            state.SkipWithError("the fence was not at the head");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations());
}

using List = ZebPriorityList<int>;

BENCHMARK(equalsComeAndGo<List>)
    ->Name("PriorityList/EqualsComeAndGo")
    ->Arg(s_ShortQueue)
    ->Arg(s_LongQueue)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(equalsComeAndGo<PlainWalk>)
    ->Name("PriorityListPlainWalk/EqualsComeAndGo")
    ->Arg(s_ShortQueue)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(equalsComeAndGo<PlainWalk>)
    ->Name("PriorityListPlainWalk/EqualsComeAndGo")
    ->Arg(s_LongQueue)
    ->Iterations(s_OneRound)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(fenceAtTheHead<List>)
    ->Name("PriorityList/FenceAtTheHead")
    ->Arg(s_ShortQueue)
    ->Arg(s_LongQueue);
BENCHMARK(fenceAtTheHead<PlainWalk>)
    ->Name("PriorityListPlainWalk/FenceAtTheHead")
    ->Arg(s_ShortQueue);

} // namespace
