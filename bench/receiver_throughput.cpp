// How fast the local receiver takes uploads: N parallel libcurl connections PUT parts from memory
// to one receiver on loopback, which hashes every byte (and, in the ToFile variant, writes it).
// Arguments: connections, MiB per connection. Reports bytes/s and the process's peak RSS.
#include <curl/curl.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "receiver/Receiver.h"

namespace {

using pellorin::receiver::Receiver;
using pellorin::receiver::ReceiverOptions;

constexpr size_t kPattern = 4 << 20;

struct Body {
    const std::vector<char>* pattern;
    uint64_t left;
    uint64_t position = 0;
};

size_t readBody(char* out, size_t size, size_t count, void* user) {
    auto& body = *static_cast<Body*>(user);
    const size_t offset = body.position % kPattern;
    const size_t n = std::min<uint64_t>({size * count, body.left, kPattern - offset});
    std::memcpy(out, body.pattern->data() + offset, n);
    body.left -= n;
    body.position += n;
    return n;
}

size_t discard(char*, size_t size, size_t count, void*) {
    return size * count;
}

// Uploads `bytes` to `url`; false when the transfer or its status failed.
bool put(const std::string& url, uint64_t bytes, const std::vector<char>& pattern) {
    Body body{&pattern, bytes};
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Expect:");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(bytes));
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, readBody);
    curl_easy_setopt(curl, CURLOPT_READDATA, &body);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, 2L << 20);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    const CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return code == CURLE_OK && status == 200;
}

void run(benchmark::State& state, ReceiverOptions options) {
    const auto connections = static_cast<int>(state.range(0));
    const uint64_t perConnection = static_cast<uint64_t>(state.range(1)) << 20;
    std::vector<char> pattern(kPattern);
    for (size_t i = 0; i < pattern.size(); ++i) {
        pattern[i] = static_cast<char>((i * 2654435761u) >> 13);
    }
    Receiver receiver(options);
    receiver.start();
    for (auto _ : state) {
        std::atomic<int> failures{0};
        std::vector<std::thread> clients;
        for (int c = 0; c < connections; ++c) {
            clients.emplace_back([&, c] {
                const auto url = receiver.partUrl("bench.bin", c * perConnection);
                if (!put(url, perConnection, pattern)) {
                    ++failures;
                }
            });
        }
        for (auto& client : clients) {
            client.join();
        }
        if (failures > 0) {
            state.SkipWithError("an upload failed");
            break;
        }
    }
    receiver.stop();
    state.SetBytesProcessed(state.iterations() * connections * perConnection);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    state.counters["peakRssMiB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void BM_ReceiverHashOnly(benchmark::State& state) {
    run(state, {});
}

void BM_ReceiverToFile(benchmark::State& state) {
    const auto directory = std::filesystem::temp_directory_path() / "pellorin-bench-receiver";
    std::filesystem::create_directories(directory);
    ReceiverOptions options;
    options.directory = directory;
    run(state, options);
    std::filesystem::remove_all(directory);
}

}  // namespace

BENCHMARK(BM_ReceiverHashOnly)
    ->Args({1, 256})
    ->Args({16, 16})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_ReceiverToFile)->Args({16, 16})->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
