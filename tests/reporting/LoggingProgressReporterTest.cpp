// The progress reporter's lines: prefix plus compact JSON, at notice, encoded at every level.
#include <gtest/gtest.h>

#include <pellorin/LoggingProgressReporter.h>

#include "support/RecordingLogHandler.h"

using namespace pellorin;
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

TEST(LoggingProgressReporter, LogsEachEventAsPrefixAndCompactJsonAtNoticeAndEncodesItAlways) {
    for (const Logger::Level level : {Logger::Level::info, Logger::Level::warning}) {
        Recorded recorded(level);
        const auto reported = reportAll(recorded.reporter);
        const auto entries = recorded.record->entries();
        ASSERT_EQ(entries.size(), level == Logger::Level::info ? reported.size() : 0u);
        for (size_t i = 0; i < reported.size(); ++i) {
            EXPECT_EQ(reported[i].line, reported[i].prefix + reported[i].json);
            if (i < entries.size()) {
                EXPECT_EQ(entries[i].message, reported[i].line);
                EXPECT_EQ(entries[i].function, reported[i].function);
                EXPECT_EQ(entries[i].level, Logger::Level::notice);
                EXPECT_EQ(entries[i].source, "Sources");
                EXPECT_EQ(entries[i].file, "PellorinClient/LoggingProgressReporter");
                EXPECT_TRUE(entries[i].metadata.empty());
            }
        }
    }
}

// The console logger is the stock wrapper: the reporter takes its logger from it.
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
