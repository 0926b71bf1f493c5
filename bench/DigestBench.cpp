// The speed of the digest, with SHA-512 as the baseline.

#include "hash/Skein.h"

#include <openssl/evp.h>

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

constexpr int s_KiB = 1024;

std::vector<unsigned char> sampleBytes(std::int64_t byteCount)
{
    std::vector<unsigned char> bytes(static_cast<std::size_t>(byteCount));
    unsigned char next = 0;
    for (unsigned char& byte : bytes) {
        byte = next;
        next = static_cast<unsigned char>(next * 5U + 1U);
    }
    return bytes;
}

// Arguments: digest length and input length, in bytes.
void digestSkein(benchmark::State& state)
{
    const int digestBits = static_cast<int>(state.range(0)) * 8;
    const std::vector<unsigned char> bytes = sampleBytes(state.range(1));
    std::vector<unsigned char> digest(static_cast<std::size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state) {
        if (ZebSkein::Hash(digestBits, bytes.data(), std::uint64_t{bytes.size()} * 8,
                           digest.data()) != ZebSkein::Success)
            state.SkipWithError("no digest");
        benchmark::DoNotOptimize(digest.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(1));
}

// The baseline: a widely tuned digest, whose ratio to ours depends on the machine less than the
// speeds do. Argument: input length in bytes.
void digestSha512(benchmark::State& state)
{
    const std::vector<unsigned char> bytes = sampleBytes(state.range(0));
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    for ([[maybe_unused]] auto _ : state) {
        if (EVP_Digest(bytes.data(), bytes.size(), digest, nullptr, EVP_sha512(), nullptr) != 1)
            state.SkipWithError("no digest");
        benchmark::DoNotOptimize(digest);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

} // namespace

BENCHMARK(digestSkein)
    ->ArgNames({"digest", "bytes"})
    ->ArgsProduct({{32, 64, 128}, {s_KiB, 64 * s_KiB, 256 * s_KiB}});
BENCHMARK(digestSha512)->ArgName("bytes")->Arg(s_KiB)->Arg(64 * s_KiB)->Arg(256 * s_KiB);
