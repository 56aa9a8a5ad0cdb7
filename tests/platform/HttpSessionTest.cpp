// Streamed and one-shot uploads through the HTTP session service to the local receiver.
#include <gtest/gtest.h>

#include <fstream>
#include <future>

#include "HttpTestSupport.h"
#include "Platform/Encoding.h"
#include "receiver/Receiver.h"
#include "support/FileDigest.h"
#include "support/TempDir.h"

namespace pellorin::testing {
namespace {

using namespace std::chrono_literals;
using Kind = SessionEvent::Kind;

std::vector<uint8_t> readRange(const std::filesystem::path& path, uint64_t offset, size_t length) {
    std::vector<uint8_t> bytes(length);
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
    return bytes;
}

bool sentExpectContinue(const receiver::RequestRecord& record) {
    return std::any_of(record.headers.begin(), record.headers.end(),
                       [](const auto& field) { return headerNamesEqual(field.first, "Expect"); });
}

TEST(HttpSessionTest, StreamedFileRangeArrivesIntactWithCallbacksInOrder) {
    TempDir dir;
    const auto file = dir.makeFile("source", (6 << 20) + 777, 7);
    const uint64_t offset = 1000003;
    const size_t length = (5 << 20) + 321;  // crosses the read size and the coalescing
    std::vector<uint8_t> range = readRange(file, offset, length);
    receiver::Receiver receiver;
    receiver.start();

    SessionHarness harness(
        [&](UploadTask&) { return std::make_shared<MemoryInputStream>(std::move(range)); });
    HttpRequest request = uploadRequest(receiver.partUrl("part", offset), length);
    request.addValue("one", "X-Twice");
    request.addValue("two", "X-Twice");
    request.addValue("3", "X-PLNX-Part-Number");
    const std::optional<SessionEvent> completion = harness.runOne(request);

    // The server got exactly the range, once, with both values of the doubled field.
    const std::string md5 = md5HexOfRange(file, offset, length);
    const std::vector<receiver::RequestRecord> records = receiver.requests();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].method, "PUT");
    EXPECT_EQ(records[0].bytesReceived, length);
    EXPECT_EQ(records[0].md5Hex, md5);
    EXPECT_EQ(records[0].contentLength, length);
    EXPECT_EQ(records[0].partNumber, 3u);
    EXPECT_FALSE(sentExpectContinue(records[0]));
    std::vector<std::string> twice, lengths;
    for (const auto& [name, value] : records[0].headers) {
        if (name == "X-Twice") {
            twice.push_back(value);
        } else if (headerNamesEqual(name, "Content-Length")) {
            lengths.push_back(value);
        }
    }
    EXPECT_EQ(twice, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(lengths, (std::vector<std::string>{std::to_string(length)}));

    // Callbacks: body stream, progress summing to the length, metrics, completion, invalidation.
    ASSERT_TRUE(completion);
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
    EXPECT_GT(i, 1u);
    EXPECT_EQ(sum, static_cast<int64_t>(length));
    ASSERT_EQ(events.size(), i + 3);
    ASSERT_EQ(events[i].kind, Kind::metrics);
    ASSERT_EQ(events[i].metrics.transactionMetrics.size(), 1u);
    const TransactionMetrics& metrics = events[i].metrics.transactionMetrics[0];
    EXPECT_EQ(metrics.countOfRequestBodyBytesSent, static_cast<int64_t>(length));
    EXPECT_EQ(metrics.statusCode, 200);
    EXPECT_EQ(metrics.networkProtocolName, "http/1.1");
    EXPECT_GE(metrics.totalSecs, metrics.firstByteSecs);
    EXPECT_EQ(events[i + 1].kind, Kind::completed);
    EXPECT_EQ(events[i + 2].kind, Kind::invalidated);
    EXPECT_EQ(harness.delegate->offQueueCalls(), 0);

    EXPECT_FALSE(completion->error);
    ASSERT_TRUE(completion->response);
    EXPECT_EQ(completion->response->statusCode(), 200);
    const auto checksum = completion->response->valueForHTTPHeaderField("content-md5");
    ASSERT_TRUE(checksum);
    const auto digest = base64DecodeStrict(*checksum);
    ASSERT_TRUE(digest);
    EXPECT_EQ(hexString(*digest), md5);
}

TEST(HttpSessionTest, ASleepingReadHoldsUpOnlyItsOwnSession) {
    receiver::Receiver receiver;
    receiver.start();
    std::promise<void> gate;
    std::shared_future<void> opened = gate.get_future().share();
    std::vector<std::unique_ptr<SessionHarness>> sessions;
    for (int i = 0; i < 16; ++i) {
        sessions.push_back(std::make_unique<SessionHarness>([i, opened](UploadTask&) {
            return std::make_shared<TestStream>(patternBytes(256 << 10, i),
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

TEST(HttpSessionTest, SharedSessionAnswersWithBodyStatusAndHeadersOrAnErrorAlone) {
    receiver::Receiver receiver;
    receiver.start();
    struct Answer {
        std::optional<std::vector<uint8_t>> data;
        std::shared_ptr<const HttpResponse> response;
        std::optional<PlatformError> error;
    };
    auto post = [](const std::string& url, std::vector<uint8_t> body) {
        auto answer = std::make_shared<std::promise<Answer>>();
        HttpRequest request(*Url::parse(url));
        request.httpMethod = "POST";
        request.addValue("application/json", "Content-Type");
        HttpSession::shared()
            ->uploadTask(request, std::move(body),
                         [answer](auto data, auto response, auto error) {
                             answer->set_value({std::move(data), response, std::move(error)});
                         })
            ->resume();
        auto future = answer->get_future();
        if (future.wait_for(10s) != std::future_status::ready) {
            ADD_FAILURE() << "no answer from " << url;
            return Answer{};
        }
        return future.get();
    };

    const Answer missing = post(receiver.baseUrl() + "/rpc", {'{', '}'});
    EXPECT_FALSE(missing.error);
    ASSERT_TRUE(missing.response && missing.data);
    EXPECT_EQ(missing.response->statusCode(), 404);
    EXPECT_EQ(std::string(missing.data->begin(), missing.data->end()), "no such resource\n");
    EXPECT_EQ(missing.response->valueForHTTPHeaderField("CONTENT-TYPE"),
              "text/plain; charset=utf-8");

    const Answer stored = post(receiver.partUrl("rpc", 0), patternBytes(1000));
    EXPECT_FALSE(stored.error);
    EXPECT_FALSE(stored.data);  // an empty body
    ASSERT_TRUE(stored.response);
    EXPECT_EQ(stored.response->statusCode(), 200);
    EXPECT_TRUE(stored.response->valueForHTTPHeaderField("Content-MD5"));
    ASSERT_EQ(receiver.requests().size(), 2u);
    EXPECT_EQ(receiver.requests()[1].bytesReceived, 1000u);

    const Answer gone = post("http://127.0.0.1:" + std::to_string(closedPort()) + "/rpc", {'x'});
    ASSERT_TRUE(gone.error);
    EXPECT_EQ(gone.error->code, URLError::cannotConnectToHost);
    EXPECT_FALSE(gone.data);
    EXPECT_FALSE(gone.response);
}

}  // namespace
}  // namespace pellorin::testing
