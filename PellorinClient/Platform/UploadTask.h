// UploadTask: one HTTP upload made by an HttpSession, either with a streamed body (asked of the
// session delegate) or with a body in memory and a completion handler. This is the interface the
// client and the host see; the libcurl implementation is curl::UploadTask (CurlUploadTask.h).
//
// Shared through std::shared_ptr by the caller, by its session while it runs and by the
// callbacks queued for it. resume() starts the transfer; every report is an async block on the
// session's delegate queue. Member functions may be called from any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/PlatformError.h>

#include "Platform/HttpMessage.h"

namespace pellorin {

class UploadTask {
  public:
    enum class State { suspended, running, canceling, completed };

    // Answer of a one-shot upload: the response body (absent when the task failed or no body
    // byte arrived), the response (when one arrived) and the error (none on any HTTP status).
    using CompletionHandler = std::function<void(std::optional<std::vector<uint8_t>> data,
                                                 std::shared_ptr<const HttpResponse> response,
                                                 std::optional<PlatformError> error)>;

    virtual ~UploadTask() = default;

    // Increasing within the session, from 1.
    virtual uint64_t taskIdentifier() const = 0;
    // Starts the transfer. Only the first call on a suspended task does anything.
    virtual void resume() = 0;
    // Ends the task with URLError::cancelled: at once when it has not started, otherwise within
    // milliseconds (a body read in progress is finished first). Nothing happens once the task
    // has completed.
    virtual void cancel() = 0;
    // "UploadTask{taskIdentifier: 1, PUT http://host/path, state: running}".
    virtual std::string description() const = 0;
    // The final response, once the task has completed without an error.
    virtual std::shared_ptr<const HttpResponse> response() const = 0;
    virtual const HttpRequest& originalRequest() const = 0;
    virtual State state() const = 0;
    // The error the task completed with, once it has completed.
    virtual std::optional<PlatformError> error() const = 0;
};

}  // namespace pellorin
