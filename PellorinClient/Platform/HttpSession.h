// HttpSession: the HTTP session service. A session runs upload tasks with one configuration and
// reports their events to one delegate, each event as an async block on one delegate queue.
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
#include <map>
#include <memory>
#include <mutex>
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

class HttpSession : public std::enable_shared_from_this<HttpSession> {
  public:
    using CompletionHandler = UploadTask::CompletionHandler;

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
    std::shared_ptr<UploadTask> uploadTaskWithStreamedRequest(HttpRequest request);
    // A suspended one-shot task sending `body`; completionHandler runs on the delegate queue
    // with the response body, the response and the error. No delegate callback is made for it.
    std::shared_ptr<UploadTask> uploadTask(HttpRequest request, std::vector<uint8_t> body,
                                           CompletionHandler completionHandler);

    // Takes no new tasks; once the unfinished ones are done, the delegate hears
    // urlSessionDidBecomeInvalidWithError(nullopt).
    void finishTasksAndInvalidate();
    // As finishTasksAndInvalidate, and cancels every unfinished task (URLError::cancelled).
    void invalidateAndCancel();

    void setSessionDescription(std::string description);
    std::optional<std::string> sessionDescription() const;
    const SessionConfiguration& configuration() const { return configuration_; }
    const std::shared_ptr<SerialQueue>& delegateQueue() const { return delegateQueue_; }

    class Passkey {
        Passkey() = default;
        friend class HttpSession;
    };
    HttpSession(Passkey, SessionConfiguration configuration,
                std::shared_ptr<HttpSessionDelegate> delegate,
                std::shared_ptr<SerialQueue> delegateQueue, bool isShared);

  private:
    friend class UploadTask;

    std::shared_ptr<UploadTask> addTask(HttpRequest request, std::vector<uint8_t> body,
                                        CompletionHandler completionHandler);
    // Queues a delegate callback about `task`; skipped when the delegate is gone. Any thread.
    void notifyDelegate(std::shared_ptr<UploadTask> task,
                        std::function<void(HttpSessionDelegate&, HttpSession&, UploadTask&)> call);
    // The task has queued its last report; may queue the session's invalidation. Any thread.
    void taskDidComplete(uint64_t taskIdentifier);
    // Queues the invalidation if it is due and not queued yet. Caller holds mutex_.
    void invalidateIfDoneLocked();

    const SessionConfiguration configuration_;
    const std::shared_ptr<SerialQueue> delegateQueue_;
    const bool isShared_;
    // Read and released on the delegate queue only (set before any task exists).
    std::shared_ptr<HttpSessionDelegate> delegate_;

    mutable std::mutex mutex_;
    uint64_t nextTaskIdentifier_ = 1;                        // guarded by mutex_
    std::map<uint64_t, std::shared_ptr<UploadTask>> tasks_;  // unfinished; guarded by mutex_
    bool invalidating_ = false;                              // guarded by mutex_
    bool invalidationQueued_ = false;                        // guarded by mutex_
    std::optional<std::string> sessionDescription_;          // guarded by mutex_
};

}  // namespace pellorin
