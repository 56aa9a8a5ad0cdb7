// UploadTask: one HTTP upload made by an HttpSession, either with a streamed body (asked of the
// session delegate) or with a body in memory and a completion handler.
//
// Shared through std::shared_ptr by the caller, by its session while it runs and by the
// callbacks queued for it. resume() starts the transfer on a transfer thread of its own for as
// long as it runs (see TransferThreads.h): it asks for the body stream, opens it, runs the
// exchange, closes the stream and reports the outcome; every report is an async block on the
// session's delegate queue. Public member functions may be called from any thread. The transfer
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

namespace pellorin {

class HttpSession;
class CurlTransfer;
struct CurlHandles;

class UploadTask : public std::enable_shared_from_this<UploadTask> {
  public:
    enum class State { suspended, running, canceling, completed };

    // Answer of a one-shot upload: the response body (absent when the task failed or no body
    // byte arrived), the response (when one arrived) and the error (none on any HTTP status).
    using CompletionHandler = std::function<void(std::optional<std::vector<uint8_t>> data,
                                                 std::shared_ptr<const HttpResponse> response,
                                                 std::optional<PlatformError> error)>;

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

    // Increasing within the session, from 1.
    uint64_t taskIdentifier() const { return taskIdentifier_; }
    // Starts the transfer on a transfer thread. Only the first call on a suspended task does
    // anything.
    void resume();
    // Ends the task with URLError::cancelled: at once when it has not started, otherwise by
    // waking its transfer thread, which stops within milliseconds (a body read in progress is
    // finished first). Nothing happens once the task has completed.
    void cancel();
    // "UploadTask{taskIdentifier: 1, PUT http://host/path, state: running}".
    std::string description() const;
    // The final response, once the task has completed without an error.
    std::shared_ptr<const HttpResponse> response() const;
    const HttpRequest& originalRequest() const { return request_; }
    State state() const;
    // The error the task completed with, once it has completed.
    std::optional<PlatformError> error() const;

  private:
    void run(const std::shared_ptr<HttpSession>& session, const CurlHandles& handles);
    std::shared_ptr<InputStream> awaitBodyStream(HttpSession& session);
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

}  // namespace pellorin
