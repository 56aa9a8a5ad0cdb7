// Errors of the HTTP session service, each produced by a real condition where one can be made.
#include <gtest/gtest.h>

#include <future>
#include <tuple>

#include "HttpTestSupport.h"
#include "receiver/Receiver.h"

namespace pellorin::testing {
namespace {

using Kind = SessionEvent::Kind;
constexpr size_t kLarge = 32 << 20;  // beyond the loopback socket buffers: a stalled peer stops it

// Runs one streamed upload and returns the URL error code it failed with (0 when it did not
// fail), having checked the error's texts and that the delegate heard body stream, progress
// (if any), metrics, completion and invalidation, in that order, all on its queue.
int64_t failureCode(const HttpRequest& request, SessionConfiguration configuration,
                    RecordingDelegate::BodySupplier body) {
    SessionHarness harness(body ? body : bodyOf(requestBodyLength(request).value_or(0)),
                           configuration);
    const std::optional<SessionEvent> completion = harness.runOne(request);
    if (!completion || !completion->error) {
        ADD_FAILURE() << "no completion with an error";
        return 0;
    }
    const PlatformError& error = *completion->error;
    EXPECT_EQ(error.domain, kURLErrorDomain);
    EXPECT_FALSE(error.userInfo.at(std::string(kUnderlyingErrorTextKey)).empty());
    std::vector<Kind> kinds;
    for (const SessionEvent& e : harness.delegate->events()) {
        if (e.kind != Kind::sentBodyData && (kinds.empty() || kinds.back() != e.kind)) {
            kinds.push_back(e.kind);
        }
    }
    EXPECT_EQ(kinds, (std::vector{Kind::needBodyStream, Kind::metrics, Kind::completed,
                                  Kind::invalidated}));
    EXPECT_EQ(harness.delegate->offQueueCalls.load(), 0);
    return error.code;
}

TEST(HttpErrorsTest, EachRealFailureMapsToItsCode) {
    receiver::Receiver gone;  // its port refuses connections once it has stopped
    gone.start();
    gone.stop();
    receiver::Receiver receiver;
    receiver.start();
    receiver.setFaultScript([](const receiver::RequestInfo& info) {
        const auto has = [&](const char* word) {
            return info.path.find(word) != std::string::npos;
        };
        return receiver::Fault{
            .closeAfterBodyBytes = has("drop") ? std::optional<uint64_t>(100000) : std::nullopt,
            .stallSecs = has("stall") ? std::optional(60.0) : std::nullopt,
            .garbageResponse = has("junk")};
    });
    SessionConfiguration quick;
    quick.timeoutIntervalForRequest = 0.3;
    HttpRequest badLength = uploadRequest("http://127.0.0.1:1/x", 10);
    badLength.headerFields.back().second = "ten";
    // A read that fails, and a stream that ends short of "Content-Length".
    auto shortBody = [](std::optional<int64_t> failAfter) {
        return [failAfter](UploadTask&) {
            return std::make_shared<TestStream>(randomData(1 << 20), std::nullopt, failAfter);
        };
    };
    struct Case {
        HttpRequest request;
        int64_t code;
        SessionConfiguration configuration = {};
        RecordingDelegate::BodySupplier body = nullptr;
    };
    const std::string shortUrl = receiver.partUrl("short", 0);
    const Case cases[] = {
        {uploadRequest(gone.partUrl("x", 0), 1000), URLError::cannotConnectToHost},
        {uploadRequest("http://upload.nowhere.invalid/x", 1000), URLError::cannotFindHost},
        {uploadRequest("ftp://127.0.0.1/x", 1000), URLError::unsupportedURL},
        {uploadRequest(receiver.partUrl("drop", 0), 8 << 20), URLError::networkConnectionLost},
        {uploadRequest(receiver.partUrl("junk", 0), 1000), URLError::cannotParseResponse},
        // An idle transfer times out after the session's idle time-out.
        {uploadRequest(receiver.partUrl("stall", 0), kLarge), URLError::timedOut, quick},
        {badLength, URLError::badURL},
        {uploadRequest("http://127.0.0.1:1/x", 10),
         URLError::requestBodyStreamExhausted,
         {},
         [](UploadTask&) { return nullptr; }},
        {uploadRequest(shortUrl, (1 << 20) + 1),
         URLError::requestBodyStreamExhausted,
         {},
         shortBody(300000)},
        {uploadRequest(shortUrl, (1 << 20) + 1),
         URLError::requestBodyStreamExhausted,
         {},
         shortBody(std::nullopt)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(failureCode(c.request, c.configuration, c.body), c.code)
            << c.request.url.absoluteString();
    }
    for (const receiver::RequestRecord& record : receiver.requests()) {
        if (record.path.find("short") != std::string::npos) {
            EXPECT_EQ(record.status, 0);  // never answered: the body never completed
        }
    }
}

// The process-wide session's one-shot upload (the reservation call's road, whose answers the
// reservation tests pin): an error alone when nobody answers; otherwise the answer's body, status
// and headers, whatever the status.
TEST(HttpErrorsTest, SharedSessionAnswersWithBodyStatusAndHeadersOrAnErrorAlone) {
    receiver::Receiver receiver, gone;
    receiver.start();
    gone.start();
    gone.stop();
    using Answer = std::tuple<std::optional<std::vector<uint8_t>>,
                              std::shared_ptr<const HttpResponse>, std::optional<PlatformError>>;
    auto post = [](const std::string& url) {
        auto answer = std::make_shared<std::promise<Answer>>();
        HttpRequest request(*Url::parse(url));
        request.httpMethod = "POST";
        HttpSession::shared()
            ->uploadTask(request, {'{', '}'},
                         [answer](auto data, auto response, auto error) {
                             answer->set_value({std::move(data), response, std::move(error)});
                         })
            ->resume();
        auto future = answer->get_future();
        return future.wait_for(std::chrono::seconds(10)) == std::future_status::ready ? future.get()
                                                                                      : Answer{};
    };
    const auto [data, response, error] = post(receiver.baseUrl() + "/rpc");
    ASSERT_TRUE(data && response && !error);
    EXPECT_EQ(response->statusCode(), 404);
    EXPECT_EQ(std::string(data->begin(), data->end()), "no such resource\n");
    EXPECT_EQ(response->valueForHTTPHeaderField("CONTENT-TYPE"), "text/plain; charset=utf-8");
    const auto [noData, noResponse, refused] = post(gone.partUrl("rpc", 0));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->code, URLError::cannotConnectToHost);
    EXPECT_FALSE(noData || noResponse);
}

}  // namespace
}  // namespace pellorin::testing
