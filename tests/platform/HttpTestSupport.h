// Helpers for the HTTP session tests: a delegate that records every callback, and body streams
// that sleep or fail.
#pragma once

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

namespace pellorin::testing {

struct SessionEvent {
    enum class Kind { needBodyStream, sentBodyData, metrics, completed, invalidated };
    explicit SessionEvent(Kind kind, uint64_t task = 0) : kind(kind), task(task) {}
    Kind kind;
    uint64_t task;
    int64_t bytesSent = 0, totalBytesSent = 0, totalExpected = 0;  // sentBodyData
    TaskMetrics metrics;                                           // metrics
    std::optional<PlatformError> error;                            // completed, invalidated
    std::shared_ptr<const HttpResponse> response;                  // completed
};

// Records every callback with the task it concerns; answers body-stream requests through
// `bodyFor` (nullptr answers "no stream"). Counts callbacks that came off the delegate queue.
class RecordingDelegate : public HttpSessionDelegate {
  public:
    using BodySupplier = std::function<std::shared_ptr<InputStream>(UploadTask&)>;
    RecordingDelegate(std::shared_ptr<SerialQueue> queue, BodySupplier bodyFor)
        : queue_(std::move(queue)), bodyFor_(std::move(bodyFor)) {}

    void urlSessionTaskNeedNewBodyStream(
        HttpSession& session, UploadTask& task,
        std::function<void(std::shared_ptr<InputStream>)> completionHandler) override;
    void urlSessionTaskDidSendBodyData(HttpSession& session, UploadTask& task, int64_t bytesSent,
                                       int64_t totalBytesSent,
                                       int64_t totalBytesExpectedToSend) override;
    void urlSessionTaskDidFinishCollectingMetrics(HttpSession& session, UploadTask& task,
                                                  const TaskMetrics& metrics) override;
    void urlSessionTaskDidCompleteWithError(HttpSession& session, UploadTask& task,
                                            const std::optional<PlatformError>& error) override;
    void urlSessionDidBecomeInvalidWithError(HttpSession& session,
                                             const std::optional<PlatformError>& error) override;

    // Waits (bounded) until `count` tasks have completed / the session has become invalid.
    bool waitForCompletions(size_t count,
                            std::chrono::milliseconds limit = std::chrono::seconds(10));
    bool waitForInvalidation(std::chrono::milliseconds limit = std::chrono::seconds(10));
    std::vector<SessionEvent> events() const;
    std::vector<SessionEvent> eventsOf(SessionEvent::Kind kind) const;
    // The completion event of `task`, if it came.
    std::optional<SessionEvent> completionOf(uint64_t task) const;
    int offQueueCalls() const;

  private:
    void record(SessionEvent event);

    const std::shared_ptr<SerialQueue> queue_;
    const BodySupplier bodyFor_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<SessionEvent> events_;  // guarded by mutex_
    int offQueueCalls_ = 0;             // guarded by mutex_
};

// A stream over bytes in memory whose first read waits (at most 10 s) until `gate` is ready,
// and whose reads fail once `failAfter` bytes have been read.
class TestStream : public MemoryInputStream {
  public:
    explicit TestStream(std::vector<uint8_t> bytes,
                        std::optional<std::shared_future<void>> gate = std::nullopt,
                        std::optional<int64_t> failAfter = std::nullopt)
        : MemoryInputStream(std::move(bytes)), gate_(std::move(gate)), failAfter_(failAfter) {}
    int64_t read(uint8_t* buffer, int64_t maxLength) override;

  private:
    std::optional<std::shared_future<void>> gate_;  // transfer thread only
    const std::optional<int64_t> failAfter_;
    int64_t delivered_ = 0;  // transfer thread only
};

// A session with a recording delegate on a queue of its own.
struct SessionHarness {
    explicit SessionHarness(RecordingDelegate::BodySupplier bodyFor,
                            SessionConfiguration configuration = SessionConfiguration::ephemeral());

    // Runs one streamed task to its end, invalidates the session and returns the task's
    // completion (no value when it did not come in time).
    std::optional<SessionEvent> runOne(HttpRequest request);

    std::shared_ptr<SerialQueue> queue = SerialQueue::make("test.delegate");
    std::shared_ptr<RecordingDelegate> delegate;
    std::shared_ptr<HttpSession> session;
};

// Deterministic bytes for bodies.
std::vector<uint8_t> patternBytes(size_t count, uint32_t seed = 1);

// A request to `url` whose "Content-Length" is `length`, method PUT.
HttpRequest uploadRequest(const std::string& url, int64_t length);

// A TCP port on 127.0.0.1 that nothing listens on.
int closedPort();

// A socket on 127.0.0.1 that listens but never accepts: connections are made by the kernel and
// then nothing is read or answered, so every transfer to it stalls.
class SilentListener {
  public:
    SilentListener();
    ~SilentListener();
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/stall"; }

  private:
    int fd_ = -1;
    int port_ = 0;
};

}  // namespace pellorin::testing
