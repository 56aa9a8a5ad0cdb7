#include <pellorin/LoggingProgressReporter.h>

#include <exception>
#include <string_view>

#include "Platform/Fatal.h"
#include "reporting/MessageJson.h"

namespace pellorin {

namespace {

// Where the lines say they come from: the module, the file and the delegate call.
constexpr std::string_view kSource = "Sources";
constexpr std::string_view kFile = "PellorinClient/LoggingProgressReporter";

// Prefix + compact JSON of the message, then the entry at notice if that level is enabled.
template <typename Message>
std::string logLine(const Logger& logger, std::string_view prefix, const Message& message,
                    std::string_view function, std::size_t line) {
    std::string text(prefix);
    try {
        text += compactJson(toJson(message));
    } catch (const std::exception& error) {
        fatalError(std::string("Unable to encode an event for the progress log: ") + error.what());
    }
    logger.log(
        Logger::Level::notice, [&] { return text; }, kSource, kFile, function, line);
    return text;
}

}  // namespace

LoggingProgressReporter::LoggingProgressReporter(Logger logger) : logger_(std::move(logger)) {}

LoggingProgressReporter::LoggingProgressReporter(const LoggerWrapper& wrapper)
    : LoggingProgressReporter(wrapper.logger()) {}

LoggingProgressReporter::LoggingProgressReporter(const ConsoleLogger& logger)
    : LoggingProgressReporter(logger.logger()) {}

std::string LoggingProgressReporter::report(const PartStartedMessage& message) const {
    return logLine(logger_, "part-started: ", message, "pellorinClient(_:didStartPart:)", __LINE__);
}

std::string LoggingProgressReporter::report(const PartProgressMessage& message) const {
    return logLine(logger_, "part-progress: ", message, "pellorinClient(_:didReceivePartProgress:)",
                   __LINE__);
}

std::string LoggingProgressReporter::report(const PartRetryMessage& message) const {
    return logLine(logger_, "part-retry: ", message, "pellorinClient(_:willRetryPart:)", __LINE__);
}

std::string LoggingProgressReporter::report(const PartCompleteMessage& message) const {
    return logLine(logger_, "part-complete: ", message, "pellorinClient(_:partDidComplete:)",
                   __LINE__);
}

std::string LoggingProgressReporter::report(const PartFailureMessage& message) const {
    return logLine(logger_, "part-failed: ", message, "pellorinClient(_:partDidFail:)", __LINE__);
}

std::string LoggingProgressReporter::report(const FileProgressMessage& message) const {
    return logLine(logger_, "file-progress: ", message, "pellorinClient(_:didReceiveFileProgress:)",
                   __LINE__);
}

std::string LoggingProgressReporter::report(const MetricsMessage& message) const {
    return logLine(logger_, "transfer-metrics: ", message,
                   "pellorinClient(_:didFinishWithStatus:metrics:)", __LINE__);
}

void LoggingProgressReporter::pellorinClientLogMessage(
    PellorinClient&, const std::shared_ptr<const LoggingMessage>&) {}

void LoggingProgressReporter::pellorinClientDidStartPart(
    PellorinClient&, const std::shared_ptr<const PartStartedMessage>& message) {
    report(*message);
}

void LoggingProgressReporter::pellorinClientDidReceivePartProgress(
    PellorinClient&, const std::shared_ptr<const PartProgressMessage>& message) {
    report(*message);
}

void LoggingProgressReporter::pellorinClientWillRetryPart(
    PellorinClient&, const std::shared_ptr<const PartRetryMessage>& message) {
    report(*message);
}

void LoggingProgressReporter::pellorinClientPartDidComplete(
    PellorinClient&, const std::shared_ptr<const PartCompleteMessage>& message) {
    report(*message);
}

void LoggingProgressReporter::pellorinClientPartDidFail(
    PellorinClient&, const std::shared_ptr<const PartFailureMessage>& message) {
    report(*message);
}

void LoggingProgressReporter::pellorinClientDidReceiveFileProgress(
    PellorinClient&, const std::shared_ptr<const FileProgressMessage>& message) {
    report(*message);
}

void LoggingProgressReporter::pellorinClientDidFinishWithStatus(
    PellorinClient&, int32_t, const std::shared_ptr<const MetricsMessage>& metrics) {
    report(*metrics);
}

}  // namespace pellorin
