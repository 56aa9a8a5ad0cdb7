// Scheduling: the wait queue, the connection limit and the start of each attempt.
#include <cmath>

#include "Platform/Fatal.h"
#include "Platform/HttpSession.h"
#include "client/ClientState.h"
#include "client/FilePartRequestDelegate.h"

namespace pellorin {

void PellorinClient::uploadPartRequest(std::shared_ptr<FilePartRequest> partRequest) {
    client::enqueue(*this, std::chrono::system_clock::now(), std::move(partRequest));
    state_->partsRequested.modify([](int64_t& count) { ++count; });
}

namespace client {

void enqueue(PellorinClient& client, std::chrono::system_clock::time_point notBefore,
             std::shared_ptr<FilePartRequest> partRequest) {
    ClientAccess::state(client).waitQueue.append(WaitQueueEntry{notBefore, std::move(partRequest)});
}

void submitProcessWaitQueue(PellorinClient& client) {
    std::shared_ptr<PellorinClient> self = client.shared_from_this();
    ClientAccess::state(client).waitQueueProcessingQueue->async(
        [self] { processWaitQueue(*self); });
}

void processWaitQueue(PellorinClient& client) {
    auto& state = ClientAccess::state(client);
    const Logger& logger = state.logger;
    logger.trace([] { return std::string("processWaitQueue starting..."); });
    bool leftForCancellation = false;
    unsigned timeouts = 0;
    for (;;) {
        if (state.waitQueue.empty()) {
            break;
        }
        const bool gotSlot = state.maxConnectionsSemaphore->waitUntil(
            std::chrono::system_clock::now() + std::chrono::milliseconds(50));
        if (state.cancelled.load()) {
            leftForCancellation = true;
            break;
        }
        if (!gotSlot) {
            if (++timeouts % 20 == 0) {
                logger.trace([] { return std::string("timeout on maxConnectionSemaphore"); });
                timeouts = 0;
            }
            continue;
        }
        logger.trace(
            [] { return std::string("obtained an allocation from maxConnectionSemaphore"); });
        state.waitQueue.sort([](const WaitQueueEntry& a, const WaitQueueEntry& b) {
            return a.notBefore < b.notBefore;
        });
        state.partsStarting.modify([](int64_t& n) { ++n; });
        WaitQueueEntry entry;
        if (!state.waitQueue.popFirst(entry)) {
            state.partsStarting.modify([](int64_t& n) { --n; });
            continue;  // the slot just taken is kept
        }
        // Only the magnitude of the distance counts: an entry starts unless its notBefore is
        // exactly now, so a retry wait orders the queue without holding a part back.
        const auto distance = std::chrono::duration_cast<std::chrono::nanoseconds>(
            entry.notBefore - std::chrono::system_clock::now());
        const double seconds = std::fabs(static_cast<double>(distance.count())) / 1e9;
        if (seconds > 0) {
            startUpload(client, entry.partRequest);
        } else {
            logger.trace([&] {
                return "Part is not ready to run yet (requeue): " +
                       entry.partRequest->debugDescription();
            });
            state.waitQueue.append(entry);
            state.partsStarting.modify([](int64_t& n) { --n; });
            state.maxConnectionsSemaphore->signal();
        }
    }
    if (leftForCancellation) {
        logger.trace(
            [] { return std::string("exiting processWaitQueue because of cancellation"); });
    }
    logger.trace([] { return std::string("processWaitQueue finished"); });
}

void startUpload(PellorinClient& client, const std::shared_ptr<FilePartRequest>& partRequest) {
    auto& state = ClientAccess::state(client);
    HttpRequest request(partRequest->url());
    request.timeoutInterval = 60.0;
    request.cachePolicy = CachePolicy::reloadIgnoringLocalAndRemoteCacheData;
    request.httpMethod = partRequest->method();
    request.addValue(std::to_string(partRequest->length()), "Content-Length");
    if (const auto& headers = partRequest->headers()) {
        for (const auto& [name, value] : *headers) {
            request.addValue(value, name);
        }
    }
    request.addValue(std::to_string(partRequest->partNumber()), "X-PLNX-Part-Number");
    if (partRequest->retryCount() != 0) {
        request.addValue(std::to_string(partRequest->retryCount()), "X-PLNX-Retry-Count");
    }

    auto monitor = std::make_unique<ThroughputMonitor>();
    monitor->startTime = std::chrono::system_clock::now();
    auto delegate = std::make_shared<FilePartRequestDelegate>(
        partRequest, client.shared_from_this(), state.logger, std::move(monitor));
    // The session and its task exist before the delegate is registered: a cancellation finds
    // only sessions that can no longer be invalidated before their task is made.
    std::shared_ptr<HttpSession> session = delegate->httpSession();
    if (!session) {
        fatalError("the HTTP session of " + partRequest->debugDescription() + " is missing");
    }
    std::shared_ptr<UploadTask> task = session->uploadTaskWithStreamedRequest(std::move(request));
    state.filePartDelegates.append(delegate);
    state.partsStarting.modify([](int64_t& n) { --n; });
    state.logger.trace([&] {
        return "task id: " + std::to_string(task->taskIdentifier()) + " starting part # " +
               std::to_string(partRequest->partNumber()) +
               " retries: " + std::to_string(partRequest->retryCount());
    });
    task->resume();
    // A cancellation that looked for sessions before this part's delegate was registered missed
    // its session.
    if (state.cancellationBegun.load()) {
        session->invalidateAndCancel();
    }
}

}  // namespace client
}  // namespace pellorin
