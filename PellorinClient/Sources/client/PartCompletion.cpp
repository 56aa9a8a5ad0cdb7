// The attempts' side of the client core: their sessions' configuration, the opening of their
// bodies, their reports, and the carrying out of what decideAttempt says their end means
// (complete, retry, fail). Everything but sessionConfiguration runs on the delegate queue.
#include <algorithm>

#include "Platform/Fatal.h"
#include "client/ClientCore.h"
#include "client/ErrorConversion.h"
#include "client/Formatting.h"
#include "datapath/FilePartInputStream.h"
#include "datapath/MessageDigest.h"
#include "datapath/SharedFile.h"

namespace pellorin {

namespace {

// now + seconds, with the offset held to ±30 years so that any finite wait gives a valid time.
std::chrono::system_clock::time_point timeAfter(double seconds) {
    constexpr double kLimit = 30.0 * 365 * 24 * 3600;
    const double clamped = std::clamp(seconds, -kLimit, kLimit);
    return std::chrono::system_clock::now() +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(
               std::chrono::duration<double>(clamped));
}

}  // namespace

SessionConfiguration ClientCore::sessionConfiguration() const {
    SessionConfiguration configuration;
    if (!sessionConfigurationSupplier_) {
        configuration = SessionConfiguration::ephemeral();
        // The idle time-out grows with the number of parallel connections on purpose: more
        // connections share the same bandwidth, so each one may go quiet for longer.
        configuration.timeoutIntervalForRequest = maxConnections_ * 120.0;
    } else {
        configuration = sessionConfigurationSupplier_();
    }
    // Never below TLS 1.2, whatever the supplier asked for.
    if (static_cast<unsigned>(configuration.minimumTLSVersion) <
        static_cast<unsigned>(TLSVersion::v1_2)) {
        configuration.minimumTLSVersion = TLSVersion::v1_2;
    }
    return configuration;
}

std::shared_ptr<FilePartInputStream> ClientCore::openBody(
    const std::shared_ptr<FilePartRequest>& part) {
    assertOnDelegateQueue();
    std::shared_ptr<SharedFile> file;
    std::shared_ptr<RateLimiter> limiter;
    if (auto found = filesByPath_.find(part->filePath()); found != filesByPath_.end()) {
        file = found->second;
        limiter = rateLimiter_;
    } else {
        // The first part of a file to start streams unthrottled; later parts share the limiter.
        try {
            file = std::make_shared<SharedFile>(part->filePath());
        } catch (const SharedFileError& error) {
            failPart(part, PellorinError::error(error.description()));
            logger_.error([&] {
                return "Could not process file part: " + part->debugDescription() +
                       ".  Cancelling the file transfer.";
            });
            logger_.error([&] { return error.description(); });
            return nullptr;
        }
        filesByPath_.emplace(part->filePath(), file);
    }
    return filePart(DigestAlgorithm::md5, file, part->partNumber(), part->offset(), part->length(),
                    limiter);
}

void ClientCore::attemptDidEnd(const std::shared_ptr<FilePartRequest>& part, AttemptEnding ending,
                               const ThroughputMonitor& throughput) {
    assertOnDelegateQueue();
    ending.cancelled = scheduler_.isCancelled();
    ending.retryCount = part->retryCount();
    ending.maxRetries = maxRetries_;
    ending.bytesSent = throughput.bytesSentCounter;
    ending.length = part->length();
    const AttemptDecision decision = decideAttempt(ending);
    if (decision.warning) {
        logger_.warning([&] { return *decision.warning; });
    }
    if (decision.recorded) {
        part->appendError(*decision.recorded);
    }
    if (decision.retryCount != part->retryCount()) {
        logger_.debug([&] {
            const auto* retry = std::get_if<AttemptDecision::Retry>(&decision.outcome);
            return "re-queueing part # " + std::to_string(part->partNumber()) +
                   " retries: " + std::to_string(part->retryCount()) +
                   " wait:" + optionalDescription(retry ? retry->wait : std::nullopt);
        });
        part->setRetryCount(decision.retryCount);
    }
    if (const auto* complete = std::get_if<AttemptDecision::Complete>(&decision.outcome)) {
        completePart(part, complete->eTag, throughput);
    } else if (const auto* retry = std::get_if<AttemptDecision::Retry>(&decision.outcome)) {
        retryPart(part, *retry, throughput.bytesSentCounter);
    } else {
        failPart(part, std::get<AttemptDecision::Fail>(decision.outcome).error);
    }
}

void ClientCore::completePart(const std::shared_ptr<FilePartRequest>& part, const std::string& eTag,
                              const ThroughputMonitor& throughput) {
    notify(&PellorinClientDelegate::pellorinClientPartDidComplete,
           std::make_shared<const PartCompleteMessage>(part->filePath(), part->partNumber(), eTag),
           Delivery::synchronous);
    logger_.debug([&] {
        return "part #: " + std::to_string(part->partNumber()) +
               " retryCount: " + std::to_string(part->retryCount()) + " throughput: " +
               toString(Throughput::KBitsSec, throughput.bytesSentCounter,
                        throughput.elapsedTime());
    });
}

void ClientCore::retryPart(const std::shared_ptr<FilePartRequest>& part,
                           const AttemptDecision::Retry& retry, uint64_t lostByteCount) {
    notify(&PellorinClientDelegate::pellorinClientWillRetryPart,
           std::make_shared<const PartRetryMessage>(
               part->filePath(), part->partNumber(), lostByteCount, part->retryCount(),
               retry.wait.value_or(0.0), toErrorMessage(retry.error)),
           Delivery::asynchronous);
    // The wait orders the queue; the scheduling loop does not hold the part back for it.
    const auto notBefore = retry.wait ? timeAfter(*retry.wait) : std::chrono::system_clock::now();
    if (scheduler_.enqueue(notBefore, part)) {
        submitProcessWaitQueue();
        return;
    }
    // A cancelled client schedules nothing more and has already emptied its wait queue: a part
    // whose attempt ended just before the cancellation reached it fails as cancelled, like every
    // part that was waiting when the cancellation came.
    failPart(part, PellorinError::cancelledByUser());
}

void ClientCore::failPart(const std::shared_ptr<FilePartRequest>& part,
                          const PellorinError& error) {
    assertOnDelegateQueue();
    part->appendError(error);
    std::vector<std::shared_ptr<const ErrorMessage>> errors;
    for (const PellorinError& each : part->errors()) {
        errors.push_back(toErrorMessage(each));
    }
    notify(&PellorinClientDelegate::pellorinClientPartDidFail,
           std::make_shared<const PartFailureMessage>(part->filePath(), part->partNumber(),
                                                      part->url(), std::move(errors)),
           error.kind() == PellorinError::Kind::cancelledByUser ? Delivery::synchronous
                                                                : Delivery::asynchronous);
}

void ClientCore::attemptDidBecomeInvalid(const FilePartRequestDelegate& attempt) {
    assertOnDelegateQueue();
    signalCompletionIfIdle(scheduler_.attemptEnded(attempt));
    // The freed slot goes straight to the next waiting part, started from here: handing it to
    // the scheduling loop would wake that thread once for every part. Only a part that is
    // not ready yet, or none, leaves the slot to the loop.
    std::shared_ptr<FilePartRequest> next;
    if (scheduler_.takeNext(next) == Scheduler::Take::taken) {
        startAttempt(next);
        return;
    }
    maxConnectionsSemaphore_.signal();
}

}  // namespace pellorin
