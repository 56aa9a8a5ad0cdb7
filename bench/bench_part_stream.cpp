// Throughput of the part body stream (MD5, 1 MiB reads) over a 256 MiB file in the page cache,
// beside OpenSSL's MD5 over the same bytes in memory. `ratio` = stream speed / raw MD5 speed.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "datapath/FilePartInputStream.h"

namespace {

using namespace pellorin;

constexpr int64_t kMiB = 1 << 20;
constexpr int64_t kFileSize = 256 * kMiB;

// The test file and an in-memory copy of its bytes, made once and removed at exit.
struct Fixture {
    std::string path;
    std::vector<uint8_t> bytes;

    Fixture() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "pellorin-bench-XXXXXX").string();
        const int fd = ::mkstemp(pattern.data());
        path = pattern;
        bytes.reserve(kFileSize);
        for (int64_t at = 0; at < kFileSize; at += kMiB) {
            const std::vector<uint8_t> block = randomData(kMiB);
            bytes.insert(bytes.end(), block.begin(), block.end());
        }
        if (fd == -1 || ::write(fd, bytes.data(), bytes.size()) != kFileSize) {
            std::abort();
        }
        ::close(fd);
    }
    ~Fixture() { std::filesystem::remove(path); }
};

Fixture& fixture() {
    static Fixture instance;
    return instance;
}

double streamSeconds(const std::shared_ptr<SharedFile>& file, std::vector<uint8_t>& buffer) {
    const auto start = std::chrono::steady_clock::now();
    auto stream = filePart(DigestAlgorithm::md5, file, 1, 0, kFileSize, nullptr);
    stream->open();
    while (stream->read(buffer.data(), kMiB) > 0) {
    }
    stream->close();
    benchmark::DoNotOptimize(stream->digestData());
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double rawMd5Seconds(const std::vector<uint8_t>& bytes) {
    const auto start = std::chrono::steady_clock::now();
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_md5(), nullptr);
    for (int64_t at = 0; at < kFileSize; at += kMiB) {
        EVP_DigestUpdate(context, bytes.data() + at, kMiB);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(context, digest, nullptr);
    EVP_MD_CTX_free(context);
    benchmark::DoNotOptimize(digest);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Alternates the two so that both see the same machine load; the iteration time is the
// stream's.
void BM_PartStreamVsRawMd5(benchmark::State& state) {
    Fixture& data = fixture();
    auto file = std::make_shared<SharedFile>(data.path);
    std::vector<uint8_t> buffer(kMiB);
    streamSeconds(file, buffer);  // brings the file into the page cache
    double streamTotal = 0, rawTotal = 0;
    for (auto _ : state) {
        const double streamTime = streamSeconds(file, buffer);
        rawTotal += rawMd5Seconds(data.bytes);
        streamTotal += streamTime;
        state.SetIterationTime(streamTime);
    }
    const double megabytes = static_cast<double>(kFileSize) * state.iterations() / 1e6;
    state.SetBytesProcessed(kFileSize * state.iterations());
    state.counters["stream_MBps"] = megabytes / streamTotal;
    state.counters["raw_md5_MBps"] = megabytes / rawTotal;
    state.counters["ratio"] = rawTotal / streamTotal;
}
BENCHMARK(BM_PartStreamVsRawMd5)->UseManualTime()->Iterations(8)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
