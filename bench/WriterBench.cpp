// What compression workers are worth: the writer with workers against the writer without, for the
// same blocks of 256 KiB of text, round about.
//
// The time of a row is that of the writer with workers, on average; "alone_ms" and "workers_ms" are
// medians of single rounds, and "speedup" is the one by the other: 2 workers on 2 idle cores could
// give 2 at most. A round ends up to 10 ms late, since a writer with workers pauses so long when
// its list is empty.

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <random>
#include <vector>

namespace {

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_Blocks = 128;
constexpr int s_Buckets = 10;
constexpr double s_NsPerMs = 1e6;
constexpr double s_MsPerSecond = 1e3;

QByteArray textLike(std::mt19937* random)
{
    static const char* const words[] = {"block", "writes", "the",  "reader", "of",    "a",
                                        "cache", "which",  "disk", "hash",   "holds", "every"};
    QByteArray content;
    while (content.size() < s_BlockBytes) {
        content += words[(*random)() % std::size(words)];
        content += (*random)() % 12 == 0
                       ? "\n" + QByteArray::number(static_cast<quint32>((*random)()))
                       : QByteArray(" ");
    }
    content.truncate(s_BlockBytes);
    return content;
}

double median(std::vector<double>* values)
{
    const auto middle = values->begin() + static_cast<std::ptrdiff_t>(values->size() / 2);
    std::nth_element(values->begin(), middle, values->end());
    return *middle;
}

// A writer on a directory of its own, and the times of its rounds in milliseconds.
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

    void round(const std::vector<QByteArray>& contents,
               const std::vector<ZebSmartPointer<ZebDataHash>>& hashes)
    {
        // Behind a fence the thread is awake, and has looked at its list: no round starts late.
        m_Writer.flush(hashes.front());
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (const QByteArray& content : contents)
            blocks.push_back(std::make_unique<ZebDataBlock>(content));
        QElapsedTimer timer;
        timer.start();
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            m_Writer.writeBlock(ZebDataBlockManager::PreloadNormal, hashes[i], blocks[i].get(),
                                false);
        }
        m_Writer.flush();
        m_Times.push_back(static_cast<double>(timer.nsecsElapsed()) / s_NsPerMs);
        for (int bucket = 0; bucket < s_Buckets; ++bucket)
            QDir(m_Directory.path() + "//" + QString::number(bucket)).removeRecursively();
    }

    double lastMs() const { return m_Times.back(); }
    double medianMs() { return median(&m_Times); }
    qint64 bytesWritten() const { return m_Writer.bytesWritten(); }

private:
    QTemporaryDir m_Directory;
    Writer m_Writer;
    std::vector<double> m_Times;
};

void workersAgainstNone(benchmark::State& state)
{
    std::mt19937 random(1);
    std::vector<QByteArray> contents;
    std::vector<ZebSmartPointer<ZebDataHash>> hashes;
    for (int i = 0; i < s_Blocks; ++i) {
        contents.push_back(textLike(&random));
        hashes.push_back(ZebHashManager::instance().getHash(contents.back()));
    }
    Measured<ZebDataBlockWriteThread_Pattern1> alone;
    Measured<ZebDataBlockWriteThread_Pattern2> workers(static_cast<int>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        alone.round(contents, hashes);
        workers.round(contents, hashes);
        state.SetIterationTime(workers.lastMs() / s_MsPerSecond);
        if (alone.bytesWritten() == 0 || alone.bytesWritten() != workers.bytesWritten()) {
            state.SkipWithError("the two have not written the same");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * s_Blocks * s_BlockBytes);
    const double aloneMs = alone.medianMs();
    const double workersMs = workers.medianMs();
    state.counters["alone_ms"] = aloneMs;
    state.counters["workers_ms"] = workersMs;
    state.counters["speedup"] = aloneMs / workersMs;
}

} // namespace

BENCHMARK(workersAgainstNone)
    ->Name("Writer/Text/Workers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
