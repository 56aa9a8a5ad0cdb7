// The stock progress reporter registered on a real transfer: one line per event, in event order,
// each a fixed prefix and the event's compact JSON.
#include <gtest/gtest.h>

#include <pellorin/LoggingProgressReporter.h>

#include <nlohmann/json.hpp>

#include <set>

#include "TransferFixture.h"

namespace pellorin::testing {
namespace {

std::set<std::string> keysOf(const std::string& json) {
    std::set<std::string> keys;
    const nlohmann::json parsed = nlohmann::json::parse(json);
    for (const auto& item : parsed.items())
        keys.insert(item.key());
    return keys;
}

// Runs a one-part transfer with a reporter at `level` and returns what the reporter logged.
std::shared_ptr<LogRecord> reportOnePart(Logger::Level level, uint64_t size) {
    Transfer t(size, 1);
    auto lines = std::make_shared<LogRecord>();
    auto reporter = std::make_shared<LoggingProgressReporter>(
        Logger("reporter", std::make_unique<RecordingLogHandler>(lines)));
    reporter->logger().setLogLevel(level);
    t.client->addDelegate(reporter, nullptr);
    t.submitParts(size);
    EXPECT_EQ(t.run(), 0);
    return lines;
}

TEST(ReporterTransfer, OnePartTransferLogsStartProgressCompletionAndMetrics) {
    const auto lines = reportOnePart(Logger::Level::info, 300 * 1024);

    const auto entries = lines->entries();
    ASSERT_GE(entries.size(), 4u);
    const std::map<std::string, std::set<std::string>> fields{
        {"part-started: ", {"path", "partNumber", "retryCount"}},
        {"part-progress: ", {"path", "partNumber", "partSize", "bytesSent", "totalBytesSent"}},
        {"part-complete: ", {"path", "partNumber", "eTag"}},
        {"transfer-metrics: ",
         {"totalPartsRequested", "bytesSent", "bytesLost", "partsSent", "retryCount",
          "failureCount", "elapsedTimeSecs", "throughput", "throughputUOM"}}};
    std::vector<std::string> prefixes;
    for (const auto& entry : entries) {
        EXPECT_EQ(entry.level, Logger::Level::notice);
        const auto colon = entry.message.find(": ");
        ASSERT_NE(colon, std::string::npos) << entry.message;
        const std::string prefix = entry.message.substr(0, colon + 2);
        ASSERT_TRUE(fields.count(prefix)) << entry.message;
        EXPECT_EQ(keysOf(entry.message.substr(colon + 2)), fields.at(prefix)) << entry.message;
        if (prefixes.empty() || prefixes.back() != prefix)
            prefixes.push_back(prefix);
    }
    EXPECT_EQ(prefixes, (std::vector<std::string>{"part-started: ", "part-progress: ",
                                                  "part-complete: ", "transfer-metrics: "}));
}

TEST(ReporterTransfer, ReporterAboveNoticePrintsNothing) {
    EXPECT_EQ(reportOnePart(Logger::Level::warning, 64 * 1024)->count(), 0u);
}

}  // namespace
}  // namespace pellorin::testing
