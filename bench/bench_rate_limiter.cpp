// Several threads read through part streams that share one rate limiter for 3 s. `ratio` =
// achieved rate / effective configured rate (permitsPerAllocation * 100 refills per second).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "datapath/FilePartInputStream.h"

namespace {

using namespace pellorin;

constexpr int64_t kMiB = 1 << 20;
constexpr int64_t kPartSize = 4 * kMiB;
constexpr int64_t kParts = 8;
constexpr int64_t kReadSize = 256 * 1024;
constexpr int kThreads = 4;
constexpr auto kDuration = std::chrono::seconds(3);

std::string makeFile() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "pellorin-bench-XXXXXX").string();
    const int fd = ::mkstemp(pattern.data());
    const std::vector<uint8_t> bytes = randomData(kPartSize * kParts);
    if (fd == -1 || ::write(fd, bytes.data(), bytes.size()) != kPartSize * kParts) {
        std::abort();
    }
    ::close(fd);
    return pattern;
}

void BM_SharedLimiter(benchmark::State& state) {
    const std::string path = makeFile();
    auto file = std::make_shared<SharedFile>(path);
    const auto bytesPerSecond = static_cast<uint64_t>(state.range(0));
    double ratio = 0, achieved = 0, effective = 0;
    for (auto _ : state) {
        std::atomic<bool> stop{false};
        std::atomic<uint64_t> total{0};
        const auto start = std::chrono::steady_clock::now();
        auto limiter = RateLimiter::make(bytesPerSecond);
        std::vector<std::thread> readers;
        for (int t = 0; t < kThreads; ++t) {
            readers.emplace_back([&, t] {
                std::vector<uint8_t> buffer(kReadSize);
                for (int64_t part = t; !stop; part = (part + 1) % kParts) {
                    auto stream =
                        filePart(DigestAlgorithm::md5, file, static_cast<uint64_t>(part),
                                 static_cast<uint64_t>(part * kPartSize), kPartSize, limiter);
                    stream->open();
                    for (int64_t n; !stop && (n = stream->read(buffer.data(), kReadSize)) > 0;) {
                        total += static_cast<uint64_t>(n);
                    }
                    stream->close();
                }
            });
        }
        std::this_thread::sleep_for(kDuration);
        stop = true;
        for (auto& reader : readers) {
            reader.join();
        }
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        achieved = static_cast<double>(total) / seconds;
        effective = static_cast<double>(limiter->permitsPerAllocation() * 100);
        ratio = achieved / effective;
    }
    state.counters["configured_Bps"] = static_cast<double>(bytesPerSecond);
    state.counters["effective_Bps"] = effective;
    state.counters["achieved_Bps"] = achieved;
    state.counters["ratio"] = ratio;
    std::filesystem::remove(path);
}
BENCHMARK(BM_SharedLimiter)
    ->Arg(100'000)
    ->Arg(1'000'000)
    ->Arg(50'000'000)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
