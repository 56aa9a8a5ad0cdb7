// Retries: a part that ended in a retryable way goes back into the wait queue with a notBefore
// of now plus its wait, after its retry budget is checked and the delegates are told. Runs on the
// client's delegate queue.
#include <algorithm>

#include "Platform/Fatal.h"
#include "Platform/HttpSession.h"
#include "client/ClientState.h"
#include "client/ErrorConversion.h"
#include "client/Formatting.h"
#include "client/RetryAfter.h"

namespace pellorin::client {

namespace {

// The wait used when the server asks for a retry without a usable "Retry-After".
constexpr double kDefaultRetryAfterSecs = 120.0;

// now + seconds, with the offset held to ±30 years so that any finite wait gives a valid time.
std::chrono::system_clock::time_point timeAfter(double seconds) {
    constexpr double kLimit = 30.0 * 365 * 24 * 3600;
    const double clamped = std::clamp(seconds, -kLimit, kLimit);
    return std::chrono::system_clock::now() +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(
               std::chrono::duration<double>(clamped));
}

}  // namespace

void requeuePartRequest(PellorinClient& client, const std::shared_ptr<FilePartRequest>& request,
                        uint64_t lostByteCount, std::optional<double> afterSecs,
                        const PellorinError& error) {
    auto& state = ClientAccess::state(client);
    state.logger.debug([&] {
        return "re-queueing part # " + std::to_string(request->partNumber()) +
               " retries: " + std::to_string(request->retryCount()) +
               " wait:" + optionalDescription(afterSecs);
    });
    const size_t retryCount = checkedAdd<size_t>(request->retryCount(), 1, "retryCount overflow");
    request->setRetryCount(retryCount);
    if (state.maxRetries < retryCount) {
        failPart(client, request, PellorinError::retryCountExceeded(retryCount));
        return;
    }
    auto message = std::make_shared<const PartRetryMessage>(
        request->filePath(), request->partNumber(), lostByteCount, retryCount,
        afterSecs.value_or(0.0), toErrorMessage(error));
    notifyDelegates(
        client,
        [message](PellorinClientDelegate& delegate, PellorinClient& c) {
            delegate.pellorinClientWillRetryPart(c, message);
        },
        Delivery::asynchronous);
    // The wait orders the queue; the scheduling loop does not hold the part back for it.
    const auto notBefore = afterSecs ? timeAfter(*afterSecs) : std::chrono::system_clock::now();
    enqueue(client, notBefore, request);
    // A cancelled client schedules nothing more and has already emptied its wait queue: a part
    // re-queued now (a network error that ended its attempt just before the cancellation
    // reached it) would never start, and waitUntilFinished would never return. It fails as
    // cancelled instead, like every part that was waiting when the cancellation came.
    if (state.cancelled.load()) {
        clearWaitQueue(client);
        return;
    }
    submitProcessWaitQueue(client);
}

void requeuePartRequest(PellorinClient& client, const std::shared_ptr<FilePartRequest>& request,
                        uint64_t lostByteCount, const HttpResponse& response) {
    auto& state = ClientAccess::state(client);
    double wait = kDefaultRetryAfterSecs;
    if (const auto header = response.valueForHTTPHeaderField("Retry-After")) {
        if (const auto parsed = parseRetryAfterSeconds(*header)) {
            wait = *parsed;
        } else {
            state.logger.warning([&] {
                return "Could not parse the Retry-After HTTP Header: (" + *header +
                       "), will default to " + doubleDescription(kDefaultRetryAfterSecs) +
                       " seconds";
            });
        }
    }
    requeuePartRequest(client, request, lostByteCount, wait,
                       PellorinError::retryAfter(response.statusCode(), wait));
}

}  // namespace pellorin::client
