// HttpSession: the HTTP session service, the client's one seam to the transport. A session runs
// upload tasks with one configuration and reports their events to one delegate, each event as an
// async block on one delegate queue. `make` and `shared` give the libcurl implementation
// (curl::HttpSession, CurlSession.h); nothing outside it names libcurl.
//
// Per task the delegate hears, in this order: urlSessionTaskNeedNewBodyStream (streamed tasks),
// urlSessionTaskDidSendBodyData as body bytes go out, urlSessionTaskDidFinishCollectingMetrics,
// urlSessionTaskDidCompleteWithError. After finishTasksAndInvalidate or invalidateAndCancel,
// once no task is left, urlSessionDidBecomeInvalidWithError comes last, exactly once; the
// session then lets its delegate go. No callback runs anywhere but on the delegate queue.
//
// Time: the configuration's idle time-out alone governs each task (a request's own time-out does
// not shorten it), and once a task's body has gone out or its answer has begun, the whole answer
// must arrive within one more idle time-out. A task that ends without an error always carries
// libcurl's parse of the final answer; an answer that came before the whole body is an error.
// A task that cannot get a thread completes with a kPOSIXErrorDomain error (EAGAIN).
//
// Ownership: the session keeps its delegate until it has become invalid, and its unfinished
// tasks; a running task keeps its session. Public member functions may be called from any
// thread, delegate callbacks included.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/PlatformError.h>
#include <pellorin/SerialQueue.h>
#include <pellorin/SessionConfiguration.h>

#include "Platform/HttpMessage.h"
#include "Platform/InputStream.h"
#include "Platform/TaskMetrics.h"
#include "Platform/UploadTask.h"
#include "Platform/UrlError.h"

namespace pellorin {

class HttpSession;

// Receiver of a session's events; every function runs on the session's delegate queue.
class HttpSessionDelegate {
  public:
    virtual ~HttpSessionDelegate() = default;
    // Once per streamed task, when it starts. The task waits for completionHandler (any thread,
    // now or later); answering with nullptr, or dropping the handler unanswered, fails the task
    // with URLError::requestBodyStreamExhausted. The stream is opened, read and closed on the
    // task's transfer thread.
    virtual void urlSessionTaskNeedNewBodyStream(
        HttpSession& session, UploadTask& task,
        std::function<void(std::shared_ptr<InputStream>)> completionHandler) = 0;
    // Body bytes went out: since the previous call, in total, and the total expected (-1 when
    // the request carries no "Content-Length"). Calls are coalesced; their sum is what was sent.
    virtual void urlSessionTaskDidSendBodyData(HttpSession& session, UploadTask& task,
                                               int64_t bytesSent, int64_t totalBytesSent,
                                               int64_t totalBytesExpectedToSend) = 0;
    virtual void urlSessionTaskDidFinishCollectingMetrics(HttpSession& session, UploadTask& task,
                                                          const TaskMetrics& metrics) = 0;
    // The task ended; task.response() holds the response if one arrived. An HTTP error status
    // is not an error here.
    virtual void urlSessionTaskDidCompleteWithError(HttpSession& session, UploadTask& task,
                                                    const std::optional<PlatformError>& error) = 0;
    // The very last callback of the session.
    virtual void urlSessionDidBecomeInvalidWithError(HttpSession& session,
                                                     const std::optional<PlatformError>& error) = 0;
};

class HttpSession {
  public:
    using CompletionHandler = UploadTask::CompletionHandler;

    virtual ~HttpSession() = default;

    // A session reporting to `delegate` on `delegateQueue` (a queue of its own when null).
    static std::shared_ptr<HttpSession> make(SessionConfiguration configuration,
                                             std::shared_ptr<HttpSessionDelegate> delegate,
                                             std::shared_ptr<SerialQueue> delegateQueue);
    // The process-wide session for one-shot uploads: no delegate, completion handlers run on a
    // background queue of its own, and it cannot be invalidated.
    static std::shared_ptr<HttpSession> shared();

    // A suspended task sending `request` with a body streamed from the stream the delegate
    // supplies. The body length is the request's "Content-Length" (chunked when absent; a value
    // that is not one decimal number fails the task with URLError::badURL). Making a task on a
    // session that is being invalidated is a fatal stop.
    virtual std::shared_ptr<UploadTask> uploadTaskWithStreamedRequest(HttpRequest request) = 0;
    // A suspended one-shot task sending `body`; completionHandler runs on the delegate queue
    // with the response body, the response and the error. No delegate callback is made for it.
    virtual std::shared_ptr<UploadTask> uploadTask(HttpRequest request, std::vector<uint8_t> body,
                                                   CompletionHandler completionHandler) = 0;

    // Takes no new tasks; once the unfinished ones are done, the delegate hears
    // urlSessionDidBecomeInvalidWithError(nullopt).
    virtual void finishTasksAndInvalidate() = 0;
    // As finishTasksAndInvalidate, and cancels every unfinished task (URLError::cancelled).
    virtual void invalidateAndCancel() = 0;

    virtual void setSessionDescription(std::string description) = 0;
    virtual std::optional<std::string> sessionDescription() const = 0;
    virtual const SessionConfiguration& configuration() const = 0;
    virtual const std::shared_ptr<SerialQueue>& delegateQueue() const = 0;
};

}  // namespace pellorin
