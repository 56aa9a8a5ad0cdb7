#include "client/AttemptDecision.h"

#include <cmath>

#include "Platform/Encoding.h"
#include "Platform/Fatal.h"
#include "Platform/HttpMessage.h"
#include "Platform/UrlError.h"
#include "client/Formatting.h"
#include "client/RetryAfter.h"

namespace pellorin {

namespace {

// The wait used when the server asks for a retry without a usable "Retry-After".
constexpr double kDefaultRetryAfterSecs = 120.0;

// The wait before retry number `retryCount` after a transport error: 0.5 × 2^retryCount
// seconds, no jitter, no bound (the retry budget is the limit).
double backoffSeconds(size_t retryCount) {
    return 0.5 * std::pow(2.0, static_cast<double>(retryCount));
}

// A retryable ending: retried while the budget lasts, failed with retryCountExceeded after.
AttemptDecision retry(const AttemptEnding& ending, std::optional<double> wait, PellorinError error,
                      bool recorded) {
    AttemptDecision decision{AttemptDecision::Retry{wait, error}, std::nullopt, 0, std::nullopt};
    if (recorded) {
        decision.recorded = error;
    }
    decision.retryCount = checkedAdd<size_t>(ending.retryCount, 1, "retryCount overflow");
    if (ending.maxRetries < decision.retryCount) {
        decision.outcome =
            AttemptDecision::Fail{PellorinError::retryCountExceeded(decision.retryCount)};
    }
    return decision;
}

AttemptDecision fail(const AttemptEnding& ending, PellorinError error,
                     std::optional<PellorinError> recorded = std::nullopt) {
    return {AttemptDecision::Fail{std::move(error)}, std::move(recorded), ending.retryCount,
            std::nullopt};
}

AttemptDecision decideTransportError(const AttemptEnding& ending, const PlatformError& error) {
    const PellorinError wrapped = PellorinError::nsError(error);
    const double backoff =
        backoffSeconds(checkedAdd<size_t>(ending.retryCount, 1, "retryCount overflow"));
    if (error.domain != kURLErrorDomain) {
        return retry(ending, backoff, wrapped, true);
    }
    if (error.code == URLError::cancelled) {
        return fail(ending, PellorinError::cancelledByUser());
    }
    // A refused connection or an answer that is not HTTP is retried at once.
    const bool immediate =
        error.code == URLError::cannotConnectToHost || error.code == URLError::cannotParseResponse;
    return retry(ending, immediate ? std::nullopt : std::optional<double>(backoff), wrapped, true);
}

AttemptDecision decideAccepted(const AttemptEnding& ending) {
    // Whatever the checksum says, an answer to a body not wholly sent does not cover the part.
    // (A count above the length can only come from a body sent again in full.)
    if (ending.bytesSent < ending.length) {
        return retry(
            ending, std::nullopt,
            PellorinError::error("the answer came after " + std::to_string(ending.bytesSent) +
                                 " of " + std::to_string(ending.length) + " body bytes"),
            true);
    }
    if (!ending.remoteChecksum || !ending.checksum) {
        return fail(ending, PellorinError::noRemoteChecksum());
    }
    if (ending.checksum->kind == ChecksumStatusKind::matched) {
        return {AttemptDecision::Complete{*ending.remoteChecksum}, std::nullopt, ending.retryCount,
                std::nullopt};
    }
    const PellorinError mismatch =
        PellorinError::checksumFailed(ending.checksum->local, ending.checksum->remote);
    if (ending.cancelled) {
        return fail(ending, PellorinError::cancelledByUser(), mismatch);
    }
    return retry(ending, std::nullopt, mismatch, true);
}

AttemptDecision decideRetryAfter(const AttemptEnding& ending) {
    if (ending.cancelled) {
        return fail(ending, PellorinError::cancelledByUser());
    }
    double wait = kDefaultRetryAfterSecs;
    std::optional<std::string> warning;
    if (ending.retryAfter) {
        if (const auto parsed = client::parseRetryAfterSeconds(*ending.retryAfter)) {
            wait = *parsed;
        } else {
            warning = "Could not parse the Retry-After HTTP Header: (" + *ending.retryAfter +
                      "), will default to " + doubleDescription(kDefaultRetryAfterSecs) +
                      " seconds";
        }
    }
    AttemptDecision decision =
        retry(ending, wait, PellorinError::retryAfter(ending.statusCode, wait), false);
    decision.warning = std::move(warning);
    return decision;
}

}  // namespace

std::optional<std::string> remoteChecksum(const HttpResponse& response) {
    if (const auto contentMD5 = response.valueForHTTPHeaderField("Content-MD5")) {
        if (const auto decoded = base64DecodeStrict(*contentMD5)) {
            return hexString(*decoded);
        }
    }
    return response.valueForHTTPHeaderField("ETag");
}

AttemptDecision decideAttempt(const AttemptEnding& ending) {
    // A part whose file changed while it was read cannot be certified, now or by a retry.
    if (ending.sourceChanged) {
        return fail(ending, PellorinError::error(*ending.sourceChanged));
    }
    if (ending.error) {
        return decideTransportError(ending, *ending.error);
    }
    if (ending.statusCode == 200 || ending.statusCode == 201) {
        return decideAccepted(ending);
    }
    const int64_t code = ending.statusCode;
    if (code == 408 || code == 429 || (code >= 500 && code <= 599)) {
        return decideRetryAfter(ending);
    }
    return fail(ending, PellorinError::unknownServerResponseCode(code));
}

}  // namespace pellorin
