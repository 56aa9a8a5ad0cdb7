// Cancellation, invalidation and idle time-outs of the HTTP session service.
#include <gtest/gtest.h>

#include <chrono>

#include "HttpTestSupport.h"

namespace pellorin::testing {
namespace {

using namespace std::chrono_literals;
using Kind = SessionEvent::Kind;

RecordingDelegate::BodySupplier largeBody() {
    // Larger than the loopback socket buffers, so a transfer to a silent peer really stalls.
    return [](UploadTask&) { return std::make_shared<MemoryInputStream>(patternBytes(32 << 20)); };
}

TEST(HttpCancelTest, InvalidateAndCancelEndsEveryTaskThenInvalidatesOnceAndReleasesTheDelegate) {
    SilentListener silent;
    auto queue = SerialQueue::make("test.delegate");
    auto delegate = std::make_shared<RecordingDelegate>(queue, [&](UploadTask& task) {
        return task.taskIdentifier() == 5 ? nullptr : largeBody()(task);
    });
    std::weak_ptr<RecordingDelegate> weakDelegate = delegate;
    SessionConfiguration configuration;
    configuration.timeoutIntervalForRequest = 30.0;
    auto session = HttpSession::make(configuration, delegate, queue);

    std::vector<std::shared_ptr<UploadTask>> tasks;
    for (int i = 0; i < 3; ++i) {  // three stalled transfers
        tasks.push_back(
            session->uploadTaskWithStreamedRequest(uploadRequest(silent.url(), 32 << 20)));
        tasks.back()->resume();
    }
    tasks.push_back(session->uploadTaskWithStreamedRequest(uploadRequest(silent.url(), 10)));
    tasks.push_back(session->uploadTaskWithStreamedRequest(uploadRequest(silent.url(), 10)));
    tasks[4]->resume();  // the fourth is never resumed; the fifth has its body answered "none"

    // Wait until the three transfers have pushed bytes into the silent connection.
    for (int i = 0; i < 500 && delegate->eventsOf(Kind::sentBodyData).size() < 3; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    const auto started = std::chrono::steady_clock::now();
    session->invalidateAndCancel();
    ASSERT_TRUE(delegate->waitForInvalidation(10s));
    // Far below the 30 s idle time-out: the stalled transfers were woken, not timed out.
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);

    const std::vector<SessionEvent> events = delegate->events();
    EXPECT_EQ(delegate->eventsOf(Kind::invalidated).size(), 1u);
    EXPECT_EQ(events.back().kind, Kind::invalidated);
    for (const auto& task : tasks) {
        const std::optional<SessionEvent> completion =
            delegate->completionOf(task->taskIdentifier());
        ASSERT_TRUE(completion) << task->description();
        ASSERT_TRUE(completion->error);
        const int64_t expected = task->taskIdentifier() == 5 ? URLError::requestBodyStreamExhausted
                                                             : URLError::cancelled;
        EXPECT_EQ(completion->error->code, expected) << task->description();
        EXPECT_EQ(task->state(), UploadTask::State::completed);
    }
    EXPECT_EQ(delegate->offQueueCalls(), 0);

    delegate.reset();
    queue->sync([] {});  // the invalidation block has finished
    EXPECT_TRUE(weakDelegate.expired());
}

TEST(HttpCancelTest, CancelWakesATaskWaitingForItsBodyStreamOrNotYetStarted) {
    auto queue = SerialQueue::make("test.delegate");
    struct Holding : RecordingDelegate {
        using RecordingDelegate::RecordingDelegate;
        std::function<void(std::shared_ptr<InputStream>)> handler;
        void urlSessionTaskNeedNewBodyStream(
            HttpSession& session, UploadTask& task,
            std::function<void(std::shared_ptr<InputStream>)> completion) override {
            handler = std::move(completion);  // never answered
            RecordingDelegate::urlSessionTaskNeedNewBodyStream(session, task, [](auto) {});
        }
    };
    auto delegate = std::make_shared<Holding>(queue, nullptr);
    auto session = HttpSession::make(SessionConfiguration::ephemeral(), delegate, queue);
    auto waiting = session->uploadTaskWithStreamedRequest(uploadRequest("http://127.0.0.1:1/", 1));
    auto suspended =
        session->uploadTaskWithStreamedRequest(uploadRequest("http://127.0.0.1:1/", 1));
    waiting->resume();
    for (int i = 0; i < 500 && delegate->eventsOf(Kind::needBodyStream).empty(); ++i) {
        std::this_thread::sleep_for(5ms);
    }
    waiting->cancel();
    suspended->cancel();
    suspended->resume();  // too late: nothing happens
    ASSERT_TRUE(delegate->waitForCompletions(2, 5s));
    for (const auto& task : {waiting, suspended}) {
        EXPECT_EQ(delegate->completionOf(task->taskIdentifier())->error->code, URLError::cancelled);
    }
    session->finishTasksAndInvalidate();
    EXPECT_TRUE(delegate->waitForInvalidation(5s));
}

TEST(HttpCancelTest, IdleTransfersTimeOutAfterTheSmallerTimeOut) {
    SilentListener silent;
    for (const auto& [sessionSecs, requestSecs] : {std::pair{0.3, 60.0}, std::pair{60.0, 0.3}}) {
        SessionConfiguration configuration;
        configuration.timeoutIntervalForRequest = sessionSecs;
        SessionHarness harness(largeBody(), configuration);
        HttpRequest request = uploadRequest(silent.url(), 32 << 20);
        request.timeoutInterval = requestSecs;
        const std::optional<SessionEvent> completion = harness.runOne(request);
        ASSERT_TRUE(completion && completion->error);
        EXPECT_EQ(completion->error->code, URLError::timedOut);
    }
}

}  // namespace
}  // namespace pellorin::testing
