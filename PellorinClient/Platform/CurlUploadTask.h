// curl::UploadTask: the libcurl implementation of UploadTask, made by a curl::HttpSession.
//
// Shared through std::shared_ptr by the caller, by its session while it runs and by the
// callbacks queued for it. resume() starts the transfer on a transfer thread of its own for as
// long as it runs (see TransferThreads.h): it asks for the body stream, opens it, runs the
// exchange, closes the stream and reports the outcome; every report is an async block on the
// session's delegate queue. The body stream is asked for when the thread is had, before the
// thread runs. Public member functions may be called from any thread. The transfer
// thread holds the task until the transfer has ended.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/PlatformError.h>

#include "Platform/HttpMessage.h"
#include "Platform/InputStream.h"
#include "Platform/TaskMetrics.h"
#include "Platform/UploadTask.h"

namespace pellorin {

class CurlTransfer;
struct CurlHandles;

namespace curl {

class HttpSession;

class UploadTask final : public pellorin::UploadTask,
                         public std::enable_shared_from_this<UploadTask> {
  public:
    // Only a session makes tasks.
    class Passkey {
        Passkey() = default;
        friend class HttpSession;
    };
    // A streamed upload when `completionHandler` is empty, otherwise a one-shot upload of `body`.
    UploadTask(Passkey, std::weak_ptr<HttpSession> session, uint64_t taskIdentifier,
               HttpRequest request, std::vector<uint8_t> body, CompletionHandler completionHandler);
    UploadTask(const UploadTask&) = delete;
    UploadTask& operator=(const UploadTask&) = delete;

    uint64_t taskIdentifier() const override { return taskIdentifier_; }
    // Starts the transfer on a transfer thread (see TransferThreads.h).
    void resume() override;
    // A running task is cancelled by waking its transfer thread.
    void cancel() override;
    std::string description() const override;
    std::shared_ptr<const HttpResponse> response() const override;
    const HttpRequest& originalRequest() const override { return request_; }
    State state() const override;
    std::optional<PlatformError> error() const override;

  private:
    void run(const std::shared_ptr<HttpSession>& session, const CurlHandles& handles);
    // Asks the delegate for the body stream (an async block on the delegate queue). resume(),
    // once the transfer thread is had.
    void requestBodyStream(HttpSession& session);
    // Waits on the transfer thread for the delegate's answer; null when cancelled first.
    std::shared_ptr<InputStream> awaitBodyStream();
    void deliverBodyStream(std::shared_ptr<InputStream> stream);
    struct Outcome;
    Outcome transfer(HttpSession& session, const CurlHandles& handles,
                     const std::shared_ptr<InputStream>& stream, int64_t bodyLength);
    void complete(HttpSession& session, TaskMetrics metrics, std::optional<PlatformError> error,
                  std::optional<std::vector<uint8_t>> data);
    bool isStreamed() const { return streamed_; }

    const std::weak_ptr<HttpSession> session_;  // the transfer thread holds it strongly
    const uint64_t taskIdentifier_;
    const HttpRequest request_;
    const bool streamed_;                  // body from the delegate's stream, not body_
    std::vector<uint8_t> body_;            // one-shot body; moved out by the transfer thread
    CompletionHandler completionHandler_;  // moved out when the outcome is delivered

    mutable std::mutex mutex_;
    std::condition_variable wake_;                  // body stream answered, or cancel requested
    State state_ = State::suspended;                // guarded by mutex_
    bool cancelRequested_ = false;                  // guarded by mutex_
    bool bodyStreamAnswered_ = false;               // guarded by mutex_
    std::shared_ptr<InputStream> bodyStream_;       // guarded by mutex_
    CurlTransfer* activeTransfer_ = nullptr;        // guarded by mutex_; owned by run()
    std::shared_ptr<const HttpResponse> response_;  // guarded by mutex_
    std::optional<PlatformError> error_;            // guarded by mutex_
};

}  // namespace curl
}  // namespace pellorin
