// The progress reporter's lines: prefix plus compact JSON, at notice, encoded at every level.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <pellorin/LoggingProgressReporter.h>

#include "support/RecordingLogHandler.h"

using namespace pellorin;
using nlohmann::json;
namespace recording = pellorin::testing;

namespace {

struct Recorded {
    std::shared_ptr<recording::LogRecord> record = std::make_shared<recording::LogRecord>();
    LoggingProgressReporter reporter;

    explicit Recorded(Logger::Level level)
        : reporter(Logger("upload-client",
                          std::make_unique<recording::RecordingLogHandler>(record, "", level))) {}
};

// One reported event: the line the reporter returned and what the line must be made of.
struct Reported {
    std::string line, prefix, json, function;
};

template <typename Message>
Reported reportOne(const LoggingProgressReporter& reporter, const Message& message,
                   std::string prefix, std::string function) {
    return {reporter.report(message), std::move(prefix), message.jsonString(), std::move(function)};
}

// Reports one of every event, in the order a one-part transfer with one retry would.
std::vector<Reported> reportAll(const LoggingProgressReporter& reporter) {
    auto error =
        std::make_shared<const ErrorMessage>("URLErrorDomain", -1005, "lost", std::nullopt);
    const std::string path = "/d/a.bin";
    return {
        reportOne(reporter, PartStartedMessage(path, 1, 0),
                  "part-started: ", "pellorinClient(_:didStartPart:)"),
        reportOne(reporter, PartProgressMessage(path, 1, 10, 4, 4),
                  "part-progress: ", "pellorinClient(_:didReceivePartProgress:)"),
        reportOne(reporter, FileProgressMessage(path, 10, 4),
                  "file-progress: ", "pellorinClient(_:didReceiveFileProgress:)"),
        reportOne(reporter, PartRetryMessage(path, 1, 4, 1, 0.5, error),
                  "part-retry: ", "pellorinClient(_:willRetryPart:)"),
        reportOne(reporter, PartCompleteMessage(path, 1, "\"e1\""),
                  "part-complete: ", "pellorinClient(_:partDidComplete:)"),
        reportOne(reporter, PartFailureMessage(path, 2, *Url::parse("http://h/p"), {error}),
                  "part-failed: ", "pellorinClient(_:partDidFail:)"),
        reportOne(reporter,
                  MetricsMessage(2, 10, 4, 1, 1, 1, 1.0, 10.0, "Bytes/sec", {{{"secret", "x"}}}),
                  "transfer-metrics: ", "pellorinClient(_:didFinishWithStatus:metrics:)"),
    };
}

}  // namespace

TEST(LoggingProgressReporter, LogsEachEventAsPrefixAndCompactJsonAtNotice) {
    Recorded recorded(Logger::Level::info);
    const auto reported = reportAll(recorded.reporter);
    const auto entries = recorded.record->entries();
    ASSERT_EQ(entries.size(), reported.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const auto& entry = entries[i];
        EXPECT_EQ(entry.message, reported[i].prefix + reported[i].json);
        EXPECT_EQ(entry.message, reported[i].line);
        EXPECT_EQ(entry.function, reported[i].function);
        EXPECT_EQ(entry.level, Logger::Level::notice);
        EXPECT_EQ(entry.source, "Sources");
        EXPECT_EQ(entry.file, "PellorinClient/LoggingProgressReporter");
        EXPECT_TRUE(entry.metadata.empty());
        EXPECT_TRUE(json::parse(reported[i].json).is_object());
    }
    EXPECT_FALSE(json::parse(reported.back().json).contains("otherInfo"));
}

TEST(LoggingProgressReporter, AboveNoticeNothingIsLoggedYetEverythingIsEncoded) {
    Recorded recorded(Logger::Level::warning);
    for (const auto& reported : reportAll(recorded.reporter)) {
        EXPECT_EQ(reported.line, reported.prefix + reported.json);
    }
    EXPECT_EQ(recorded.record->count(), 0u);

    recorded.reporter.logger().setLogLevel(Logger::Level::notice);
    recorded.reporter.report(PartStartedMessage("/d/a.bin", 1, 0));
    EXPECT_EQ(recorded.record->count(), 1u);
}

TEST(LoggingProgressReporter, TakesItsLoggerFromAWrapper) {
    auto record = std::make_shared<recording::LogRecord>();
    struct Wrapper : LoggerWrapper {
        explicit Wrapper(Logger logger) : wrapped(std::move(logger)) {}
        const Logger& logger() const override { return wrapped; }
        Logger wrapped;
    } wrapper(Logger("w", std::make_unique<recording::RecordingLogHandler>(record)));
    LoggingProgressReporter reporter(wrapper);
    reporter.report(PartCompleteMessage("/a", 1, "e"));
    EXPECT_EQ(record->messages(), std::vector<std::string>{
                                      R"(part-complete: {"path":"/a","partNumber":1,"eTag":"e"})"});
}

TEST(LoggingProgressReporter, ConsoleLoggerWritesThroughTheSystemHandler) {
    ConsoleLogger console("upload-client");
    EXPECT_EQ(console.logger().label(), "upload-client");
    LoggingProgressReporter reporter(console);
    ::testing::internal::CaptureStdout();
    reporter.report(PartStartedMessage("/d/a.bin", 3, 0));
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(
        out.find(
            R"( notice upload-client : part-started: {"path":"/d/a.bin","partNumber":3,"retryCount":0})"
            "\n"),
        std::string::npos)
        << out;
}

static_assert(!std::is_default_constructible_v<ConsoleLogger>);
static_assert(!std::is_default_constructible_v<LoggingProgressReporter>);
