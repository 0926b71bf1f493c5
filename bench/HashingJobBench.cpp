// What it gains that hashing jobs which wait for the pool are digested together: contents that are
// resident already, added without waiting by one thread, which then resolves them all.
//
// Each row measures two ways, round about: the jobs as they are, and "alone", the same work handed
// to the same pool as a call for each content. "jobs_us" and "alone_us" are medians for one
// content, until all are resolved; "gain" says how many times as fast the jobs are. A row of one
// content is the latency of a lone job, where nothing can be gained and nothing may be lost.

#include "bench/RoundTimes.h"

#include "data/ZebDataReference.h"
#include "data/ZebHashingJob.h"
#include "data/ZebThreadPoolManager.h"
#include "hash/SkeinLaneForm.h"
#include "manager/ZebDataBlockManager.h"
#include "support/ZebStoredCall.h"

#include <QByteArray>
#include <QFuture>
#include <QStringList>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

namespace {

constexpr qint64 s_MemoryLimit = 1024LL * 1024 * 1024;
constexpr double s_UsPerSecond = 1e6;

ZebDataBlockManager& manager()
{
    return ZebDataBlockManager::instance();
}

QThreadPool* hashingPool()
{
    return ZebThreadPoolManager::instance().threadPool(ZebThreadPoolManager::HashingThreadPool);
}

// The store on a cache root of its own, with `count` blocks that stay.
class ResidentStore
{
public:
    ResidentStore(int size, int count)
    {
        manager().setup(QStringList(m_Root.path()), s_MemoryLimit);
        for (int i = 0; i < count; ++i) {
            QByteArray bytes(size, 'r');
            std::memcpy(bytes.data(), &i, sizeof i);
            m_Contents.push_back(bytes);
            m_Held.push_back(manager().addBlock(bytes, ZebModifyAccessor::Cached, true));
        }
        manager().flush(false, ZebDataBlockManager::WriteThreads);
    }
    ~ResidentStore()
    {
        m_Held.clear();
        manager().cleanUp();
    }
    ResidentStore(const ResidentStore&) = delete;
    ResidentStore& operator=(const ResidentStore&) = delete;

    const std::vector<QByteArray>& contents() const { return m_Contents; }

private:
    QTemporaryDir m_Root;
    std::vector<QByteArray> m_Contents;
    std::vector<ZebDataReference> m_Held;
};

// The work of a job, for a call of its own.
struct OpenJob : ZebHashingJob
{
    using ZebHashingJob::processBlockByteArray;
};

void addByJobs(const std::vector<QByteArray>& contents)
{
    std::vector<ZebDataReference> references;
    references.reserve(contents.size());
    for (const QByteArray& bytes : contents)
        references.push_back(manager().addBlock(bytes));
    for (const ZebDataReference& reference : references)
        reference.resolveWork();
}

void addAlone(const std::vector<QByteArray>& contents)
{
    std::vector<QFuture<ZebDataReference>> futures;
    futures.reserve(contents.size());
    for (const QByteArray& bytes : contents) {
        futures.push_back(ZebStoredCall::start<ZebDataReference>(
            hashingPool(), [bytes] { return OpenJob::processBlockByteArray(bytes); }));
    }
    for (QFuture<ZebDataReference>& future : futures)
        future.waitForFinished();
}

// Arguments: bytes of a content, how many contents are added before the first is waited for.
void addResident(benchmark::State& state)
{
    const auto count = static_cast<int>(state.range(1));
    const ResidentStore store(static_cast<int>(state.range(0)), count);
    RoundTimes jobs;
    RoundTimes alone;
    for ([[maybe_unused]] auto _ : state) {
        // Which way comes first changes, so that neither always finds the warmer machine.
        const bool jobsFirst = jobs.rounds() % 2 == 0;
        for (const bool isJobs : {jobsFirst, !jobsFirst}) {
            if (isJobs)
                state.SetIterationTime(jobs.add([&] { addByJobs(store.contents()); }));
            else
                alone.add([&] { addAlone(store.contents()); });
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
    ->ArgNames({"bytes", "contents"})
    ->Args({256 * 1024, 64})
    ->Args({256 * 1024, 256})
    ->Args({256 * 1024, 8})
    ->Args({4 * 1024, 64})
    ->Iterations(41)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

BENCHMARK(addResident)
    ->Name("addLone")
    ->ArgNames({"bytes", "contents"})
    ->Args({256 * 1024, 1})
    ->Args({4 * 1024, 1})
    ->Iterations(401)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace
