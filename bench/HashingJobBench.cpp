// The gain of digesting queued hashing jobs together: blobs whose blocks are already resident,
// added by one thread without waiting, which then resolves them all.
//
// Each row measures two forms in interleaved rounds: the jobs, and "alone", the same work handed to
// the same pool as one call per blob. "jobs_us" and "alone_us" are medians per blob, until all are
// resolved; "gain" is alone by jobs. A row with one blob shows the latency of a single job, which
// can gain nothing and must lose nothing.

#include "bench/BenchStore.h"
#include "bench/RoundTimes.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"
#include "data/ZebHashingJob.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/SkeinLaneForm.h"
#include "support/ZebStoredCall.h"

#include <QByteArray>
#include <QFuture>

#include <benchmark/benchmark.h>

#include <vector>

namespace {

constexpr double s_UsPerSecond = 1e6;

QThreadPool* hashingPool()
{
    return ZebThreadPoolManager::instance().threadPool(ZebThreadPoolManager::HashingThreadPool);
}

// A store with `count` resident blocks.
class ResidentStore
{
public:
    ResidentStore(int size, int count)
    {
        for (int i = 0; i < count; ++i) {
            QByteArray bytes(size, 'r');
            SampleBlocks::stamp(&bytes, static_cast<quint64>(i));
            m_Blobs.push_back(bytes);
            m_Held.push_back(BenchStore::add(bytes));
        }
        BenchStore::waitForWriters();
    }

    const std::vector<QByteArray>& blobs() const { return m_Blobs; }

private:
    BenchStore m_Store;
    std::vector<QByteArray> m_Blobs;
    std::vector<ZebDataReference> m_Held;
};

// Gives access to the work of a job.
struct OpenJob : ZebHashingJob
{
    using ZebHashingJob::processBlockByteArray;
};

void addByJobs(const std::vector<QByteArray>& blobs)
{
    std::vector<ZebDataReference> references;
    references.reserve(blobs.size());
    for (const QByteArray& bytes : blobs)
        references.push_back(BenchStore::manager().addBlock(bytes));
    for (const ZebDataReference& reference : references)
        reference.resolveWork();
}

void addAlone(const std::vector<QByteArray>& blobs)
{
    std::vector<QFuture<ZebDataReference>> futures;
    futures.reserve(blobs.size());
    for (const QByteArray& bytes : blobs) {
        futures.push_back(ZebStoredCall::start<ZebDataReference>(
            hashingPool(), [bytes] { return OpenJob::processBlockByteArray(bytes); }));
    }
    for (QFuture<ZebDataReference>& future : futures)
        future.waitForFinished();
}

// Arguments: the bytes of a blob, and how many blobs are added before the first wait.
void addResident(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(1));
    const ResidentStore store(static_cast<int>(state.range(0)), count);
    RoundTimes jobs;
    RoundTimes alone;
    for ([[maybe_unused]] auto _ : state) {
        // The order alternates, so that neither form always finds the warmer machine.
        const bool jobsFirst = jobs.rounds() % 2 == 0;
        for (const bool isJobs : {jobsFirst, !jobsFirst}) {
            if (isJobs)
                state.SetIterationTime(jobs.add([&] { addByJobs(store.blobs()); }));
            else
                alone.add([&] { addAlone(store.blobs()); });
            hashingPool()->waitForDone();
        }
    }
    state.counters["jobs_us"] = jobs.median() / count * s_UsPerSecond;
    state.counters["alone_us"] = alone.median() / count * s_UsPerSecond;
    state.counters["gain"] = alone.median() / jobs.median();
    state.SetLabel(ZebSkein::SkeinLaneForm::best().name);
    state.SetBytesProcessed(state.iterations() * state.range(0) * count);
}

BENCHMARK(addResident)
    ->ArgNames({"bytes", "blobs"})
    ->Args({256 * 1024, 64})
    ->Args({256 * 1024, 256})
    ->Args({256 * 1024, 8})
    ->Args({4 * 1024, 64})
    ->Iterations(41)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK(addResident)
    ->Name("addLone")
    ->ArgNames({"bytes", "blobs"})
    ->Args({256 * 1024, 1})
    ->Args({4 * 1024, 1})
    ->Iterations(401)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace
