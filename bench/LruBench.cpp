// The cost of the list of evictable blocks. Every operation takes constant time, so the rows of the
// large list should differ from those of the small list only by cache misses.

#include "hash/ZebDataHash.h"
#include "manager/ZebDataBlockLru.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr int s_SmallList = 1000;
constexpr int s_LargeList = 1000000;

// Hashes as the list needs them, one after another on the heap.
class Hashes
{
public:
    explicit Hashes(int count)
    {
        for (int i = 0; i < count; ++i)
            m_Hashes.push_back(std::make_unique<ZebDataHash>());
    }

    ZebDataHash* operator[](int i) const { return m_Hashes[static_cast<size_t>(i)].get(); }

    void addTo(ZebDataBlockLru& lru, int count) const
    {
        for (int i = 0; i < count; ++i)
            lru.add((*this)[i]);
    }

    // In an order that the prefetcher cannot predict.
    std::vector<ZebDataHash*> shuffled() const
    {
        std::vector<ZebDataHash*> hashes;
        hashes.reserve(m_Hashes.size());
        for (const std::unique_ptr<ZebDataHash>& hash : m_Hashes)
            hashes.push_back(hash.get());
        std::shuffle(hashes.begin(), hashes.end(), std::mt19937(1));
        return hashes;
    }

private:
    std::vector<std::unique_ptr<ZebDataHash>> m_Hashes;
};

// Adds a block and removes it again.
void addAndRemove(benchmark::State& state)
{
    const int count = static_cast<int>(state.range(0));
    const Hashes hashes(count + 1);
    ZebDataBlockLru lru;
    hashes.addTo(lru, count);
    for ([[maybe_unused]] auto _ : state) {
        lru.add(hashes[count]);
        lru.remove(hashes[count]);
    }
    state.SetItemsProcessed(state.iterations());
}

// Applies `operation` to the keys of a full list in random order.
template <typename Operation>
void forAnyKey(benchmark::State& state, Operation operation)
{
    const int count = static_cast<int>(state.range(0));
    const Hashes hashes(count);
    ZebDataBlockLru lru;
    hashes.addTo(lru, count);
    const std::vector<ZebDataHash*> keys = hashes.shuffled();
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
