// Cost of a log call that the level filters out (must stay a level check, no formatting) and of
// one full stream line written to /dev/null.
#include <cstdio>
#include <string>

#include <benchmark/benchmark.h>
#include <pellorin/Logging.h>

namespace {

using pellorin::Logger;

void BM_FilteredTrace(benchmark::State& state) {
    const Logger logger("bench", std::make_unique<pellorin::NoOpLogHandler>());
    std::size_t bytes = 0;
    for (auto _ : state) {
        logger.trace([&] { return "sent " + std::to_string(++bytes) + " bytes"; });
    }
    benchmark::DoNotOptimize(bytes);
}
BENCHMARK(BM_FilteredTrace);

void BM_StreamLine(benchmark::State& state) {
    std::FILE* sink = std::fopen("/dev/null", "w");
    const pellorin::StdioOutputStream stream(sink, pellorin::StdioOutputStream::FlushMode::always);
    Logger logger("bench", std::make_unique<pellorin::StreamLogHandler>("bench", stream));
    logger.setMetadataValue("client", "upload");
    const std::string json(200, 'j');
    for (auto _ : state) {
        logger.notice([&] { return "part-progress: " + json; });
    }
    std::fclose(sink);
}
BENCHMARK(BM_StreamLine);

}  // namespace

BENCHMARK_MAIN();
