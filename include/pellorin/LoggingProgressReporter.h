// LoggingProgressReporter: a ready-made delegate that logs every transfer event as one line, a
// fixed prefix followed by the event's compact JSON, at level notice:
//
//     part-started: {"path":"/data/a.bin","partNumber":3,"retryCount":0}
//
// Prefixes: "part-started: ", "part-progress: ", "part-retry: ", "part-complete: ",
// "part-failed: ", "file-progress: ", "transfer-metrics: ". Log messages are not logged, nor is
// the final status (only the metrics). Every event is encoded whether or not notice is enabled,
// so a reporter costs the same at any level; raise the logger's level above notice to silence it.
//
// Ownership: the host holds the reporter (std::shared_ptr) and registers it with a client, which
// holds it weakly. The reporter owns its own copy of the logger. Threads: called on the queue it
// was registered with; the handlers keep no mutable state and may run on several threads at once.
// Change the logger's level only while no event is being delivered.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <pellorin/ConsoleLogger.h>
#include <pellorin/Export.h>
#include <pellorin/LoggerWrapper.h>
#include <pellorin/Logging.h>
#include <pellorin/Messages.h>
#include <pellorin/PellorinClientDelegate.h>

namespace pellorin {

class PELLORIN_EXPORT LoggingProgressReporter : public PellorinClientDelegate {
  public:
    LoggingProgressReporter() = delete;
    explicit LoggingProgressReporter(Logger logger);
    explicit LoggingProgressReporter(const LoggerWrapper& wrapper);
    explicit LoggingProgressReporter(const ConsoleLogger& logger);

    const Logger& logger() const { return logger_; }
    Logger& logger() { return logger_; }

    // What each delegate method does, without needing the sending client: builds the line
    // (prefix + JSON), logs it at notice when that level is enabled, and returns it either way.
    std::string report(const PartStartedMessage& message) const;
    std::string report(const PartProgressMessage& message) const;
    std::string report(const PartRetryMessage& message) const;
    std::string report(const PartCompleteMessage& message) const;
    std::string report(const PartFailureMessage& message) const;
    std::string report(const FileProgressMessage& message) const;
    std::string report(const MetricsMessage& message) const;

    void pellorinClientLogMessage(PellorinClient& client,
                                  const std::shared_ptr<const LoggingMessage>& message) override;
    void pellorinClientDidStartPart(
        PellorinClient& client, const std::shared_ptr<const PartStartedMessage>& message) override;
    void pellorinClientDidReceivePartProgress(
        PellorinClient& client, const std::shared_ptr<const PartProgressMessage>& message) override;
    void pellorinClientWillRetryPart(
        PellorinClient& client, const std::shared_ptr<const PartRetryMessage>& message) override;
    void pellorinClientPartDidComplete(
        PellorinClient& client, const std::shared_ptr<const PartCompleteMessage>& message) override;
    void pellorinClientPartDidFail(
        PellorinClient& client, const std::shared_ptr<const PartFailureMessage>& message) override;
    void pellorinClientDidReceiveFileProgress(
        PellorinClient& client, const std::shared_ptr<const FileProgressMessage>& message) override;
    void pellorinClientDidFinishWithStatus(
        PellorinClient& client, int32_t status,
        const std::shared_ptr<const MetricsMessage>& metrics) override;

  private:
    Logger logger_;
};

}  // namespace pellorin
