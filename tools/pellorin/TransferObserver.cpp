#include "TransferObserver.h"

#include <cstdio>
#include <system_error>

#include "Units.h"

namespace pellorin::host {

namespace {

// An error's message, with the transport's own text when it carries one.
std::string describe(const ErrorMessage& error) {
    std::string text = error.message();
    if (error.userInfo()) {
        const auto underlying = error.userInfo()->find("underlyingErrorText");
        if (underlying != error.userInfo()->end()) {
            text += " (" + underlying->second + ")";
        }
    }
    return text;
}

}  // namespace

TransferObserver::TransferObserver(const std::vector<PlannedPart>& parts,
                                   ProgressCounters& counters, std::shared_ptr<StatusLine> line,
                                   Journal* journal)
    : counters_(counters), line_(std::move(line)), journal_(journal) {
    for (const auto& part : parts) {
        parts_.emplace(PartId{part.key.path, part.key.partNumber}, PartState{part.key});
    }
}

std::shared_ptr<const MetricsMessage> TransferObserver::metrics() const {
    std::lock_guard lock(metricsMutex_);
    return metrics_;
}

TransferObserver::PartState* TransferObserver::resetAttempt(const std::string& path,
                                                            uint64_t partNumber) {
    const auto it = parts_.find({path, partNumber});
    if (it == parts_.end()) {
        return nullptr;
    }
    counters_.doneBytes -= it->second.attemptBytes;
    it->second.attemptBytes = 0;
    return &it->second;
}

void TransferObserver::pellorinClientLogMessage(PellorinClient&,
                                                const std::shared_ptr<const LoggingMessage>&) {}

void TransferObserver::pellorinClientDidStartPart(
    PellorinClient&, const std::shared_ptr<const PartStartedMessage>& message) {
    resetAttempt(message->path(), message->partNumber());
}

void TransferObserver::pellorinClientDidReceivePartProgress(
    PellorinClient&, const std::shared_ptr<const PartProgressMessage>& message) {
    if (message->bytesSent() <= 0) {
        return;
    }
    const auto bytes = static_cast<uint64_t>(message->bytesSent());
    counters_.sentBytes += bytes;
    const auto it = parts_.find({message->path(), message->partNumber()});
    if (it != parts_.end()) {
        // A part's bytes never count for more than its length, whatever the attempt sends.
        const uint64_t room =
            it->second.key.length - std::min(it->second.attemptBytes, it->second.key.length);
        const uint64_t counted = std::min(bytes, room);
        it->second.attemptBytes += counted;
        counters_.doneBytes += counted;
    }
}

void TransferObserver::pellorinClientWillRetryPart(
    PellorinClient&, const std::shared_ptr<const PartRetryMessage>& message) {
    resetAttempt(message->path(), message->partNumber());
    ++counters_.retries;
}

void TransferObserver::pellorinClientPartDidComplete(
    PellorinClient&, const std::shared_ptr<const PartCompleteMessage>& message) {
    PartState* part = resetAttempt(message->path(), message->partNumber());
    ++counters_.partsDone;
    if (part == nullptr) {
        return;
    }
    counters_.doneBytes += part->key.length;
    if (journal_ != nullptr && !journalFailed_) {
        try {
            journal_->record(part->key, message->eTag());
        } catch (const std::system_error& error) {
            // The upload goes on; only the ability to resume it is lost.
            journalFailed_ = true;
            line_->print("pellorin: " + std::string(error.what()) + " " +
                         journal_->path().string() + "; later parts are not recorded");
        }
    }
}

void TransferObserver::pellorinClientPartDidFail(
    PellorinClient&, const std::shared_ptr<const PartFailureMessage>& message) {
    resetAttempt(message->path(), message->partNumber());
    ++counters_.partsFailed;
    if (cancelled_) {
        return;
    }
    const auto& errors = message->errors();
    std::string reason = errors.empty() ? "no error recorded" : describe(*errors.back());
    // The last error often only says that the retries ran out; the one before says why.
    if (errors.size() >= 2 && errors[errors.size() - 2]->message() != errors.back()->message()) {
        reason += "; last cause: " + describe(*errors[errors.size() - 2]);
    }
    line_->print("pellorin: part " + std::to_string(message->partNumber()) + " of " +
                 message->path() + " failed: " + reason);
}

void TransferObserver::pellorinClientDidReceiveFileProgress(
    PellorinClient&, const std::shared_ptr<const FileProgressMessage>&) {}

void TransferObserver::pellorinClientDidFinishWithStatus(
    PellorinClient&, int32_t, const std::shared_ptr<const MetricsMessage>& metrics) {
    std::lock_guard lock(metricsMutex_);
    metrics_ = metrics;
}

std::string transferSummary(const MetricsMessage& metrics, uint64_t skippedParts) {
    const double seconds = metrics.elapsedTimeSecs();
    const double rate = seconds > 0 ? static_cast<double>(metrics.bytesSent()) / seconds : 0;
    char time[32];
    std::snprintf(time, sizeof time, "%.1f s", seconds);
    std::string text =
        "Sent " + std::to_string(metrics.partsSent()) + " of " +
        countOf(static_cast<uint64_t>(metrics.totalPartsRequested()), "part") + " (" +
        formatBytes(metrics.bytesSent()) + ") in " + time + " at " + formatRate(rate) + "; " +
        std::to_string(metrics.failureCount()) + " failed, " +
        (metrics.retryCount() == 1 ? std::string("1 retry")
                                   : std::to_string(metrics.retryCount()) + " retries");
    if (metrics.bytesLost() > 0) {
        text += " (" + formatBytes(metrics.bytesLost()) + " lost to failed attempts)";
    }
    if (skippedParts > 0) {
        text += "; " + countOf(skippedParts, "part") + " already done before";
    }
    return text;
}

}  // namespace pellorin::host
