// The gain of compression workers: the writer with workers compared with the writer without, for
// the same blocks of 256 KiB of text, in interleaved rounds.
//
// The time of a row is the average of the writer with workers; "alone_ms" and "workers_ms" are
// medians of single rounds, and "speedup" is alone by workers. A round can end up to 10 ms late,
// because a writer with workers pauses that long when its list is empty.
//
// The same rounds measure what the machine itself can gain: a baseline loop that compresses the
// blocks and writes the files, in one thread and in as many threads as there are workers. "machine"
// is that speed-up, which on shared cores is seldom their number; "of_machine" is the share of it
// that the workers reach.

#include "bench/RoundTimes.h"
#include "bench/SampleBlocks.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "io/ZebBlockFile.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_Blocks = 384;
constexpr int s_Buckets = 10;
constexpr double s_MsPerSecond = 1e3;

// The baseline without the store: each thread compresses its share and writes its files.
class BaselineWriters
{
public:
    explicit BaselineWriters(int threads) : m_Threads(static_cast<std::size_t>(threads)) {}

    void round(const std::vector<QByteArray>& blobs)
    {
        ++m_Round;
        QDir(m_Directory.path()).mkdir(QString::number(m_Round));
        m_Times.add([&] {
            std::vector<std::thread> threads;
            for (std::size_t first = 0; first < m_Threads; ++first)
                threads.emplace_back([this, &blobs, first] { writeShare(blobs, first); });
            for (std::thread& thread : threads)
                thread.join();
        });
    }

    double median() const { return m_Times.median(); }

private:
    QString path(std::size_t block) const
    {
        return m_Directory.filePath(QString::number(m_Round) + "/" +
                                    QString::number(static_cast<int>(block)));
    }

    void writeShare(const std::vector<QByteArray>& blobs, std::size_t first) const
    {
        for (std::size_t i = first; i < blobs.size(); i += m_Threads) {
            QFile file(path(i));
            if (file.open(QIODevice::WriteOnly))
                file.write(ZebBlockFile::encodePayload(blobs[i]));
        }
    }

    QTemporaryDir m_Directory;
    std::size_t m_Threads;
    int m_Round = 0;
    RoundTimes m_Times;
};

// A writer on a directory of its own, and the times of its rounds.
template <typename Writer>
class Measured
{
public:
    template <typename... Arguments>
    explicit Measured(Arguments... arguments)
        : m_Writer(m_Directory.path(), s_Buckets, arguments..., nullptr)
    {
        m_Writer.start();
    }
    ~Measured()
    {
        m_Writer.closeDown();
        m_Writer.wait();
    }
    Measured(const Measured&) = delete;
    Measured& operator=(const Measured&) = delete;

    void round(const std::vector<QByteArray>& blobs,
               const std::vector<ZebSmartPointer<ZebDataHash>>& hashes)
    {
        // A new sub-cache for each round. If the files were removed instead, ext4 would search for
        // every new inode, because it does not reuse those freed in the last seconds.
        m_Writer.setSubCache("round" + QString::number(static_cast<int>(m_Times.rounds())));
        // After a fence the thread is awake and has checked its list, so no round starts late.
        m_Writer.flush(hashes.front());
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (const QByteArray& blob : blobs)
            blocks.push_back(std::make_unique<ZebDataBlock>(blob));
        m_LastSeconds = m_Times.add([&] {
            for (std::size_t i = 0; i < blocks.size(); ++i) {
                m_Writer.writeBlock(ZebDataBlockManager::PreloadNormal, hashes[i], blocks[i].get(),
                                    false);
            }
            m_Writer.flush();
        });
    }

    double lastSeconds() const { return m_LastSeconds; }
    double median() const { return m_Times.median(); }
    qint64 bytesWritten() const { return m_Writer.bytesWritten(); }

private:
    QTemporaryDir m_Directory;
    Writer m_Writer;
    RoundTimes m_Times;
    double m_LastSeconds = 0;
};

void workersAgainstNone(benchmark::State& state)
{
    std::mt19937 random(1);
    std::vector<QByteArray> blobs;
    std::vector<ZebSmartPointer<ZebDataHash>> hashes;
    for (int i = 0; i < s_Blocks; ++i) {
        blobs.push_back(SampleBlocks::text(&random, s_BlockBytes));
        hashes.push_back(ZebHashManager::instance().getHash(blobs.back()));
    }
    const auto count = static_cast<int>(state.range(0));
    Measured<ZebDataBlockWriteThread_Pattern1> alone;
    Measured<ZebDataBlockWriteThread_Pattern2> workers(count);
    BaselineWriters baseline(1);
    BaselineWriters baselineShared(count);
    for ([[maybe_unused]] auto _ : state) {
        alone.round(blobs, hashes);
        workers.round(blobs, hashes);
        baseline.round(blobs);
        baselineShared.round(blobs);
        state.SetIterationTime(workers.lastSeconds());
        if (alone.bytesWritten() == 0 || alone.bytesWritten() != workers.bytesWritten()) {
            state.SkipWithError("the two writers wrote different bytes");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * s_Blocks * s_BlockBytes);
    const double speedup = alone.median() / workers.median();
    const double machine = baseline.median() / baselineShared.median();
    state.counters["alone_ms"] = alone.median() * s_MsPerSecond;
    state.counters["workers_ms"] = workers.median() * s_MsPerSecond;
    state.counters["speedup"] = speedup;
    state.counters["machine"] = machine;
    state.counters["of_machine"] = speedup / machine;
}

} // namespace

BENCHMARK(workersAgainstNone)
    ->Name("Writer/Text/Workers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
