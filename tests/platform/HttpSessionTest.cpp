// Contract tests of the HTTP session interface (HttpSession, UploadTask, HttpSessionDelegate), run
// against the implementation HttpSession::make gives: streamed uploads to the local receiver, the
// order of the callbacks, and cancellation.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

#include "HttpTestSupport.h"
#include "Platform/Encoding.h"
#include "receiver/Receiver.h"

namespace pellorin::testing {
namespace {

using namespace std::chrono_literals;
using Kind = SessionEvent::Kind;

// Byte-exactness of what arrives is pinned through the client, which streams file ranges; here
// the callbacks, the request's fields and the checksum header.
TEST(HttpSessionTest, StreamedUploadSendsEveryFieldAndCallsBackInOrder) {
    const size_t length = (5 << 20) + 321;  // crosses the read size and the coalescing
    receiver::Receiver receiver;
    receiver.start();
    SessionHarness harness(bodyOf(length));
    HttpRequest request = uploadRequest(receiver.partUrl("part", 0), length);
    request.addValue("one", "X-Twice");
    request.addValue("two", "X-Twice");
    const std::optional<SessionEvent> completion = harness.runOne(request);

    // The server got the body once, with both values of the doubled field and no "Expect".
    const std::vector<receiver::RequestRecord> records = receiver.requests();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].bytesReceived, length);
    std::vector<std::string> fields;
    for (const auto& [name, value] : records[0].headers) {
        if (name == "X-Twice" || headerNamesEqual(name, "Content-Length") ||
            headerNamesEqual(name, "Expect")) {
            fields.push_back(name + ": " + value);
        }
    }
    std::sort(fields.begin(), fields.end());
    EXPECT_EQ(fields, (std::vector<std::string>{"Content-Length: " + std::to_string(length),
                                                "X-Twice: one", "X-Twice: two"}));

    // Callbacks: body stream, progress summing to the length, metrics, completion, invalidation.
    ASSERT_TRUE(completion && completion->response);
    const std::vector<SessionEvent> events = harness.delegate->events();
    ASSERT_GE(events.size(), 5u);
    EXPECT_EQ(events.front().kind, Kind::needBodyStream);
    size_t i = 1;
    int64_t sum = 0;
    for (; i < events.size() && events[i].kind == Kind::sentBodyData; ++i) {
        sum += events[i].bytesSent;
        EXPECT_EQ(events[i].totalBytesSent, sum);
        EXPECT_EQ(events[i].totalExpected, static_cast<int64_t>(length));
    }
    EXPECT_EQ(sum, static_cast<int64_t>(length));
    ASSERT_EQ(events.size(), i + 3);
    ASSERT_EQ(events[i].kind, Kind::metrics);
    const TransactionMetrics& metrics = events[i].metrics.transactionMetrics.at(0);
    EXPECT_EQ(metrics.countOfRequestBodyBytesSent, static_cast<int64_t>(length));
    EXPECT_EQ(metrics.statusCode, 200);
    EXPECT_EQ(events[i + 1].kind, Kind::completed);
    EXPECT_EQ(events[i + 2].kind, Kind::invalidated);
    EXPECT_EQ(harness.delegate->offQueueCalls.load(), 0);

    EXPECT_FALSE(completion->error);
    EXPECT_EQ(completion->response->statusCode(), 200);
    const auto checksum = completion->response->valueForHTTPHeaderField("content-md5");
    const auto digest = base64DecodeStrict(checksum.value_or("?"));
    ASSERT_TRUE(digest);
    EXPECT_EQ(hexString(*digest), records[0].md5Hex);
}

TEST(HttpSessionTest, ASleepingReadHoldsUpOnlyItsOwnSession) {
    receiver::Receiver receiver;
    receiver.start();
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::vector<std::unique_ptr<SessionHarness>> sessions;
    for (int i = 0; i < 16; ++i) {
        sessions.push_back(std::make_unique<SessionHarness>([i, opened](UploadTask&) {
            return std::make_shared<TestStream>(randomData(256 << 10),
                                                i == 0 ? std::optional(opened) : std::nullopt);
        }));
        auto task = sessions.back()->session->uploadTaskWithStreamedRequest(
            uploadRequest(receiver.partUrl("p" + std::to_string(i), 0), 256 << 10));
        task->resume();
        sessions.back()->session->finishTasksAndInvalidate();
    }
    for (int i = 1; i < 16; ++i) {
        ASSERT_TRUE(sessions[i]->delegate->waitForInvalidation(10s)) << i;
        EXPECT_FALSE(sessions[i]->delegate->completionOf(1)->error) << i;
    }
    // Fifteen uploads finished while the first one's read is still asleep.
    EXPECT_FALSE(sessions[0]->delegate->completionOf(1));
    gate.set_value();
    ASSERT_TRUE(sessions[0]->delegate->waitForInvalidation(10s));
    const std::optional<SessionEvent> sleeper = sessions[0]->delegate->completionOf(1);
    EXPECT_FALSE(sleeper->error);
    EXPECT_EQ(sleeper->response->statusCode(), 200);
    for (const receiver::RequestRecord& record : receiver.requests()) {
        EXPECT_TRUE(record.accepted) << record.path;
    }
}

TEST(HttpSessionTest, InvalidateAndCancelEndsEveryTaskThenInvalidatesOnceAndReleasesTheDelegate) {
    receiver::Receiver receiver;
    receiver.setFaultScript(
        [](const receiver::RequestInfo&) { return receiver::Fault{.stallSecs = 60}; });
    receiver.start();
    auto queue = SerialQueue::make("test.delegate");
    auto delegate = std::make_shared<RecordingDelegate>(queue, bodyOf(32 << 20));
    delegate->holdBodyOfTask = 5;
    std::weak_ptr<RecordingDelegate> weakDelegate = delegate;
    SessionConfiguration configuration;
    configuration.timeoutIntervalForRequest = 30.0;
    auto session = HttpSession::make(configuration, delegate, queue);
    // Three stalled transfers, one never resumed, one waiting for its body stream.
    std::vector<std::shared_ptr<UploadTask>> tasks;
    for (int i = 0; i < 5; ++i) {
        tasks.push_back(session->uploadTaskWithStreamedRequest(
            uploadRequest(receiver.partUrl("stall", 0), 32 << 20)));
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
    EXPECT_EQ(delegate->offQueueCalls.load(), 0);
    delegate.reset();
    queue->sync([] {});  // the invalidation block has finished
    EXPECT_TRUE(weakDelegate.expired());
}

}  // namespace
}  // namespace pellorin::testing
