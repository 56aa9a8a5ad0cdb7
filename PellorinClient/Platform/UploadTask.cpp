#include "Platform/CurlUploadTask.h"

#include <atomic>
#include <cerrno>

#include "Platform/CurlSession.h"
#include "Platform/CurlTransfer.h"
#include "Platform/MemoryInputStream.h"
#include "Platform/TransferThreads.h"

namespace pellorin::curl {

namespace {

const char* toString(UploadTask::State state) {
    switch (state) {
        case UploadTask::State::suspended:
            return "suspended";
        case UploadTask::State::running:
            return "running";
        case UploadTask::State::canceling:
            return "canceling";
        case UploadTask::State::completed:
            return "completed";
    }
    return "unknown";
}

PlatformError cancelledError() {
    return urlError(URLError::cancelled, "the task was cancelled");
}

// Hands the delegate's answer to the waiting task. When every copy of the completion handler
// is gone unanswered, the task is told that no stream will come.
class BodyStreamAnswer {
  public:
    explicit BodyStreamAnswer(std::function<void(std::shared_ptr<InputStream>)> deliver)
        : deliver_(std::move(deliver)) {}
    ~BodyStreamAnswer() { answer(nullptr); }
    // The first answer is delivered, later ones are dropped. (An atomic flag rather than
    // std::call_once, which makes a futex call every time it runs.)
    void answer(std::shared_ptr<InputStream> stream) {
        if (!answered_.exchange(true, std::memory_order_acq_rel)) {
            deliver_(std::move(stream));
        }
    }

  private:
    std::atomic<bool> answered_{false};
    std::function<void(std::shared_ptr<InputStream>)> deliver_;
};

}  // namespace

struct UploadTask::Outcome {
    TaskMetrics metrics;
    std::optional<PlatformError> error;
    std::optional<std::vector<uint8_t>> data;
};

UploadTask::UploadTask(Passkey, std::weak_ptr<HttpSession> session, uint64_t taskIdentifier,
                       HttpRequest request, std::vector<uint8_t> body,
                       CompletionHandler completionHandler)
    : session_(std::move(session)),
      taskIdentifier_(taskIdentifier),
      request_(std::move(request)),
      streamed_(!completionHandler),
      body_(std::move(body)),
      completionHandler_(std::move(completionHandler)) {}

void UploadTask::resume() {
    std::shared_ptr<HttpSession> session;
    {
        std::lock_guard lock(mutex_);
        if (state_ != State::suspended) {
            return;
        }
        session = session_.lock();
        if (!session) {
            return;  // the session is gone: nobody would hear of the outcome
        }
        state_ = State::running;
    }
    // Outside the lock, which the transfer thread wants as soon as it runs.
    if (transferThreads::run(
            [self = shared_from_this(), session](const CurlHandles& handles) mutable {
                self->run(session, handles);
                session.reset();
                self.reset();
            })) {
        // Asked for now rather than by the transfer thread once it runs: the delegate answers
        // while the thread wakes, and the thread seldom has to wait for it.
        if (isStreamed()) {
            requestBodyStream(*session);
        }
        return;
    }
    // The system refused a thread: the task ends with an error its owner may retry.
    PlatformError error{
        std::string(kPOSIXErrorDomain), EAGAIN, "No thread could be created for the transfer.", {}};
    error.userInfo.emplace(kFailingURLKey, request_.url.absoluteString());
    complete(*session, TaskMetrics{}, std::move(error), std::nullopt);
}

void UploadTask::cancel() {
    std::shared_ptr<HttpSession> session;
    {
        std::lock_guard lock(mutex_);
        if (state_ == State::completed || cancelRequested_) {
            return;
        }
        cancelRequested_ = true;
        if (state_ == State::suspended) {
            session = session_.lock();  // never started: report the end from here
        } else {
            state_ = State::canceling;
            wake_.notify_all();
            if (activeTransfer_ != nullptr) {
                activeTransfer_->cancel();
            }
        }
    }
    if (session) {
        complete(*session, TaskMetrics{}, cancelledError(), std::nullopt);
    }
}

std::string UploadTask::description() const {
    return "UploadTask{taskIdentifier: " + std::to_string(taskIdentifier_) + ", " +
           request_.httpMethod + " " + request_.url.absoluteString() +
           ", state: " + toString(state()) + "}";
}

std::shared_ptr<const HttpResponse> UploadTask::response() const {
    std::lock_guard lock(mutex_);
    return response_;
}

UploadTask::State UploadTask::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

std::optional<PlatformError> UploadTask::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

void UploadTask::run(const std::shared_ptr<HttpSession>& session, const CurlHandles& handles) {
    std::shared_ptr<InputStream> stream;
    std::optional<int64_t> bodyLength;
    if (isStreamed()) {
        stream = awaitBodyStream();
        bodyLength = requestBodyLength(request_);
    } else {
        bodyLength = static_cast<int64_t>(body_.size());
        stream = std::make_shared<MemoryInputStream>(std::move(body_));
    }
    Outcome outcome;
    if (!stream) {
        // A stream that arrives after cancellation is never opened.
        outcome.error =
            (state() == State::canceling)
                ? cancelledError()
                : urlError(URLError::requestBodyStreamExhausted, "no body stream was provided");
    } else if (!bodyLength) {
        outcome.error = urlError(URLError::badURL, "the request's Content-Length is not a number");
    } else {
        stream->open();
        if (stream->streamStatus() == StreamStatus::error) {
            outcome.error = urlError(URLError::requestBodyStreamExhausted,
                                     "the body stream could not be opened");
        } else {
            outcome = transfer(*session, handles, stream, *bodyLength);
        }
        stream->close();
    }
    // From here on the thread only reports and lets go: the next part may be kept for it.
    transferThreads::jobIsFinishing();
    complete(*session, std::move(outcome.metrics), std::move(outcome.error),
             std::move(outcome.data));
}

void UploadTask::requestBodyStream(HttpSession& session) {
    std::weak_ptr<UploadTask> weakSelf = weak_from_this();
    auto answer = std::make_shared<BodyStreamAnswer>([weakSelf](std::shared_ptr<InputStream> s) {
        if (std::shared_ptr<UploadTask> self = weakSelf.lock()) {
            self->deliverBodyStream(std::move(s));
        }
    });
    session.notifyDelegate(shared_from_this(), [answer = std::move(answer)](
                                                   HttpSessionDelegate& delegate, HttpSession& s,
                                                   UploadTask& task) mutable {
        std::function<void(std::shared_ptr<InputStream>)> handler =
            [answer](std::shared_ptr<InputStream> stream) { answer->answer(std::move(stream)); };
        answer.reset();  // from now on only the handler's copies keep the answer open
        delegate.urlSessionTaskNeedNewBodyStream(s, task, std::move(handler));
    });
}

std::shared_ptr<InputStream> UploadTask::awaitBodyStream() {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [&] { return bodyStreamAnswered_ || cancelRequested_; });
    if (cancelRequested_) {
        return nullptr;
    }
    return std::move(bodyStream_);
}

void UploadTask::deliverBodyStream(std::shared_ptr<InputStream> stream) {
    std::lock_guard lock(mutex_);
    if (bodyStreamAnswered_) {
        return;
    }
    bodyStreamAnswered_ = true;
    bodyStream_ = std::move(stream);
    wake_.notify_all();
}

UploadTask::Outcome UploadTask::transfer(HttpSession& session, const CurlHandles& handles,
                                         const std::shared_ptr<InputStream>& stream,
                                         int64_t bodyLength) {
    TransferObserver observer;
    if (isStreamed()) {
        observer.bodyBytesSent = [this, &session, bodyLength](int64_t sent, int64_t total) {
            session.notifyDelegate(
                shared_from_this(), [sent, total, bodyLength](HttpSessionDelegate& delegate,
                                                              HttpSession& s, UploadTask& task) {
                    delegate.urlSessionTaskDidSendBodyData(s, task, sent, total, bodyLength);
                });
        };
    }
    CurlTransfer curl(handles, session.configuration(), request_, stream, bodyLength, !isStreamed(),
                      std::move(observer));
    {
        std::lock_guard lock(mutex_);
        if (cancelRequested_) {
            return Outcome{{}, cancelledError(), std::nullopt};
        }
        activeTransfer_ = &curl;
    }
    TransferOutcome result = curl.perform();
    {
        std::lock_guard lock(mutex_);
        activeTransfer_ = nullptr;
        response_ = result.response;
    }
    Outcome outcome;
    outcome.metrics.transactionMetrics.push_back(result.metrics);
    outcome.error = std::move(result.error);
    if (!outcome.error && !result.responseBody.empty()) {
        outcome.data = std::move(result.responseBody);
    }
    return outcome;
}

void UploadTask::complete(HttpSession& session, TaskMetrics metrics,
                          std::optional<PlatformError> error,
                          std::optional<std::vector<uint8_t>> data) {
    CompletionHandler handler;
    std::shared_ptr<const HttpResponse> response;
    {
        std::lock_guard lock(mutex_);
        state_ = State::completed;
        error_ = error;
        response = response_;
        handler = std::move(completionHandler_);
    }
    if (handler) {
        session.delegateQueue()->async([handler = std::move(handler), data = std::move(data),
                                        response = std::move(response), error = error]() mutable {
            handler(std::move(data), std::move(response), std::move(error));
        });
    } else {
        // One block for both reports: they always come together, in this order.
        session.notifyDelegate(
            shared_from_this(),
            [metrics = std::move(metrics), error = std::move(error)](
                HttpSessionDelegate& delegate, HttpSession& s, UploadTask& task) {
                delegate.urlSessionTaskDidFinishCollectingMetrics(s, task, metrics);
                delegate.urlSessionTaskDidCompleteWithError(s, task, error);
            });
    }
    session.taskDidComplete(taskIdentifier_);
}

}  // namespace pellorin::curl
