// What compression workers are worth: the writer with workers against the writer without, for the
// same blocks of 256 KiB of text, round about.
//
// The time of a row is that of the writer with workers, on average; "alone_ms" and "workers_ms" are
// medians of single rounds, and "speedup" is the one by the other. A round ends up to 10 ms late,
// since a writer with workers pauses so long when its list is empty.
//
// What the machine itself gives is measured in the same rounds: a bare loop that compresses the
// blocks and writes the files, in one thread and shared out to as many threads as there are
// workers. "machine" is how many times as fast the second is. Cores that other machines share
// seldom give their number; "of_machine" is what of it the workers reach.

#include "bench/RoundTimes.h"

#include "data/ZebDataBlock.h"
#include "hash/ZebHashManager.h"
#include "io/ZebDataBlockWriteThread_Pattern1.h"
#include "io/ZebDataBlockWriteThread_Pattern2.h"
#include "manager/ZebDataBlockManager.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int s_BlockBytes = 256 * 1024;
constexpr int s_Blocks = 384;
constexpr int s_Buckets = 10;
constexpr int s_CompressionLevel = 2;
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

// The same work with no store: each thread compresses its share and writes its files.
class BareWriters
{
public:
    explicit BareWriters(int threads) : m_Threads(static_cast<std::size_t>(threads)) {}

    void round(const std::vector<QByteArray>& contents)
    {
        ++m_Round;
        QDir(m_Directory.path()).mkdir(QString::number(m_Round));
        m_Times.add([&] {
            std::vector<std::thread> threads;
            for (std::size_t first = 0; first < m_Threads; ++first)
                threads.emplace_back([this, &contents, first] { writeShare(contents, first); });
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

    void writeShare(const std::vector<QByteArray>& contents, std::size_t first) const
    {
        for (std::size_t i = first; i < contents.size(); i += m_Threads) {
            QFile file(path(i));
            if (file.open(QIODevice::WriteOnly))
                file.write(qCompress(contents[i], s_CompressionLevel));
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

    void round(const std::vector<QByteArray>& contents,
               const std::vector<ZebSmartPointer<ZebDataHash>>& hashes)
    {
        // A place of its own for each round. Files that were removed just before would make ext4
        // search for every new one, since it does not use what was freed in the last seconds.
        m_Writer.setSubCache("round" + QString::number(static_cast<int>(m_Times.rounds())));
        // Behind a fence the thread is awake, and has looked at its list: no round starts late.
        m_Writer.flush(hashes.front());
        std::vector<std::unique_ptr<ZebDataBlock>> blocks;
        for (const QByteArray& content : contents)
            blocks.push_back(std::make_unique<ZebDataBlock>(content));
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
    std::vector<QByteArray> contents;
    std::vector<ZebSmartPointer<ZebDataHash>> hashes;
    for (int i = 0; i < s_Blocks; ++i) {
        contents.push_back(textLike(&random));
        hashes.push_back(ZebHashManager::instance().getHash(contents.back()));
    }
    const auto count = static_cast<int>(state.range(0));
    Measured<ZebDataBlockWriteThread_Pattern1> alone;
    Measured<ZebDataBlockWriteThread_Pattern2> workers(count);
    BareWriters bare(1);
    BareWriters bareShared(count);
    for ([[maybe_unused]] auto _ : state) {
        alone.round(contents, hashes);
        workers.round(contents, hashes);
        bare.round(contents);
        bareShared.round(contents);
        state.SetIterationTime(workers.lastSeconds());
        if (alone.bytesWritten() == 0 || alone.bytesWritten() != workers.bytesWritten()) {
            state.SkipWithError("the two have not written the same");
            return;
        }
    }
    state.SetBytesProcessed(state.iterations() * s_Blocks * s_BlockBytes);
    const double speedup = alone.median() / workers.median();
    const double machine = bare.median() / bareShared.median();
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
