#include "HttpTestSupport.h"

#include <algorithm>

namespace pellorin::testing {

void RecordingDelegate::record(SessionEvent event) {
    offQueueCalls += queue_->isCurrent() ? 0 : 1;
    std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
}

bool RecordingDelegate::waitForInvalidation(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(
        lock, limit, [&] { return !events_.empty() && events_.back().kind == Kind::invalidated; });
}

std::vector<SessionEvent> RecordingDelegate::events(std::optional<Kind> kind) const {
    std::lock_guard lock(mutex_);
    std::vector<SessionEvent> result;
    std::copy_if(events_.begin(), events_.end(), std::back_inserter(result),
                 [&](const SessionEvent& e) { return !kind || e.kind == *kind; });
    return result;
}

std::optional<SessionEvent> RecordingDelegate::completionOf(uint64_t task) const {
    const auto completions = events(Kind::completed);
    const auto found = std::find_if(completions.begin(), completions.end(),
                                    [&](const SessionEvent& e) { return e.task == task; });
    return found == completions.end() ? std::nullopt : std::optional(*found);
}

SessionHarness::SessionHarness(RecordingDelegate::BodySupplier bodyFor,
                               SessionConfiguration configuration)
    : delegate(std::make_shared<RecordingDelegate>(queue, std::move(bodyFor))),
      session(HttpSession::make(std::move(configuration), delegate, queue)) {}

std::optional<SessionEvent> SessionHarness::runOne(HttpRequest request) {
    std::shared_ptr<UploadTask> task = session->uploadTaskWithStreamedRequest(std::move(request));
    task->resume();
    session->finishTasksAndInvalidate();
    if (!delegate->waitForInvalidation()) {
        return std::nullopt;
    }
    return delegate->completionOf(task->taskIdentifier());
}

int64_t TestStream::read(uint8_t* buffer, int64_t maxLength) {
    if (gate_) {
        gate_->wait_for(std::chrono::seconds(10));
        gate_.reset();
    }
    if (failAfter_ && delivered_ >= *failAfter_) {
        return -1;
    }
    const int64_t got = MemoryInputStream::read(
        buffer, failAfter_ ? std::min(maxLength, *failAfter_ - delivered_) : maxLength);
    delivered_ += std::max<int64_t>(got, 0);
    return got;
}

RecordingDelegate::BodySupplier bodyOf(size_t size) {
    return [size](UploadTask&) {
        return std::make_shared<MemoryInputStream>(randomData(static_cast<int64_t>(size)));
    };
}

HttpRequest uploadRequest(const std::string& url, int64_t length) {
    HttpRequest request(Url::parse(url).value());
    request.httpMethod = "PUT";
    request.addValue(std::to_string(length), "Content-Length");
    return request;
}

}  // namespace pellorin::testing
