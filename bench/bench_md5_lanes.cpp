// MD5 of 1-16 independent streams of 8 MiB on one core: each lanes kernel forced, the engine's
// own choice, and OpenSSL's MD5 over the streams one after another. `MBps` is the aggregate
// rate over the thread's CPU time (per core); `occupancy` the share of lane slots that carried
// data. Arguments: kernel (an index into Md5Lanes::allKernels: 0 openssl, 1 scalar, 2 avx2,
// 3-5 avx512 with 4, 8, 16 lanes; 6 the engine's choice), streams, round
// size in KiB (0: each stream's 8 MiB in one round).
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstring>
#include <random>
#include <vector>

#include "datapath/Md5Lanes.h"

namespace {

using namespace pellorin;

constexpr size_t kStreamBytes = 8 << 20;
constexpr int kMaxStreams = 16;

// Distinct random bytes for every stream, made once.
const std::vector<uint8_t>& streamData() {
    static const std::vector<uint8_t> bytes = [] {
        std::vector<uint8_t> data(kStreamBytes * kMaxStreams);
        std::mt19937_64 random(1321);
        for (size_t at = 0; at < data.size(); at += 8) {
            const uint64_t word = random();
            std::memcpy(data.data() + at, &word, 8);
        }
        return data;
    }();
    return bytes;
}

std::span<const uint8_t> stream(int index) {
    return std::span(streamData()).subspan(kStreamBytes * static_cast<size_t>(index), kStreamBytes);
}

void reportRate(benchmark::State& state, int streams) {
    state.counters["MBps"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * streams * kStreamBytes / 1e6,
                           benchmark::Counter::kIsRate);
}

void BM_OpenSslMd5(benchmark::State& state) {
    const int streams = static_cast<int>(state.range(0));
    streamData();
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    for (auto _ : state) {
        for (int i = 0; i < streams; ++i) {
            unsigned char digest[EVP_MAX_MD_SIZE];
            EVP_DigestInit_ex(context, EVP_md5(), nullptr);
            EVP_DigestUpdate(context, stream(i).data(), stream(i).size());
            EVP_DigestFinal_ex(context, digest, nullptr);
            benchmark::DoNotOptimize(digest);
        }
    }
    EVP_MD_CTX_free(context);
    reportRate(state, streams);
}
BENCHMARK(BM_OpenSslMd5)
    ->ArgName("streams")
    ->RangeMultiplier(2)
    ->Range(1, 16)
    ->Unit(benchmark::kMillisecond);

void BM_Md5Lanes(benchmark::State& state) {
    const int kernelIndex = static_cast<int>(state.range(0));
    const int streams = static_cast<int>(state.range(1));
    const size_t round =
        state.range(2) > 0 ? static_cast<size_t>(state.range(2)) * 1024 : kStreamBytes;
    Md5Lanes lanes;
    if (static_cast<size_t>(kernelIndex) < Md5Lanes::allKernels.size()) {
        const Md5Lanes::Kernel kernel = Md5Lanes::allKernels[static_cast<size_t>(kernelIndex)];
        if (!lanes.forceKernel(kernel)) {
            state.SkipWithError("this CPU or build lacks the kernel");
            return;
        }
    }
    streamData();
    std::vector<Md5Lanes::Job> jobs(static_cast<size_t>(streams));
    for (auto _ : state) {
        std::vector<Md5Stream> md5(static_cast<size_t>(streams));
        for (size_t at = 0; at < kStreamBytes; at += round) {
            for (int i = 0; i < streams; ++i) {
                jobs[static_cast<size_t>(i)] = {&md5[static_cast<size_t>(i)],
                                                stream(i).subspan(at, round)};
            }
            lanes.hashRound(jobs);
        }
        for (const Md5Stream& one : md5) {
            benchmark::DoNotOptimize(one.digest());
        }
    }
    reportRate(state, streams);
    const Md5Lanes::Occupancy occupancy = lanes.occupancy();
    state.counters["occupancy"] =
        static_cast<double>(occupancy.blocks) / static_cast<double>(occupancy.laneSlots);
}
BENCHMARK(BM_Md5Lanes)
    ->ArgNames({"kernel", "streams", "roundKiB"})
    ->ArgsProduct({{0, 1, 2, 3, 4, 5, 6}, {1, 2, 4, 8, 16}, {0}})
    ->ArgsProduct({{6}, {3, 16}, {512}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
