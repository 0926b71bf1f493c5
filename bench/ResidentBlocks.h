#pragma once

#include "bench/BenchStore.h"
#include "bench/FixedLimitStore.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataReference.h"

#include <QByteArray>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <random>
#include <thread>
#include <vector>

/// A store with distinct resident blocks whose files are written, so that no writer disturbs what
/// is measured. The threads of a row share it: create it before they start, and destroy it after
/// they have ended.
///
/// Thread safety: construct and destroy it with no other thread in the store. The threads of a row
/// use copies of the references.
class ResidentBlocks
{
public:
    using References = std::vector<ZebDataReference>;

    ResidentBlocks(int count, int blockBytes)
        : m_Store(limit(count, blockBytes), std::max(s_FewestBuckets, count / s_FilesPerBucket))
    {
        QByteArray bytes(blockBytes, 'r');
        m_References.reserve(static_cast<std::size_t>(count));
        for (int i = 0; i < count; ++i) {
            SampleBlocks::stamp(&bytes, static_cast<quint64>(i));
            m_References.push_back(BenchStore::add(bytes));
        }
        BenchStore::waitForWriters();
        // Shortly after the store of another row has ended, every read pays for a fence. This
        // admission ends that time.
        constexpr std::chrono::milliseconds calmTime(15);
        std::this_thread::sleep_for(calmTime);
        BenchStore::add(QByteArray("the last one"));
        BenchStore::waitForWriters();
    }

    const ZebDataReference& reference(int index) const
    {
        return m_References[static_cast<std::size_t>(index)];
    }

    /// Copies of `count` references from `first` on, in an order that the prefetcher cannot predict
    /// and that differs from thread to thread.
    References shuffled(int first, int count, int thread) const
    {
        const auto begin = m_References.begin() + first;
        References references(begin, begin + count);
        std::shuffle(references.begin(), references.end(),
                     std::mt19937(static_cast<unsigned>(thread)));
        return references;
    }

    /// The blocks of the running row.
    static std::unique_ptr<ResidentBlocks>& ofRow()
    {
        static std::unique_ptr<ResidentBlocks> blocks;
        return blocks;
    }

    /// Drops the blocks of the row after its threads have ended.
    static void drop(const benchmark::State& state)
    {
        Q_UNUSED(state)
        ofRow().reset();
    }

    /// Gives the row a block of 4 KiB for each of its threads, and runs it with each number of
    /// threads.
    static void aBlockPerThread(benchmark::internal::Benchmark* benchmark)
    {
        benchmark->Setup([](const benchmark::State& state) {
            ofRow() = std::make_unique<ResidentBlocks>(state.threads(), s_BlockBytes);
        });
        threadCounts(benchmark->Teardown(drop));
    }

    /// Adds the numbers of threads that the machine runs at once: 1 and 2 always, then up to 16.
    /// Measures real time, so that waiting for a lock counts.
    static void threadCounts(benchmark::internal::Benchmark* benchmark)
    {
        constexpr unsigned always = 2;
        constexpr unsigned most = 16;
        for (unsigned count = 1; count <= most; count *= 2)
            if (count <= always || count <= std::thread::hardware_concurrency())
                benchmark->Threads(static_cast<int>(count));
        benchmark->UseRealTime();
    }

private:
    static constexpr int s_BlockBytes = 4096;
    static constexpr int s_FewestBuckets = 10;
    static constexpr int s_FilesPerBucket = 100;

    // Room for the blocks twice, and for what a row adds.
    static qint64 limit(int count, int blockBytes)
    {
        constexpr qint64 spare = 64LL * 1024 * 1024;
        return 2LL * count * blockBytes + spare;
    }

    FixedLimitStore m_Store;
    References m_References;
};
