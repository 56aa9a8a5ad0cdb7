#include <pellorin/ThroughputMonitor.h>

#include <string>

#include "Platform/Fatal.h"

namespace pellorin {

double ThroughputMonitor::elapsedTime() const {
    if (!startTime) {
        fatalError("ThroughputMonitor.elapsedTime read before startTime was set");
    }
    const Clock::time_point end = endTime.value_or(Clock::now());
    const auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(end - *startTime).count();
    return static_cast<double>(nanoseconds < 0 ? -nanoseconds : nanoseconds) / 1'000'000'000.0;
}

std::pair<Throughput, double> ThroughputMonitor::chooseUnit(bool bits) const {
    const double seconds = elapsedTime();
    const auto& units = bits ? kBitUOM : kByteUOM;
    for (Throughput unit : units) {
        const double rate = ratePerSecond(unit, bytesSentCounter, seconds);
        if (rate >= 1.0) {
            return {unit, rate};
        }
    }
    const Throughput smallest = units.back();
    return {smallest, ratePerSecond(smallest, bytesSentCounter, seconds)};
}

std::shared_ptr<const MetricsMessage> ThroughputMonitor::metrics(
    int64_t totalPartsRequested) const {
    const auto [unit, rate] = chooseUnit(false);
    return std::make_shared<const MetricsMessage>(
        totalPartsRequested, bytesSentCounter, lostBytesCounter, partsSentCounter, retryCounter,
        failureCounter, elapsedTime(), rate, description(unit), std::nullopt);
}

void ThroughputMonitor::recordStart(Clock::time_point now) {
    if (!startTime) {
        startTime = now;
    }
}

void ThroughputMonitor::recordProgress(int64_t bytesSent) {
    if (bytesSent < 0) {
        fatalError("Negative bytesSent in part progress: " + std::to_string(bytesSent));
    }
    bytesSentCounter = checkedAdd<uint64_t>(bytesSentCounter, static_cast<uint64_t>(bytesSent),
                                            "ThroughputMonitor bytesSentCounter overflow");
}

void ThroughputMonitor::recordRetry(uint64_t lostBytes) {
    if (lostBytes > bytesSentCounter) {
        fatalError("Retry lost " + std::to_string(lostBytes) + " bytes but only " +
                   std::to_string(bytesSentCounter) + " were counted as sent");
    }
    bytesSentCounter -= lostBytes;
    lostBytesCounter = checkedAdd<uint64_t>(lostBytesCounter, lostBytes,
                                            "ThroughputMonitor lostBytesCounter overflow");
    retryCounter = checkedAdd<uint64_t>(retryCounter, 1, "ThroughputMonitor retryCounter overflow");
}

void ThroughputMonitor::recordCompletion() {
    partsSentCounter =
        checkedAdd<uint64_t>(partsSentCounter, 1, "ThroughputMonitor partsSentCounter overflow");
}

void ThroughputMonitor::recordFailure() {
    failureCounter =
        checkedAdd<uint64_t>(failureCounter, 1, "ThroughputMonitor failureCounter overflow");
}

void ThroughputMonitor::pellorinClientLogMessage(PellorinClient&,
                                                 const std::shared_ptr<const LoggingMessage>&) {}

void ThroughputMonitor::pellorinClientDidStartPart(
    PellorinClient&, const std::shared_ptr<const PartStartedMessage>&) {
    recordStart();
}

void ThroughputMonitor::pellorinClientDidReceivePartProgress(
    PellorinClient&, const std::shared_ptr<const PartProgressMessage>& message) {
    recordProgress(message->bytesSent());
}

void ThroughputMonitor::pellorinClientWillRetryPart(
    PellorinClient&, const std::shared_ptr<const PartRetryMessage>& message) {
    recordRetry(message->lostBytes());
}

void ThroughputMonitor::pellorinClientPartDidComplete(
    PellorinClient&, const std::shared_ptr<const PartCompleteMessage>&) {
    recordCompletion();
}

void ThroughputMonitor::pellorinClientPartDidFail(
    PellorinClient&, const std::shared_ptr<const PartFailureMessage>&) {
    recordFailure();
}

void ThroughputMonitor::pellorinClientDidReceiveFileProgress(
    PellorinClient&, const std::shared_ptr<const FileProgressMessage>&) {}

void ThroughputMonitor::pellorinClientDidFinishWithStatus(
    PellorinClient&, int32_t, const std::shared_ptr<const MetricsMessage>&) {}

}  // namespace pellorin
