#include "TransferObserver.h"

#include <cstdio>
#include <system_error>

#include "Units.h"

namespace pellorin::host {

std::string describeError(const ErrorMessage& error) {
    std::string text = error.message();
    if (error.userInfo()) {
        const auto underlying = error.userInfo()->find("underlyingErrorText");
        if (underlying != error.userInfo()->end()) {
            text += " (" + underlying->second + ")";
        }
    }
    return text;
}

TransferObserver::TransferObserver(const std::vector<PlannedPart>& parts,
                                   ProgressCounters& counters, std::shared_ptr<StatusLine> line,
                                   JournalWriter* journal)
    : counters_(counters), line_(std::move(line)), journal_(journal) {
    for (const auto& part : parts) {
        parts_.emplace(PartId{part.key.path, part.key.partNumber}, PartState{part, 0, {}});
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
        const uint64_t length = it->second.part.key.length;
        const uint64_t room = length - std::min(it->second.attemptBytes, length);
        const uint64_t counted = std::min(bytes, room);
        it->second.attemptBytes += counted;
        counters_.doneBytes += counted;
    }
}

void TransferObserver::pellorinClientWillRetryPart(
    PellorinClient&, const std::shared_ptr<const PartRetryMessage>& message) {
    PartState* part = resetAttempt(message->path(), message->partNumber());
    ++counters_.retries;
    if (part != nullptr) {
        part->retryErrors.push_back(message->error());
    }
}

void TransferObserver::pellorinClientPartDidComplete(
    PellorinClient&, const std::shared_ptr<const PartCompleteMessage>& message) {
    PartState* part = resetAttempt(message->path(), message->partNumber());
    if (part == nullptr) {
        ++counters_.partsDone;
        return;
    }
    counters_.doneBytes += part->part.key.length;
    if (journal_ != nullptr) {
        journal_->submit(part->part, message->eTag());  // done once it is on disk
    } else {
        ++counters_.partsDone;
    }
}

void TransferObserver::pellorinClientPartDidFail(
    PellorinClient&, const std::shared_ptr<const PartFailureMessage>& message) {
    PartState* part = resetAttempt(message->path(), message->partNumber());
    ++counters_.partsFailed;
    if (part == nullptr) {
        return;
    }
    std::vector<std::shared_ptr<const ErrorMessage>> errors = part->retryErrors;
    for (const auto& error : message->errors()) {
        if (error) {
            errors.push_back(error);
        }
    }
    Failure failure{part->part, judgeFailure(errors), ""};
    failure.description = errors.empty() ? "no error recorded" : describeError(*errors.back());
    // The last error often only says that the retries ran out; the one before says why.
    if (errors.size() >= 2 && errors[errors.size() - 2]->message() != errors.back()->message()) {
        failure.description += "; last cause: " + describeError(*errors[errors.size() - 2]);
    }
    failures_.push_back(std::move(failure));
}

void TransferObserver::pellorinClientDidReceiveFileProgress(
    PellorinClient&, const std::shared_ptr<const FileProgressMessage>&) {}

void TransferObserver::pellorinClientDidFinishWithStatus(
    PellorinClient&, int32_t, const std::shared_ptr<const MetricsMessage>& metrics) {
    std::lock_guard lock(metricsMutex_);
    metrics_ = metrics;
}

}  // namespace pellorin::host
