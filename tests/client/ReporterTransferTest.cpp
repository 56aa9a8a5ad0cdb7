// The stock progress reporter registered on a real transfer: one line per event, in event order,
// each a fixed prefix and the event's compact JSON with exactly its fields.
#include <gtest/gtest.h>

#include <pellorin/LoggingProgressReporter.h>

#include <nlohmann/json.hpp>

#include <set>

#include "TransferFixture.h"

namespace pellorin::testing {
namespace {

TEST(ReporterTransfer, OnePartTransferLogsStartProgressCompletionAndMetrics) {
    Transfer t(300 * 1024, 1);
    auto lines = std::make_shared<LogRecord>();
    auto reporter = std::make_shared<LoggingProgressReporter>(
        Logger("reporter", std::make_unique<RecordingLogHandler>(lines)));
    reporter->logger().setLogLevel(Logger::Level::info);
    t.client->addDelegate(reporter, nullptr);
    t.submitParts(300 * 1024);
    EXPECT_EQ(t.run(), 0);

    const std::map<std::string, std::set<std::string>> fields{
        {"part-started: ", {"path", "partNumber", "retryCount"}},
        {"part-progress: ", {"path", "partNumber", "partSize", "bytesSent", "totalBytesSent"}},
        {"part-complete: ", {"path", "partNumber", "eTag"}},
        {"transfer-metrics: ",
         {"totalPartsRequested", "bytesSent", "bytesLost", "partsSent", "retryCount",
          "failureCount", "elapsedTimeSecs", "throughput", "throughputUOM"}}};
    std::vector<std::string> prefixes;
    for (const auto& entry : lines->entries()) {
        EXPECT_EQ(entry.level, Logger::Level::notice);
        const auto colon = entry.message.find(": ");
        const std::string prefix = entry.message.substr(0, colon + 2);
        ASSERT_TRUE(fields.count(prefix)) << entry.message;
        const auto json = nlohmann::json::parse(entry.message.substr(colon + 2));
        std::set<std::string> keys;
        for (const auto& item : json.items())
            keys.insert(item.key());
        EXPECT_EQ(keys, fields.at(prefix)) << entry.message;
        if (prefixes.empty() || prefixes.back() != prefix)
            prefixes.push_back(prefix);
    }
    EXPECT_EQ(prefixes, (std::vector<std::string>{"part-started: ", "part-progress: ",
                                                  "part-complete: ", "transfer-metrics: "}));
}

}  // namespace
}  // namespace pellorin::testing
