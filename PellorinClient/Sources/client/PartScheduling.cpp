// Scheduling: the wait queue, the connection limit and the start of each attempt.
#include <cassert>

#include "Platform/Fatal.h"
#include "Platform/HttpSession.h"
#include "client/ClientCore.h"
#include "client/FilePartRequestDelegate.h"

namespace pellorin {

void ClientCore::uploadPartRequest(std::shared_ptr<FilePartRequest> partRequest) {
    ++partsRequested_;
    if (scheduler_.enqueue(std::chrono::system_clock::now(), partRequest)) {
        return;
    }
    // Handed in after the cancellation took effect: it fails like the parts that were waiting.
    std::shared_ptr<ClientCore> self = std::static_pointer_cast<ClientCore>(shared_from_this());
    delegateQueue_->async([self, part = std::move(partRequest)] {
        self->failPart(part, PellorinError::cancelledByUser());
        self->signalCompletionIfIdle(self->scheduler_.isIdle());
    });
}

void ClientCore::submitProcessWaitQueue() {
    std::shared_ptr<ClientCore> self = std::static_pointer_cast<ClientCore>(shared_from_this());
    schedulingQueue_->async([self] { self->processWaitQueue(); });
}

void ClientCore::processWaitQueue() {
    assert(schedulingQueue_->isCurrent() && "scheduling queue only");
    logger_.trace([] { return std::string("processWaitQueue starting..."); });
    while (scheduler_.hasWaiting()) {
        const bool gotSlot = maxConnectionsSemaphore_.waitUntil(std::chrono::system_clock::now() +
                                                                std::chrono::milliseconds(50));
        std::shared_ptr<FilePartRequest> part;
        if (scheduler_.isCancelled()) {
            break;  // the slot just taken goes with the cancellation
        } else if (!gotSlot) {
            continue;
        }
        switch (scheduler_.takeNext(part)) {
            case Scheduler::Take::taken:
                startAttempt(part);
                break;
            case Scheduler::Take::notReady:
                maxConnectionsSemaphore_.signal();
                break;
            case Scheduler::Take::empty:
                // The delegate queue started the last waiting part meanwhile, with a slot of
                // its own (attemptDidBecomeInvalid): this one goes back.
                maxConnectionsSemaphore_.signal();
                break;
            case Scheduler::Take::cancelled:
                break;  // the slot just taken goes with the cancellation
        }
    }
    logger_.trace([] { return std::string("processWaitQueue finished"); });
}

void ClientCore::startAttempt(const std::shared_ptr<FilePartRequest>& part) {
    HttpRequest request(part->url());
    request.timeoutInterval = 60.0;
    request.cachePolicy = CachePolicy::reloadIgnoringLocalAndRemoteCacheData;
    request.httpMethod = part->method();
    request.addValue(std::to_string(part->length()), "Content-Length");
    if (const auto& headers = part->headers()) {
        for (const auto& [name, value] : *headers) {
            request.addValue(value, name);
        }
    }
    request.addValue(std::to_string(part->partNumber()), "X-PLNX-Part-Number");
    if (part->retryCount() != 0) {
        request.addValue(std::to_string(part->retryCount()), "X-PLNX-Retry-Count");
    }

    auto attempt = std::make_shared<FilePartRequestDelegate>(
        part, std::static_pointer_cast<ClientCore>(shared_from_this()));
    // The session and its task exist before the attempt is registered: a cancellation finds
    // only sessions that can no longer be invalidated before their task is made.
    std::shared_ptr<HttpSession> session = attempt->httpSession();
    if (!session) {
        fatalError("the HTTP session of " + part->debugDescription() + " is missing");
    }
    std::shared_ptr<UploadTask> task = session->uploadTaskWithStreamedRequest(std::move(request));
    const bool cancelled = scheduler_.attemptRegistered(attempt);
    logger_.trace([&] {
        return "task id: " + std::to_string(task->taskIdentifier()) + " starting part # " +
               std::to_string(part->partNumber()) +
               " retries: " + std::to_string(part->retryCount());
    });
    task->resume();
    // A cancellation that began before this attempt was registered did not see its session.
    if (cancelled) {
        session->invalidateAndCancel();
    }
}

}  // namespace pellorin
