// The cost of the list of evictable blocks. Every operation takes constant time, so the rows of the
// large list should differ from those of the small list only by cache misses.

#include "manager/ZebDataBlockLru.h"

#include <QWriteLocker>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

constexpr int s_SmallList = 1000;
constexpr int s_LargeList = 1000000;

// About the distance of two hashes on the heap.
constexpr quintptr s_KeyDistance = 128;

// The list never dereferences its keys.
ZebDataHash* key(quintptr number)
{
    return reinterpret_cast<ZebDataHash*>((number + 1) * s_KeyDistance);
}

// The keys of a full list in an order that the prefetcher cannot predict.
std::vector<ZebDataHash*> shuffledKeys(int count)
{
    std::vector<ZebDataHash*> keys;
    keys.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        keys.push_back(key(static_cast<quintptr>(i)));
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    return keys;
}

void fill(ZebDataBlockLru& lru, int count)
{
    for (int i = 0; i < count; ++i)
        lru.add(key(static_cast<quintptr>(i)));
}

// Adds a block and removes it again.
void addAndRemove(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    ZebDataBlockLru lru;
    fill(lru, count);
    quintptr next = static_cast<quintptr>(count);
    for ([[maybe_unused]] auto _ : state) {
        ZebDataHash* const fresh = key(next++);
        lru.add(fresh);
        const QWriteLocker locker(&lru.lock());
        lru.remove(fresh);
    }
    state.SetItemsProcessed(state.iterations());
}

// Applies `operation` to the keys of a full list in random order.
template <typename Operation>
void forAnyKey(benchmark::State& state, Operation operation)
{
    const int count = static_cast<int>(state.range(0));
    ZebDataBlockLru lru;
    fill(lru, count);
    const std::vector<ZebDataHash*> keys = shuffledKeys(count);
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        operation(lru, keys[next]);
        next = next + 1 == keys.size() ? 0 : next + 1;
    }
    state.SetItemsProcessed(state.iterations());
}

void touchAny(benchmark::State& state)
{
    forAnyKey(state, [](ZebDataBlockLru& lru, ZebDataHash* hash) { lru.touch(hash); });
}

void containsAny(benchmark::State& state)
{
    forAnyKey(state, [](ZebDataBlockLru& lru, ZebDataHash* hash) {
        benchmark::DoNotOptimize(lru.contains(hash));
    });
}

BENCHMARK(addAndRemove)
    ->Name("Lru/add_and_remove")
    ->ArgName("blocks")
    ->Arg(s_SmallList)
    ->Arg(s_LargeList);
BENCHMARK(touchAny)->Name("Lru/touch")->ArgName("blocks")->Arg(s_SmallList)->Arg(s_LargeList);
BENCHMARK(containsAny)->Name("Lru/contains")->ArgName("blocks")->Arg(s_SmallList)->Arg(s_LargeList);

} // namespace
