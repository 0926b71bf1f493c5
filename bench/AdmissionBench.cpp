// What it costs to admit a block, beside the digest that every admission has to compute.

#include "data/ZebDataReference.h"
#include "hash/ZebDataHash.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr qint64 s_MemoryLimit = 1024LL * 1024 * 1024;

// How many bytes of distinct blocks are held before they are dropped.
constexpr qint64 s_HeldBytes = 64LL * 1024 * 1024;

// The store on a cache root of its own, for the length of one run.
class BenchStore
{
public:
    BenchStore()
    {
        ZebDataBlockManager::instance().setup(QStringList(m_Directory.path()), s_MemoryLimit);
    }
    ~BenchStore() { ZebDataBlockManager::instance().cleanUp(true); }
    BenchStore(const BenchStore&) = delete;
    BenchStore& operator=(const BenchStore&) = delete;

private:
    QTemporaryDir m_Directory;
};

// Bytes that no earlier round has had.
void stamp(QByteArray* bytes, quint64 round)
{
    std::memcpy(bytes->data(), &round, sizeof(round));
}

ZebDataReference admit(const QByteArray& bytes)
{
    return ZebDataBlockManager::instance().addBlock(bytes, ZebModifyAccessor::Cached, true);
}

void setBytes(benchmark::State* state)
{
    state->SetBytesProcessed(static_cast<int64_t>(state->iterations()) * state->range(0));
}

void sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->ArgName("bytes")->Arg(4 * 1024)->Arg(256 * 1024);
}

void DigestAlone(benchmark::State& state)
{
    QByteArray bytes(static_cast<int>(state.range(0)), 'd');
    quint64 round = 0;
    for ([[maybe_unused]] auto _ : state) {
        stamp(&bytes, ++round);
        const ZebDataHash hash(bytes, ZebDataHash::Hash512);
        benchmark::DoNotOptimize(hash.data());
    }
    setBytes(&state);
}
BENCHMARK(DigestAlone)->Apply(sizes);

void AdmitDistinctBlocks(benchmark::State& state)
{
    const BenchStore store;
    QByteArray bytes(static_cast<int>(state.range(0)), 'a');
    const auto most = static_cast<size_t>(s_HeldBytes / state.range(0));
    std::vector<ZebDataReference> held;
    held.reserve(most);
    quint64 round = 0;
    for ([[maybe_unused]] auto _ : state) {
        stamp(&bytes, ++round);
        held.push_back(admit(bytes));
        if (held.size() == most) {
            // The end of the blocks is no part of their admission.
            state.PauseTiming();
            held.clear();
            state.ResumeTiming();
        }
    }
    setBytes(&state);
}
BENCHMARK(AdmitDistinctBlocks)->Apply(sizes);

void AdmitDuplicates(benchmark::State& state)
{
    const BenchStore store;
    const QByteArray bytes(static_cast<int>(state.range(0)), 'b');
    const ZebDataReference resident = admit(bytes);
    for ([[maybe_unused]] auto _ : state) {
        const ZebDataReference duplicate = admit(bytes);
        if (duplicate != resident) {
            state.SkipWithError("equal bytes became two blocks");
            break;
        }
    }
    setBytes(&state);
}
BENCHMARK(AdmitDuplicates)->Apply(sizes);

} // namespace
