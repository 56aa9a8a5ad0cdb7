// Cancellation, invalidation and idle time-outs of the HTTP session service.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "HttpTestSupport.h"

namespace pellorin::testing {
namespace {

using namespace std::chrono_literals;
using Kind = SessionEvent::Kind;
constexpr size_t kLarge = 32 << 20;  // beyond the loopback socket buffers: a silent peer stalls it

TEST(HttpCancelTest, InvalidateAndCancelEndsEveryTaskThenInvalidatesOnceAndReleasesTheDelegate) {
    SilentListener silent;
    auto queue = SerialQueue::make("test.delegate");
    auto delegate = std::make_shared<RecordingDelegate>(queue, bodyOf(kLarge));
    delegate->holdBodyOfTask = 5;
    std::weak_ptr<RecordingDelegate> weakDelegate = delegate;
    SessionConfiguration configuration;
    configuration.timeoutIntervalForRequest = 30.0;
    auto session = HttpSession::make(configuration, delegate, queue);
    // Three stalled transfers, one never resumed, one waiting for its body stream.
    std::vector<std::shared_ptr<UploadTask>> tasks;
    for (int i = 0; i < 5; ++i) {
        tasks.push_back(
            session->uploadTaskWithStreamedRequest(uploadRequest(silent.url(), kLarge)));
        if (i != 3) {
            tasks.back()->resume();
        }
    }
    for (int i = 0; i < 500 && delegate->events(Kind::sentBodyData).size() < 3; ++i) {
        std::this_thread::sleep_for(10ms);
    }
    const auto started = std::chrono::steady_clock::now();
    session->invalidateAndCancel();
    tasks[3]->resume();  // too late: nothing happens
    ASSERT_TRUE(delegate->waitForInvalidation(10s));
    // Far below the 30 s idle time-out: the stalled transfers were woken, not timed out.
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);

    EXPECT_EQ(delegate->events(Kind::invalidated).size(), 1u);
    for (const auto& task : tasks) {
        const std::optional<SessionEvent> completion =
            delegate->completionOf(task->taskIdentifier());
        ASSERT_TRUE(completion && completion->error) << task->description();
        EXPECT_EQ(completion->error->code, URLError::cancelled) << task->description();
        EXPECT_EQ(task->state(), UploadTask::State::completed);
    }
    EXPECT_EQ(delegate->offQueueCalls(), 0);
    delegate.reset();
    queue->sync([] {});  // the invalidation block has finished
    EXPECT_TRUE(weakDelegate.expired());
}

TEST(HttpCancelTest, IdleTransfersTimeOutAfterTheSmallerTimeOut) {
    SilentListener silent;
    for (const auto& [sessionSecs, requestSecs] : {std::pair{0.3, 60.0}, std::pair{60.0, 0.3}}) {
        SessionConfiguration configuration;
        configuration.timeoutIntervalForRequest = sessionSecs;
        SessionHarness harness(bodyOf(kLarge), configuration);
        HttpRequest request = uploadRequest(silent.url(), kLarge);
        request.timeoutInterval = requestSecs;
        const std::optional<SessionEvent> completion = harness.runOne(request);
        ASSERT_TRUE(completion && completion->error);
        EXPECT_EQ(completion->error->code, URLError::timedOut);
    }
}

}  // namespace
}  // namespace pellorin::testing
