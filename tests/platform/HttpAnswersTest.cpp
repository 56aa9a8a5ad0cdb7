// What a streamed upload reports for the answers servers really give: odd, early, trickling
// answers and connections closed under reuse. Every completion is either an error or libcurl's
// parse of the final answer, and a plain answer always follows the whole body.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "HttpTestSupport.h"
#include "receiver/Receiver.h"

namespace pellorin::testing {
namespace {

using namespace std::chrono_literals;
using Kind = SessionEvent::Kind;

struct Attempt {
    std::optional<SessionEvent> completion;
    int64_t bodyBytesSent = -1;
    int status = 0;
};

Attempt upload(const std::string& url, int64_t length,
               SessionConfiguration configuration = SessionConfiguration::ephemeral()) {
    SessionHarness harness(bodyOf(static_cast<size_t>(length)), configuration);
    Attempt attempt;
    attempt.completion = harness.runOne(uploadRequest(url, length));
    for (const SessionEvent& e : harness.delegate->events(Kind::metrics)) {
        if (!e.metrics.transactionMetrics.empty()) {
            attempt.bodyBytesSent = e.metrics.transactionMetrics[0].countOfRequestBodyBytesSent;
            attempt.status = e.metrics.transactionMetrics[0].statusCode;
        }
    }
    return attempt;
}

TEST(HttpAnswersTest, TheAnswerIsLibcurlsParseOfTheFinalResponseOrAnError) {
    receiver::Receiver receiver;
    receiver.start();
    using Fields = HttpHeaderFields;
    struct Case {
        const char* name;
        std::string raw;
        int status;          // of the answer; 0 when the upload fails
        int64_t code = 0;    // the error then
        Fields fields = {};  // the answer's, in order
    };
    const Case cases[] = {
        // Only the final response's fields, duplicates kept, the interim block's left out.
        {"interim",
         "HTTP/1.1 100 Continue\r\nX-Interim: yes\r\n\r\n"
         "HTTP/1.1 201 Created\r\nX-Final: a\r\nx-final: b\r\nContent-Length: 0\r\n\r\n",
         201, 0, Fields{{"X-Final", "a"}, {"x-final", "b"}, {"Content-Length", "0"}}},
        {"twospaces", "HTTP/1.1  200 OK\r\nContent-Length: 0\r\n\r\n", 200, 0,
         Fields{{"Content-Length", "0"}}},
        {"httpfield", "HTTP/1.1 200 OK\r\nHTTP/1.1 500 Oops\r\nContent-Length: 0\r\n\r\n", 0,
         URLError::cannotParseResponse},
        {"nostatus", "HTTP/1.1\r\n\r\n", 0, URLError::cannotParseResponse},
        {"notHttp", "SSH-2.0-server\r\n", 0, URLError::cannotParseResponse},
        {"interimonly", "HTTP/1.1 100 Continue\r\n\r\n", 0, URLError::networkConnectionLost},
    };
    receiver.setFaultScript([&](const receiver::RequestInfo& info) {
        for (const Case& c : cases) {
            if (info.path.find(std::string("/") + c.name + "?") != std::string::npos) {
                return std::optional(receiver::Fault{.rawAnswer = c.raw});
            }
        }
        return std::optional<receiver::Fault>();
    });
    for (const Case& c : cases) {
        const Attempt attempt = upload(receiver.partUrl(c.name, 0), 1000);
        ASSERT_TRUE(attempt.completion) << c.name;
        const SessionEvent& completion = *attempt.completion;
        // Exactly one of an error and an answer.
        EXPECT_NE(completion.error.has_value(), completion.response != nullptr) << c.name;
        EXPECT_EQ(completion.error ? completion.error->code : 0, c.code) << c.name;
        if (completion.response) {
            EXPECT_EQ(completion.response->statusCode(), c.status) << c.name;
            EXPECT_EQ(completion.response->allHeaderFields(), c.fields) << c.name;
        }
    }
}

// A server that answers after part of each body (half, or 1000 bytes), with the digest of what it
// read, then closes or reads on: no plain answer ever comes before the whole body went out. Such
// an attempt ends as a lost connection naming the status, the metrics counting the bytes sent.
TEST(HttpAnswersTest, AnAnswerBeforeTheWholeBodyIsALostConnection) {
    constexpr int64_t kLength = 1 << 20;
    receiver::Receiver receiver;
    receiver.start();
    receiver.setFaultScript([](const receiver::RequestInfo& info) {
        return receiver::Fault{.answerAfterBodyBytes = info.path.find("small") != std::string::npos
                                                           ? 1000
                                                           : kLength / 2,
                               .readRestAfterAnswer = info.path.find("rest") != std::string::npos};
    });
    int early = 0;
    for (int round = 0; round < 36; ++round) {
        const std::string name = std::vector<std::string>{"rest", "close", "smallclose"}[round % 3];
        const Attempt attempt = upload(receiver.partUrl(name, 0), kLength);
        ASSERT_TRUE(attempt.completion);
        const SessionEvent& completion = *attempt.completion;
        if (!completion.error) {
            // Only possible when every byte went out (the reading server took the rest).
            EXPECT_EQ(attempt.bodyBytesSent, kLength) << name;
            ASSERT_TRUE(completion.response);
            continue;
        }
        if (completion.error->code == URLError::networkConnectionLost &&
            attempt.bodyBytesSent < kLength && attempt.status == 200) {
            ++early;
            EXPECT_NE(completion.error->localizedDescription.find("(status 200) before"),
                      std::string::npos)
                << completion.error->localizedDescription;
        }
        EXPECT_FALSE(completion.response);
    }
    EXPECT_GT(early, 0);
    for (const receiver::RequestRecord& record : receiver.requests()) {
        EXPECT_FALSE(record.accepted);
    }
}

// Connections the server closes 0, 50 or 150 ms after an answer, with the next request sent
// around those moments: libcurl sends the request again on a new connection, rewinding the body,
// and no upload fails.
TEST(HttpAnswersTest, ConnectionsClosedUnderReuseCostNoUpload) {
    constexpr int64_t kLength = 64 << 10;
    constexpr double kCloseAfter[] = {0.0, 0.05, 0.15};
    receiver::Receiver receiver;
    receiver.start();
    receiver.setFaultScript([&](const receiver::RequestInfo& info) {
        const size_t n = std::stoul(info.path.substr(info.path.find("offset=") + 7));
        return receiver::Fault{.closeAfterAnswerSecs = kCloseAfter[n % 3]};
    });
    std::vector<std::string> failures;
    for (size_t n = 0; n < 100; ++n) {
        Attempt attempt = upload(receiver.partUrl("reuse", n), kLength);
        if (!attempt.completion || attempt.completion->error || attempt.status != 200) {
            failures.push_back(
                std::to_string(n) + ": " +
                (attempt.completion && attempt.completion->error
                     ? attempt.completion->error->description() + " " +
                           attempt.completion->error->userInfo[std::string(kUnderlyingErrorTextKey)]
                     : "status " + std::to_string(attempt.status)));
        }
        // The next request goes out near the moment this connection is closed (at once after
        // the others, whose closes come long after it or right away).
        if (n % 3 == 1) {
            std::this_thread::sleep_for(48ms + std::chrono::milliseconds(n % 5));
        }
    }
    EXPECT_EQ(failures, std::vector<std::string>{});
    size_t connections = 0;
    for (const receiver::RequestRecord& record : receiver.requests()) {
        connections = std::max<size_t>(connections, record.connection);
    }
    EXPECT_LT(connections, receiver.requests().size());  // connections were reused
}

// An answer that trickles in (16 bytes at a time) ends as timed out one idle time-out after the
// body went out, though bytes keep moving.
TEST(HttpAnswersTest, ATricklingAnswerIsCutOffOneIdleTimeOutAfterTheBody) {
    receiver::Receiver receiver;
    receiver.start();
    receiver.setFaultScript(
        [](const receiver::RequestInfo&) { return receiver::Fault{.trickleAnswerSecs = 0.5}; });
    SessionConfiguration configuration;
    configuration.timeoutIntervalForRequest = 1.0;
    const auto started = std::chrono::steady_clock::now();
    const Attempt attempt = upload(receiver.partUrl("slow", 0), 1000, configuration);
    const auto took = std::chrono::steady_clock::now() - started;
    ASSERT_TRUE(attempt.completion && attempt.completion->error);
    EXPECT_EQ(attempt.completion->error->code, URLError::timedOut);
    EXPECT_GE(took, 900ms);
    EXPECT_LT(took, 3s);
}

// The session's idle time-out alone governs a task: a request's own shorter time-out does not cut
// off an answer that comes after it.
TEST(HttpAnswersTest, TheSessionsIdleTimeOutAloneGovernsATask) {
    receiver::Receiver receiver;
    receiver.start();
    receiver.setFaultScript(
        [](const receiver::RequestInfo&) { return receiver::Fault{.delayBeforeAnswerSecs = 0.4}; });
    SessionHarness harness(bodyOf(1000));
    HttpRequest request = uploadRequest(receiver.partUrl("patient", 0), 1000);
    request.timeoutInterval = 0.1;
    const std::optional<SessionEvent> completion = harness.runOne(request);
    ASSERT_TRUE(completion);
    EXPECT_FALSE(completion->error);
    ASSERT_TRUE(completion->response);
    EXPECT_EQ(completion->response->statusCode(), 200);
}

}  // namespace
}  // namespace pellorin::testing
