// The cost of checking a cache, compared with naive loops that do the same work: list the
// directories, read the name of each file and whether it is in its bucket, get its status, open it,
// and read its header or all of it; then decompress it and compute the digest. The tool does more,
// and in another way: it gets the status of a file only once it is open, and digests several small
// blocks in parallel.
//
// Each row measures both in interleaved runs. "ratio" is the rate of the tool on one thread divided
// by the rate of the naive loop, so 1 means equal time; "cpu_ratio" is the same by processor time,
// which a busy machine does not distort. "second_core" is the speed-up by a second thread. The
// files come from the page cache in both, so the disk is not measured.

#include "bench/RoundTimes.h"
#include "hash/ZebDataHash.h"
#include "hash/ZebHashText.h"
#include "io/ZebBlockFile.h"
#include "io/ZebBlockPlace.h"
#include "tools/cache/CacheFiles.h"
#include "tools/cache/CacheVerifier.h"
#include "tools/cache/CacheWarnings.h"
#include "tools/terminal/ErrorReport.h"
#include "tools/terminal/ProgressBar.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace {

constexpr int s_Buckets = 10;

// Half text, half noise.
QByteArray contentOf(int size, unsigned int seed)
{
    std::mt19937 random(seed);
    QByteArray content(size, '\0');
    for (int i = 0; i < size; ++i)
        content[i] = static_cast<char>(i % 2 == 0 ? random() & 0xFFU : 'a' + random() % 4);
    return content;
}

class Cache
{
public:
    Cache(int count, int size)
    {
        for (int i = 0; i < s_Buckets; ++i)
            QDir().mkpath(m_Folder.path() + "/" + QString::number(i));
        for (int i = 0; i < count; ++i) {
            const QByteArray content = contentOf(size, static_cast<unsigned int>(i));
            const ZebDataHash hash(content, ZebDataHash::Hash512);
            const quint32 bucket = ZebBlockPlace::bucketOf(hash.data(), hash.size(), s_Buckets);
            const QByteArray payload = ZebBlockFile::encodePayload(content);
            ZebBlockFile::Header header;
            header.m_BlockBytes = size;
            header.m_PayloadBytes = payload.size();
            QFile file(ZebBlockPlace::directory(m_Folder.path(), QString(), bucket) +
                       hash.toString());
            file.open(QIODevice::WriteOnly);
            file.write(header.encode().data(), ZebBlockFile::s_HeaderBytes);
            file.write(payload);
        }
    }
    std::string root() const { return m_Folder.path().toStdString(); }

private:
    const QTemporaryDir m_Folder;
};

// The numbers of a name.
std::vector<quint32> wordsOf(const std::string& name)
{
    std::vector<quint32> words;
    const char* next = name.c_str();
    for (;;) {
        char* end = nullptr;
        words.push_back(static_cast<quint32>(std::strtoul(next, &end, 10)));
        if (end == next || *end != '-')
            return words;
        next = end + 1;
    }
}

// Whether the naive loop finds the file sound.
bool checkNaively(const std::string& path, const std::string& name, quint32 bucket, qint64 fileSize,
                  bool fast)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    static std::vector<char> file;
    static std::vector<unsigned char> block;
    constexpr int fixedBytes = ZebBlockFile::s_HeaderBytes + ZebBlockFile::s_PlainSizeBytes;
    const qint64 wanted = fast ? fixedBytes : fileSize;
    file.resize(static_cast<std::size_t>(wanted));
    const ssize_t got = ::read(descriptor, file.data(), file.size());
    ::close(descriptor);
    const auto header = ZebBlockFile::Header::decode(file.data());
    const std::vector<quint32> words = wordsOf(name);
    if (got != wanted || header.m_PayloadBytes != fileSize - ZebBlockFile::s_HeaderBytes ||
        words.size() != ZebHashText::s_BlockWords || words[0] % s_Buckets != bucket)
        return false;
    if (fast)
        return true;
    block.resize(static_cast<std::size_t>(header.m_BlockBytes));
    uLongf room = block.size();
    const auto* const stream = reinterpret_cast<const Bytef*>(file.data() + fixedBytes);
    if (::uncompress(block.data(), &room, stream, static_cast<uLong>(wanted - fixedBytes)) != Z_OK)
        return false;
    const ZebDataHash hash(block.data(), header.m_BlockBytes, ZebDataHash::Hash512);
    return std::memcmp(words.data(), hash.data(), ZebDataHash::Hash512) == 0;
}

int runNaive(const Cache& cache, bool fast)
{
    int sound = 0;
    for (int i = 0; i < s_Buckets; ++i) {
        const std::string folder = cache.root() + "/" + std::to_string(i);
        DIR* const stream = ::opendir(folder.c_str());
        while (const dirent* const entry = ::readdir(stream)) {
            const std::string name = static_cast<const char*>(entry->d_name);
            const std::string path = folder + "/" + name;
            struct stat status = {};
            if (::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode))
                sound +=
                    checkNaively(path, name, static_cast<quint32>(i), status.st_size, fast) ? 1 : 0;
        }
        ::closedir(stream);
    }
    return sound;
}

int runTool(const Cache& cache, bool fast, int threads)
{
    std::ostringstream lines;
    ProgressBar progress(lines, false, 80);
    ErrorReport errors(progress);
    CacheWarnings warnings(errors);
    StorePlace place;
    place.m_Roots = {cache.root()};
    place.m_Buckets = s_Buckets;
    const CacheFiles files(place, true, errors, warnings);
    CacheVerifier verifier({threads, fast}, files, errors, warnings, progress);
    verifier.run();
    return static_cast<int>(verifier.files()) - static_cast<int>(verifier.damage().size());
}

// Arguments: files, bytes of a block.
void verify(benchmark::State& state, bool fast)
{
    const auto count = static_cast<int>(state.range(0));
    const auto size = static_cast<int>(state.range(1));
    const Cache cache(count, size);
    RoundTimes naive;
    RoundTimes one;
    RoundTimes two;
    int sound = runNaive(cache, fast);
    for ([[maybe_unused]] auto _ : state) {
        naive.add([&] { sound = std::min(sound, runNaive(cache, fast)); });
        const double seconds = one.add([&] { sound = std::min(sound, runTool(cache, fast, 1)); });
        two.add([&] { sound = std::min(sound, runTool(cache, fast, 2)); });
        state.SetIterationTime(seconds);
    }
    if (sound != count)
        state.SkipWithError("a sound file was reported as damaged");
    state.counters["files_per_s"] = count / one.median();
    state.counters["MB_per_s"] = 1e-6 * count * size / one.median();
    state.counters["ratio"] = naive.median() / one.median();
    state.counters["cpu_ratio"] = naive.processorMedian() / one.processorMedian();
    state.counters["second_core"] = one.median() / two.median();
}

} // namespace

BENCHMARK_CAPTURE(verify, fast, true)
    ->Name("Verify/Fast")
    ->ArgNames({"files", "bytes"})
    ->Args({2000, 1000})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(verify, full, false)
    ->Name("Verify/Full")
    ->ArgNames({"files", "bytes"})
    ->Args({2000, 4096})
    ->Args({100, 256 * 1024})
    ->Args({6, 8 * 1024 * 1024})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
