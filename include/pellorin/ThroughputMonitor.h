// ThroughputMonitor: counts what a transfer did (bytes sent and lost, parts sent, retries,
// failures, start and end time) and turns it into a rate in a human-scaled unit and into the
// final MetricsMessage.
//
// The client owns one monitor for the whole transfer and registers it as its first delegate, so it
// sees every event the host's delegates see; each part's session delegate owns one for its part
// and writes its endTime and bytesSentCounter directly. Threads: every method runs on the client's
// delegate queue, one at a time, so the fields need no lock; a monitor is never shared across
// threads without that queue.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include <pellorin/Export.h>
#include <pellorin/Messages.h>
#include <pellorin/PellorinClientDelegate.h>
#include <pellorin/Throughput.h>

namespace pellorin {

class PELLORIN_EXPORT ThroughputMonitor : public PellorinClientDelegate {
  public:
    using Clock = std::chrono::system_clock;

    ThroughputMonitor() = default;

    // Set by the first part start (or by the client before the final metrics).
    std::optional<Clock::time_point> startTime;
    // Set when the transfer (or, for a per-part monitor, the part's task) has ended.
    std::optional<Clock::time_point> endTime;
    uint64_t bytesSentCounter = 0;  // body bytes sent, minus the bytes of failed attempts
    uint64_t lostBytesCounter = 0;  // body bytes of failed attempts
    uint64_t partsSentCounter = 0;
    uint64_t retryCounter = 0;
    uint64_t failureCounter = 0;

    // Seconds from startTime to endTime, or to now while endTime is absent. Reading it before
    // startTime is set is a fatal stop.
    double elapsedTime() const;
    bool isStarted() const { return startTime.has_value(); }
    bool isStopped() const { return endTime.has_value(); }
    bool isRunning() const { return isStarted() && !isStopped(); }

    // The largest unit (bits or bytes) in which bytesSentCounter over elapsedTime() shows at least
    // 1 per second, with that rate; the smallest unit and its rate when none does.
    std::pair<Throughput, double> chooseUnit(bool bits) const;

    // The transfer's totals, with the rate in byte units and no otherInfo.
    std::shared_ptr<const MetricsMessage> metrics(int64_t totalPartsRequested) const;

    // What the events do to the counters, without needing the sending client. Each delegate
    // method below forwards to one of these.
    // Sets startTime to `now` unless a start was already recorded.
    void recordStart(Clock::time_point now = Clock::now());
    // Adds `bytesSent`; a negative value or an overflow is a fatal stop.
    void recordProgress(int64_t bytesSent);
    // Moves `lostBytes` from the sent to the lost counter and counts one retry; more lost bytes
    // than were counted as sent is a fatal stop.
    void recordRetry(uint64_t lostBytes);
    void recordCompletion();
    void recordFailure();

    // Delegate methods: log messages, file progress and the final status change nothing.
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
};

}  // namespace pellorin
