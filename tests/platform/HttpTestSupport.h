// Helpers for the HTTP session tests: a delegate that records every callback, a session made
// with it, and body streams that wait or fail.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "Platform/HttpSession.h"
#include "Platform/MemoryInputStream.h"
#include "datapath/MessageDigest.h"

namespace pellorin::testing {

struct SessionEvent {
    enum class Kind { needBodyStream, sentBodyData, metrics, completed, invalidated };
    Kind kind;
    uint64_t task = 0;
    int64_t bytesSent = 0, totalBytesSent = 0, totalExpected = 0;  // sentBodyData
    TaskMetrics metrics{};                                         // metrics
    std::optional<PlatformError> error{};                          // completed
    std::shared_ptr<const HttpResponse> response{};                // completed
};

// Records every callback; answers body-stream requests through `bodyFor`, except that of task
// `holdBodyOfTask`, whose handler is kept unanswered. Counts callbacks off the delegate queue.
class RecordingDelegate : public HttpSessionDelegate {
  public:
    using Kind = SessionEvent::Kind;
    using BodySupplier = std::function<std::shared_ptr<InputStream>(UploadTask&)>;
    RecordingDelegate(std::shared_ptr<SerialQueue> queue, BodySupplier bodyFor)
        : queue_(std::move(queue)), bodyFor_(std::move(bodyFor)) {}

    void urlSessionTaskNeedNewBodyStream(
        HttpSession&, UploadTask& task,
        std::function<void(std::shared_ptr<InputStream>)> handler) override {
        record({Kind::needBodyStream, task.taskIdentifier()});
        if (task.taskIdentifier() == holdBodyOfTask) {
            held_.push_back(std::move(handler));
        } else {
            handler(bodyFor_(task));
        }
    }
    void urlSessionTaskDidSendBodyData(HttpSession&, UploadTask& task, int64_t sent, int64_t total,
                                       int64_t expected) override {
        record({Kind::sentBodyData, task.taskIdentifier(), sent, total, expected});
    }
    void urlSessionTaskDidFinishCollectingMetrics(HttpSession&, UploadTask& task,
                                                  const TaskMetrics& metrics) override {
        record({Kind::metrics, task.taskIdentifier(), 0, 0, 0, metrics});
    }
    void urlSessionTaskDidCompleteWithError(HttpSession&, UploadTask& task,
                                            const std::optional<PlatformError>& error) override {
        record({Kind::completed, task.taskIdentifier(), 0, 0, 0, {}, error, task.response()});
    }
    void urlSessionDidBecomeInvalidWithError(HttpSession&,
                                             const std::optional<PlatformError>&) override {
        record({Kind::invalidated});
    }

    // Waits at most `limit` until the session has become invalid.
    bool waitForInvalidation(std::chrono::milliseconds limit = std::chrono::seconds(10));
    std::vector<SessionEvent> events(std::optional<Kind> kind = std::nullopt) const;
    std::optional<SessionEvent> completionOf(uint64_t task) const;

    uint64_t holdBodyOfTask = 0;  // set before the first task starts
    std::atomic<int> offQueueCalls{0};

  private:
    void record(SessionEvent event);

    const std::shared_ptr<SerialQueue> queue_;
    const BodySupplier bodyFor_;
    std::vector<std::function<void(std::shared_ptr<InputStream>)>> held_;  // on the queue only
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<SessionEvent> events_;  // guarded by mutex_
};

// A session with a recording delegate on a queue of its own.
struct SessionHarness {
    explicit SessionHarness(RecordingDelegate::BodySupplier bodyFor,
                            SessionConfiguration configuration = SessionConfiguration::ephemeral());
    // Runs one streamed task, invalidates the session and returns the task's completion (no
    // value when it did not come within 10 s).
    std::optional<SessionEvent> runOne(HttpRequest request);

    std::shared_ptr<SerialQueue> queue = SerialQueue::make("test.delegate");
    std::shared_ptr<RecordingDelegate> delegate;
    std::shared_ptr<HttpSession> session;
};

// Bytes in memory; the first read waits (at most 10 s) for `gate`, and reads fail once
// `failAfter` bytes have gone.
class TestStream : public MemoryInputStream {
  public:
    explicit TestStream(std::vector<uint8_t> bytes,
                        std::optional<std::shared_future<void>> gate = std::nullopt,
                        std::optional<int64_t> failAfter = std::nullopt)
        : MemoryInputStream(std::move(bytes)), gate_(std::move(gate)), failAfter_(failAfter) {}
    int64_t read(uint8_t* buffer, int64_t maxLength) override;

  private:
    std::optional<std::shared_future<void>> gate_;
    const std::optional<int64_t> failAfter_;
    int64_t delivered_ = 0;
};

// A body supplier of `size` random bytes.
RecordingDelegate::BodySupplier bodyOf(size_t size);
// A PUT to `url` with "Content-Length" `length`.
HttpRequest uploadRequest(const std::string& url, int64_t length);

}  // namespace pellorin::testing
