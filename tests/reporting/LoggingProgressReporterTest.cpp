// The progress reporter's lines: prefix plus compact JSON, at notice, encoded at every level.
#include <gtest/gtest.h>

#include <array>

#include <pellorin/LoggingProgressReporter.h>

#include "support/RecordingLogHandler.h"

using namespace pellorin;
namespace recording = pellorin::testing;

namespace {

// One of every event, in the order a one-part transfer with one retry would report them: what the
// reporter returned, its prefix, the message's JSON and the function the line names.
std::vector<std::array<std::string, 4>> reportAll(const LoggingProgressReporter& reporter) {
    auto error =
        std::make_shared<const ErrorMessage>("URLErrorDomain", -1005, "lost", std::nullopt);
    const std::string path = "/d/a.bin";
    auto report = [&](const auto& message, const char* prefix, const char* function) {
        return std::array<std::string, 4>{reporter.report(message), prefix, message.jsonString(),
                                          function};
    };
    return {
        report(PartStartedMessage(path, 1, 0), "part-started: ", "pellorinClient(_:didStartPart:)"),
        report(PartProgressMessage(path, 1, 10, 4, 4),
               "part-progress: ", "pellorinClient(_:didReceivePartProgress:)"),
        report(FileProgressMessage(path, 10, 4),
               "file-progress: ", "pellorinClient(_:didReceiveFileProgress:)"),
        report(PartRetryMessage(path, 1, 4, 1, 0.5, error),
               "part-retry: ", "pellorinClient(_:willRetryPart:)"),
        report(PartCompleteMessage(path, 1, "\"e1\""),
               "part-complete: ", "pellorinClient(_:partDidComplete:)"),
        report(PartFailureMessage(path, 2, *Url::parse("http://h/p"), {error}),
               "part-failed: ", "pellorinClient(_:partDidFail:)"),
        report(MetricsMessage(2, 10, 4, 1, 1, 1, 1.0, 10.0, "Bytes/sec", std::nullopt),
               "transfer-metrics: ", "pellorinClient(_:didFinishWithStatus:metrics:)"),
    };
}

}  // namespace

TEST(LoggingProgressReporter, LogsEachEventAsPrefixAndCompactJsonAtNoticeAndEncodesItAlways) {
    for (const Logger::Level level : {Logger::Level::info, Logger::Level::warning}) {
        auto record = std::make_shared<recording::LogRecord>();
        const LoggingProgressReporter reporter(Logger(
            "upload-client", std::make_unique<recording::RecordingLogHandler>(record, "", level)));
        const auto reported = reportAll(reporter);
        const auto entries = record->entries();
        ASSERT_EQ(entries.size(), level == Logger::Level::info ? reported.size() : 0u);
        for (size_t i = 0; i < reported.size(); ++i) {
            const auto& [line, prefix, json, function] = reported[i];
            EXPECT_EQ(line, prefix + json);
            if (i < entries.size()) {
                EXPECT_EQ(entries[i].message, line);
                EXPECT_EQ(entries[i].function, function);
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
