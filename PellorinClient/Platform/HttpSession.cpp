#include "Platform/CurlSession.h"

#include "Platform/Fatal.h"

namespace pellorin {

std::shared_ptr<HttpSession> HttpSession::make(SessionConfiguration configuration,
                                               std::shared_ptr<HttpSessionDelegate> delegate,
                                               std::shared_ptr<SerialQueue> delegateQueue) {
    return std::make_shared<curl::HttpSession>(curl::HttpSession::Passkey{},
                                               std::move(configuration), std::move(delegate),
                                               std::move(delegateQueue), false);
}

std::shared_ptr<HttpSession> HttpSession::shared() {
    static const std::shared_ptr<HttpSession> session = std::make_shared<curl::HttpSession>(
        curl::HttpSession::Passkey{}, SessionConfiguration::ephemeral(), nullptr,
        SerialQueue::make("HttpSession shared queue"), true);
    return session;
}

namespace curl {

HttpSession::HttpSession(Passkey, SessionConfiguration configuration,
                         std::shared_ptr<HttpSessionDelegate> delegate,
                         std::shared_ptr<SerialQueue> delegateQueue, bool isShared)
    : configuration_(std::move(configuration)),
      delegateQueue_(delegateQueue ? std::move(delegateQueue)
                                   : SerialQueue::make("HttpSession delegate queue")),
      isShared_(isShared),
      delegate_(std::move(delegate)) {}

std::shared_ptr<pellorin::UploadTask> HttpSession::uploadTaskWithStreamedRequest(
    HttpRequest request) {
    return addTask(std::move(request), {}, nullptr);
}

std::shared_ptr<pellorin::UploadTask> HttpSession::uploadTask(HttpRequest request,
                                                              std::vector<uint8_t> body,
                                                              CompletionHandler completionHandler) {
    if (!completionHandler) {
        completionHandler = [](auto&&...) {};
    }
    return addTask(std::move(request), std::move(body), std::move(completionHandler));
}

std::shared_ptr<UploadTask> HttpSession::addTask(HttpRequest request, std::vector<uint8_t> body,
                                                 CompletionHandler completionHandler) {
    std::lock_guard lock(mutex_);
    if (invalidating_) {
        fatalError("Task created in a session that has been invalidated");
    }
    const uint64_t identifier = nextTaskIdentifier_++;
    auto task = std::make_shared<UploadTask>(UploadTask::Passkey{}, weak_from_this(), identifier,
                                             std::move(request), std::move(body),
                                             std::move(completionHandler));
    tasks_.emplace(identifier, task);
    return task;
}

void HttpSession::finishTasksAndInvalidate() {
    if (isShared_) {
        return;
    }
    std::lock_guard lock(mutex_);
    invalidating_ = true;
    invalidateIfDoneLocked();
}

void HttpSession::invalidateAndCancel() {
    if (isShared_) {
        return;
    }
    std::vector<std::shared_ptr<UploadTask>> unfinished;
    {
        std::lock_guard lock(mutex_);
        invalidating_ = true;
        for (const auto& [identifier, task] : tasks_) {
            unfinished.push_back(task);
        }
        invalidateIfDoneLocked();
    }
    // Outside the lock: a task that has not started completes at once and calls back in.
    for (const std::shared_ptr<UploadTask>& task : unfinished) {
        task->cancel();
    }
}

void HttpSession::setSessionDescription(std::string description) {
    std::lock_guard lock(mutex_);
    sessionDescription_ = std::move(description);
}

std::optional<std::string> HttpSession::sessionDescription() const {
    std::lock_guard lock(mutex_);
    return sessionDescription_;
}

void HttpSession::notifyDelegate(
    std::shared_ptr<UploadTask> task,
    std::function<void(HttpSessionDelegate&, HttpSession&, UploadTask&)> call) {
    delegateQueue_->async(
        [self = shared_from_this(), task = std::move(task), call = std::move(call)] {
            if (self->delegate_) {
                call(*self->delegate_, *self, *task);
            }
        });
}

void HttpSession::taskDidComplete(uint64_t taskIdentifier) {
    std::shared_ptr<UploadTask> finished;  // released outside the lock
    std::lock_guard lock(mutex_);
    if (auto found = tasks_.find(taskIdentifier); found != tasks_.end()) {
        finished = std::move(found->second);
        tasks_.erase(found);
    }
    invalidateIfDoneLocked();
}

void HttpSession::invalidateIfDoneLocked() {
    if (!invalidating_ || invalidationQueued_ || !tasks_.empty()) {
        return;
    }
    invalidationQueued_ = true;
    // Every task queued its reports before it left tasks_, so this block runs after them.
    delegateQueue_->async([self = shared_from_this()] {
        std::shared_ptr<HttpSessionDelegate> delegate = std::move(self->delegate_);
        if (delegate) {
            delegate->urlSessionDidBecomeInvalidWithError(*self, std::nullopt);
        }
    });
}

}  // namespace curl
}  // namespace pellorin
