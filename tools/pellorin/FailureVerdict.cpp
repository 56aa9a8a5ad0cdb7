#include "FailureVerdict.h"

#include <cerrno>
#include <regex>

#include <pellorin/PlatformError.h>

namespace pellorin::host {

namespace {

constexpr std::string_view kClientDomain = "PellorinClient";
constexpr int64_t kRetriesExceeded = 1;
constexpr int64_t kRetryAfter = 4;  // a 408, 429 or 5xx answer

bool retryableCause(const ErrorMessage& error) {
    if (error.domain() == kClientDomain) {
        return error.code() == kRetryAfter;
    }
    if (error.domain() == kURLErrorDomain) {
        switch (error.code()) {
            case URLError::timedOut:
            case URLError::cannotFindHost:
            case URLError::cannotConnectToHost:
            case URLError::networkConnectionLost:
            case URLError::dnsLookupFailed:
            case URLError::badServerResponse:
            case URLError::cannotParseResponse:
                return true;
            default:
                return false;  // cancelled, bad or unsupported URL, TLS trust
        }
    }
    if (error.domain() == kPOSIXErrorDomain) {
        // Out of descriptors or memory for the moment: fewer connections later may do.
        return error.code() == EMFILE || error.code() == ENFILE || error.code() == EAGAIN ||
               error.code() == ENOMEM;
    }
    return false;
}

}  // namespace

FailureVerdict judgeFailure(const std::vector<std::shared_ptr<const ErrorMessage>>& errors) {
    FailureVerdict verdict;
    static const std::regex kWait(R"(retry after: ([0-9]+(\.[0-9]+)?) second)");
    for (const auto& error : errors) {
        std::smatch match;
        if (error && error->domain() == kClientDomain && error->code() == kRetryAfter &&
            std::regex_search(error->message(), match, kWait)) {
            verdict.retryAfterSecs = std::max(verdict.retryAfterSecs, std::stod(match[1]));
        }
    }
    // The cause is the last error that is not the note that the retries ran out.
    for (auto it = errors.rbegin(); it != errors.rend(); ++it) {
        if (*it && !((*it)->domain() == kClientDomain && (*it)->code() == kRetriesExceeded)) {
            verdict.retryable = retryableCause(**it);
            verdict.reason = (*it)->message();
            return verdict;
        }
    }
    verdict.reason =
        errors.empty() || !errors.back() ? "no error recorded" : errors.back()->message();
    return verdict;
}

}  // namespace pellorin::host
