// FailureVerdict: whether a part that failed for good in one run of the client is worth another
// round. Network errors, time-outs and 408/429/5xx answers (also when they used up the part's
// retries) are: the server or the path to it may be back. Other answers, checksum faults,
// missing checksums, unreadable files and cancellation are not. Pure function, any thread.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <pellorin/Messages.h>

namespace pellorin::host {

struct FailureVerdict {
    bool retryable = false;
    double retryAfterSecs = 0;  // the largest wait a server asked for, 0 when none did
    std::string reason;         // the cause, for the status line
};

FailureVerdict judgeFailure(const std::vector<std::shared_ptr<const ErrorMessage>>& errors);

}  // namespace pellorin::host
