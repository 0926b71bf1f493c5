// The text form of a digest, the registry, and the reference-counting pointer. The text form is the
// name of a block's file and the key of every look-up by name, so it is compared with the same work
// done by Qt's general tools, which on purpose share no code with the library.

#include "hash/ZebDataHash.h"
#include "hash/ZebHashManager.h"
#include "hash/ZebSmartPointer.h"

#include <QString>
#include <QStringList>
#include <QTextStream>
#include <QtEndian>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

namespace {

using Pointer = ZebSmartPointer<ZebDataHash>;

constexpr int s_DigestBytes = ZebDataHash::Hash512;

// Different digests, so that the branch predictor cannot learn the conversions.
constexpr size_t s_Variety = 256;

ZebDataHash hashOfNumber(size_t number)
{
    return ZebDataHash(QByteArray::number(static_cast<qulonglong>(number)), ZebDataHash::Hash512);
}

std::vector<ZebDataHash> someHashes()
{
    std::vector<ZebDataHash> hashes;
    hashes.reserve(s_Variety);
    for (size_t i = 0; i < s_Variety; ++i)
        hashes.push_back(hashOfNumber(i));
    return hashes;
}

std::vector<QString> someTexts()
{
    std::vector<QString> texts;
    texts.reserve(s_Variety);
    for (size_t i = 0; i < s_Variety; ++i)
        texts.push_back(hashOfNumber(i).toString());
    return texts;
}

QString streamedText(const unsigned char* digest)
{
    QString text;
    QTextStream stream(&text, QIODevice::ReadWrite);
    for (int offset = 0; offset < s_DigestBytes; offset += 4)
        stream << qFromLittleEndian<quint32>(digest + offset) << "-";
    stream.flush();
    text.chop(1);
    return text;
}

QByteArray splitDigest(const QString& text)
{
    const QStringList parts = text.split(QStringLiteral("-"), Qt::SkipEmptyParts);
    QByteArray digest(4 * parts.size(), '\0');
    for (int i = 0; i < parts.size(); ++i)
        qToLittleEndian<quint32>(parts[i].toUInt(), digest.data() + 4 * i);
    return digest;
}

void toString(benchmark::State& state)
{
    const std::vector<ZebDataHash> hashes = someHashes();
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(hashes[next++ % s_Variety].toString());
}

void toStringByTextStream(benchmark::State& state)
{
    const std::vector<ZebDataHash> hashes = someHashes();
    if (streamedText(hashes[0].data()) != hashes[0].toString())
        state.SkipWithError("the two conversions differ");
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(streamedText(hashes[next++ % s_Variety].data()));
}

void fromString(benchmark::State& state)
{
    const std::vector<QString> texts = someTexts();
    ZebDataHash hash;
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state) {
        hash.fromString(texts[next++ % s_Variety]);
        benchmark::DoNotOptimize(hash.data());
    }
}

void fromStringBySplit(benchmark::State& state)
{
    const std::vector<QString> texts = someTexts();
    const ZebDataHash hash(texts[0]);
    if (splitDigest(texts[0]) !=
        QByteArray(reinterpret_cast<const char*>(hash.data()), s_DigestBytes))
        state.SkipWithError("the two conversions differ");
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(splitDigest(texts[next++ % s_Variety]));
}

// Look-ups that find an interned hash. The digest of the range(0) bytes is part of the look-up.
// Threads look up different hashes.
void getHashHit(benchmark::State& state)
{
    ZebHashManager& registry = ZebHashManager::instance();
    const QByteArray bytes(static_cast<int>(state.range(0)),
                           static_cast<char>('h' + state.thread_index()));
    const Pointer held = registry.getHash(bytes);
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(registry.getHash(bytes).data());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// Look-ups of bytes without a hash: each interns a new hash, which is destroyed immediately.
void getHashMiss(benchmark::State& state)
{
    ZebHashManager& registry = ZebHashManager::instance();
    const QByteArray bytes(static_cast<int>(state.range(0)),
                           static_cast<char>('m' + state.thread_index()));
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(registry.getHash(bytes).data());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// All threads look up the same hashes.
void getHashHitByText(benchmark::State& state)
{
    ZebHashManager& registry = ZebHashManager::instance();
    const std::vector<QString> texts = someTexts();
    std::vector<Pointer> held;
    held.reserve(texts.size());
    for (const QString& text : texts)
        held.push_back(registry.getHash(text));
    size_t next = static_cast<size_t>(state.thread_index()) * s_Variety / 2;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(registry.getHash(texts[next++ % s_Variety]).data());
}

// Threads intern different hashes.
void getHashMissByText(benchmark::State& state)
{
    ZebHashManager& registry = ZebHashManager::instance();
    std::vector<QString> texts;
    for (size_t i = 0; i < s_Variety; ++i)
        texts.push_back(
            hashOfNumber(static_cast<size_t>(state.thread_index()) * s_Variety + i).toString());
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(registry.getHash(texts[next++ % s_Variety]).data());
}

void isHashLive(benchmark::State& state)
{
    ZebHashManager& registry = ZebHashManager::instance();
    const std::vector<QString> texts = someTexts();
    // Half of the hashes that are looked up are live.
    std::vector<Pointer> held;
    for (size_t i = 0; i < s_Variety; i += 2)
        held.push_back(registry.getHash(texts[i]));
    size_t next = static_cast<size_t>(state.thread_index()) * s_Variety / 2;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(registry.isHashLive(texts[next++ % s_Variety]));
}

// Look-ups among so many hashes, and in random order, that most of them miss the caches.
void getHashAmongMany(benchmark::State& state)
{
    constexpr size_t s_Hashes = 1 << 18;
    constexpr size_t s_Wanted = 4096;
    ZebHashManager& registry = ZebHashManager::instance();
    std::vector<Pointer> held;
    held.reserve(s_Hashes);
    for (size_t i = 0; i < s_Hashes; ++i)
        held.push_back(registry.getHash(QByteArray::number(static_cast<qulonglong>(i))));
    std::vector<QString> texts;
    texts.reserve(s_Wanted);
    for (size_t i = 0; i < s_Wanted; ++i)
        texts.push_back(held[i * 2654435761U % s_Hashes]->toString());
    size_t next = 0;
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(registry.getHash(texts[next++ % s_Wanted]).data());
}

// Adds and drops one reference: to a hash per thread, and to a hash that the threads share.
void copyPointer(benchmark::State& state)
{
    const Pointer held = ZebHashManager::instance().getHash(
        "held by thread " + QByteArray::number(state.thread_index()));
    for ([[maybe_unused]] auto _ : state) {
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it is what is measured.
        const Pointer copy(held);
        benchmark::DoNotOptimize(copy.data());
    }
}

void copySharedPointer(benchmark::State& state)
{
    const Pointer held = ZebHashManager::instance().getHash(QByteArray("held by all"));
    for ([[maybe_unused]] auto _ : state) {
        // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): it is what is measured.
        const Pointer copy(held);
        benchmark::DoNotOptimize(copy.data());
    }
}

void byThreads(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Threads(1)->Threads(2)->UseRealTime();
}

BENCHMARK(toString)->Name("HashText/toString");
BENCHMARK(toStringByTextStream)->Name("HashText/toString_by_QTextStream");
BENCHMARK(fromString)->Name("HashText/fromString");
BENCHMARK(fromStringBySplit)->Name("HashText/fromString_by_QString_split");
BENCHMARK(getHashHit)->Name("HashRegistry/getHash_hit")->Arg(64 * 1024);
BENCHMARK(getHashHit)->Name("HashRegistry/getHash_hit")->Arg(64)->Apply(byThreads);
BENCHMARK(getHashMiss)->Name("HashRegistry/getHash_miss")->Arg(64 * 1024);
BENCHMARK(getHashMiss)->Name("HashRegistry/getHash_miss")->Arg(64)->Apply(byThreads);
BENCHMARK(getHashHitByText)->Name("HashRegistry/getHash_hit_by_text")->Apply(byThreads);
BENCHMARK(getHashMissByText)->Name("HashRegistry/getHash_miss_by_text")->Apply(byThreads);
BENCHMARK(getHashAmongMany)->Name("HashRegistry/getHash_hit_among_many");
BENCHMARK(isHashLive)->Name("HashRegistry/isHashLive")->Apply(byThreads);
BENCHMARK(copyPointer)->Name("HashPointer/copy")->Apply(byThreads);
BENCHMARK(copySharedPointer)->Name("HashPointer/copy_of_shared")->Apply(byThreads);

} // namespace
