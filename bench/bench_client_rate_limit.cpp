// A transfer of several parts of one file through a client capped at 2000 KB/s, against the
// local receiver: how long it takes beside how long the cap implies.
//
// The first part of a file to start streams unthrottled (by design), so the time the cap implies
// is that of the other parts' bytes. Reported counters: implied_s, actual_s, and ratio
// (actual / implied; 1.0 is exact, above 1 is slower than the cap).
#include <benchmark/benchmark.h>

#include <pellorin/PellorinClient.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "receiver/Receiver.h"

namespace {

using namespace pellorin;

void BM_ClientUnderRateLimit(benchmark::State& state) {
    const uint64_t rateKBps = 2000;
    const uint64_t partSize = 1024 * 1024;
    const uint64_t parts = 8;
    const auto dir = std::filesystem::temp_directory_path() / "pellorin-bench-rate";
    std::filesystem::create_directories(dir);
    const auto source = dir / "source.bin";
    {
        std::ofstream out(source, std::ios::binary);
        std::mt19937_64 random(1);
        for (uint64_t i = 0; i < parts * partSize / 8; ++i) {
            const uint64_t word = random();
            out.write(reinterpret_cast<const char*>(&word), sizeof word);
        }
    }
    receiver::Receiver server;
    server.start();

    Logger quiet("bench", std::make_unique<NoOpLogHandler>());
    for (auto _ : state) {
        auto client = PellorinClient::standardClient(rateKBps, 4, 0);
        for (uint64_t i = 0; i < parts; ++i) {
            client->uploadPartRequest(FilePartRequest::make(
                source.string(), i + 1, i * partSize, partSize,
                *Url::parse(server.partUrl("copy.bin", i * partSize)), "PUT"));
        }
        const auto start = std::chrono::steady_clock::now();
        const int32_t status = client->waitUntilFinished();
        const double actual =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (status != 0) {
            state.SkipWithError("transfer failed");
            break;
        }
        const double implied = double((parts - 1) * partSize) / double(rateKBps * 1000);
        state.SetIterationTime(actual);
        state.counters["implied_s"] = implied;
        state.counters["actual_s"] = actual;
        state.counters["ratio"] = actual / implied;
    }
    server.stop();
    std::filesystem::remove_all(dir);
}

BENCHMARK(BM_ClientUnderRateLimit)->UseManualTime()->Iterations(2)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
