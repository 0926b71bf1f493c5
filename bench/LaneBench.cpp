// Blobs digested together in lanes, compared with the same blobs one by one.
//
// Each row measures, in interleaved rounds, a form of the lanes, the digest of one blob at a time,
// and OpenSSL's SHA-512 of one blob at a time. It uses the processor time of its single thread, so
// that other work of the machine shows less. "MiB_s" is the speed of the form, "gain" its speed-up
// over one by one, and "by_sha512" its speed-up over SHA-512. Only the forms that the processor
// supports have rows.

#include "bench/RoundTimes.h"

#include "hash/SkeinBatch.h"

#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

using ZebSkein::SkeinBatch;
using ZebSkein::SkeinLaneForm;

constexpr int s_KiB = 1024;
constexpr double s_BytesPerMiB = 1024.0 * 1024.0;

std::vector<std::vector<unsigned char>> sampleBlobs(std::size_t count, std::size_t size)
{
    std::vector<std::vector<unsigned char>> blobs;
    for (std::size_t i = 0; i < count; ++i) {
        blobs.emplace_back(size);
        unsigned char next = static_cast<unsigned char>(i);
        for (unsigned char& byte : blobs.back()) {
            byte = next;
            next = static_cast<unsigned char>(next * 5U + 1U);
        }
    }
    return blobs;
}

// Arguments: the index of the form among the available ones, the number of blobs, and their bytes.
void digestTogether(benchmark::State& state)
{
    const SkeinLaneForm& form =
        SkeinLaneForm::available().at(static_cast<std::size_t>(state.range(0)));
    state.SetLabel(form.name);
    const auto count = static_cast<std::size_t>(state.range(1));
    const std::vector<std::vector<unsigned char>> bytes =
        sampleBlobs(count, static_cast<std::size_t>(state.range(2)));
    std::vector<SkeinBatch::Content> contents;
    contents.reserve(count);
    for (const std::vector<unsigned char>& each : bytes)
        contents.push_back({each.data(), each.size()});
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    RoundTimes together;
    RoundTimes oneByOne;
    RoundTimes sha512;
    for ([[maybe_unused]] auto _ : state) {
        state.SetIterationTime(together.addThreadTime([&] {
            SkeinBatch::digest(form, contents, [](std::size_t, const unsigned char* known) {
                benchmark::DoNotOptimize(known);
            });
        }));
        oneByOne.addThreadTime([&] {
            for (const SkeinBatch::Content& each : contents) {
                ZebSkein::Hash(512, each.bytes, each.byteCount * 8, digest);
                benchmark::DoNotOptimize(digest);
            }
        });
        sha512.addThreadTime([&] {
            for (const SkeinBatch::Content& each : contents) {
                EVP_Digest(each.bytes, each.byteCount, digest, nullptr, EVP_sha512(), nullptr);
                benchmark::DoNotOptimize(digest);
            }
        });
    }
    const double total = static_cast<double>(state.range(1) * state.range(2));
    state.counters["MiB_s"] = total / together.median() / s_BytesPerMiB;
    state.counters["gain"] = oneByOne.median() / together.median();
    state.counters["by_sha512"] = sha512.median() / together.median();
}

void forEveryForm(benchmark::internal::Benchmark* bench)
{
    const auto forms = static_cast<std::int64_t>(SkeinLaneForm::available().size());
    for (std::int64_t form = 0; form < forms; ++form) {
        for (const int count : {1, 2, 3, 4, 8, 12})
            bench->Args({form, count, 256 * s_KiB});
        for (const int size : {s_KiB, 4 * s_KiB, 64 * s_KiB})
            bench->Args({form, 8, size});
    }
}

BENCHMARK(digestTogether)
    ->ArgNames({"form", "blobs", "bytes"})
    ->Apply(&forEveryForm)
    ->Iterations(101)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace
