// Errors of the HTTP session service, each produced by a real condition where one can be made.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <future>

#include <openssl/tls1.h>

#include "HttpTestSupport.h"
#include "receiver/Receiver.h"

namespace pellorin::testing {
namespace {

using Kind = SessionEvent::Kind;

RecordingDelegate::BodySupplier bodyOf(size_t size) {
    return [size](UploadTask&) { return std::make_shared<MemoryInputStream>(patternBytes(size)); };
}

// The task failed with `code`, with a readable description and libcurl's text, and the delegate
// heard body stream (when asked), metrics, completion and invalidation, in that order.
void expectFailure(const SessionHarness& harness, const std::optional<SessionEvent>& completion,
                   int64_t code) {
    ASSERT_TRUE(completion) << "no completion";
    ASSERT_TRUE(completion->error) << "no error";
    EXPECT_EQ(completion->error->domain, kURLErrorDomain);
    EXPECT_EQ(completion->error->code, code) << completion->error->description();
    EXPECT_FALSE(completion->error->localizedDescription.empty());
    EXPECT_TRUE(completion->error->userInfo.count(std::string(kUnderlyingErrorTextKey)));
    std::vector<Kind> kinds;
    for (const SessionEvent& e : harness.delegate->events()) {
        if (kinds.empty() || kinds.back() != e.kind) {
            kinds.push_back(e.kind);
        }
    }
    const std::vector<Kind> expected = {Kind::needBodyStream, Kind::metrics, Kind::completed,
                                        Kind::invalidated};
    const std::vector<Kind> expectedWithProgress = {Kind::needBodyStream, Kind::sentBodyData,
                                                    Kind::metrics, Kind::completed,
                                                    Kind::invalidated};
    EXPECT_TRUE(kinds == expected || kinds == expectedWithProgress);
    EXPECT_EQ(harness.delegate->offQueueCalls(), 0);
}

TEST(HttpErrorsTest, ConnectionFailuresAreReportedByKind) {
    {
        SessionHarness harness(bodyOf(1000));
        const std::string url = "http://127.0.0.1:" + std::to_string(closedPort()) + "/x";
        expectFailure(harness, harness.runOne(uploadRequest(url, 1000)),
                      URLError::cannotConnectToHost);
    }
    {
        SessionHarness harness(bodyOf(1000));
        expectFailure(harness,
                      harness.runOne(uploadRequest("http://upload.nowhere.invalid/x", 1000)),
                      URLError::cannotFindHost);
    }
    {
        SessionHarness harness(bodyOf(1000));
        expectFailure(harness, harness.runOne(uploadRequest("ftp://127.0.0.1/x", 1000)),
                      URLError::unsupportedURL);
    }
}

TEST(HttpErrorsTest, ServerFaultsAreReportedByKind) {
    receiver::Receiver receiver;
    receiver.start();
    receiver.setFaultScript([](const receiver::RequestInfo& info) {
        receiver::Fault fault;
        if (info.path.find("drop") != std::string::npos) {
            fault.closeAfterBodyBytes = 100000;
        } else {
            fault.garbageResponse = true;
        }
        return fault;
    });
    const size_t length = 8 << 20;
    {
        SessionHarness harness(bodyOf(length));
        expectFailure(harness, harness.runOne(uploadRequest(receiver.partUrl("drop", 0), length)),
                      URLError::networkConnectionLost);
    }
    {
        SessionHarness harness(bodyOf(1000));
        expectFailure(harness, harness.runOne(uploadRequest(receiver.partUrl("junk", 0), 1000)),
                      URLError::cannotParseResponse);
    }
}

TEST(HttpErrorsTest, TlsTrustAndProtocolVersionAreEnforced) {
    receiver::ReceiverOptions secure;
    secure.tls = true;
    receiver::Receiver receiver(secure);
    receiver.start();
    const std::string url = receiver.partUrl("tls", 0);
    {
        SessionHarness harness(bodyOf(1000));  // the self-signed certificate is not trusted
        expectFailure(harness, harness.runOne(uploadRequest(url, 1000)),
                      URLError::serverCertificateUntrusted);
    }
    SessionConfiguration trusting;
    trusting.caFile = receiver.certificateFile();
    trusting.httpVersion = HttpVersion::http2;  // offered, and declined by an HTTP/1.1 server
    {
        SessionHarness harness(bodyOf(1000), trusting);
        const std::optional<SessionEvent> completion = harness.runOne(uploadRequest(url, 1000));
        ASSERT_TRUE(completion);
        EXPECT_FALSE(completion->error);
        EXPECT_EQ(completion->response->statusCode(), 200);
        const auto metrics = harness.delegate->eventsOf(Kind::metrics);
        ASSERT_EQ(metrics.size(), 1u);
        EXPECT_GT(metrics[0].metrics.transactionMetrics.at(0).tlsSecs, 0.0);
    }
    secure.tlsMaxVersion = TLS1_2_VERSION;
    receiver::Receiver older(secure);
    older.start();
    trusting.caFile = older.certificateFile();
    trusting.minimumTLSVersion = TLSVersion::v1_3;
    SessionHarness harness(bodyOf(1000), trusting);
    expectFailure(harness, harness.runOne(uploadRequest(older.partUrl("tls", 0), 1000)),
                  URLError::secureConnectionFailed);
}

TEST(HttpErrorsTest, MissingOrBrokenBodyFailsTheTask) {
    {
        SessionHarness harness([](UploadTask&) { return nullptr; });
        expectFailure(harness, harness.runOne(uploadRequest("http://127.0.0.1:1/x", 10)),
                      URLError::requestBodyStreamExhausted);
    }
    {
        SessionHarness harness(bodyOf(10));
        HttpRequest request = uploadRequest("http://127.0.0.1:1/x", 10);
        request.headerFields.back().second = "ten";
        expectFailure(harness, harness.runOne(request), URLError::badURL);
    }
    receiver::Receiver receiver;
    receiver.start();
    for (const std::optional<int64_t> failAfter :
         {std::optional<int64_t>(300000), std::optional<int64_t>()}) {
        // A read that fails, and a stream that ends short of "Content-Length".
        SessionHarness harness([failAfter](UploadTask&) {
            return std::make_shared<TestStream>(patternBytes(1 << 20), std::nullopt, failAfter);
        });
        expectFailure(harness,
                      harness.runOne(uploadRequest(receiver.partUrl("short", 0), (1 << 20) + 1)),
                      URLError::requestBodyStreamExhausted);
    }
    for (const receiver::RequestRecord& record : receiver.requests()) {
        EXPECT_EQ(record.status, 0);  // never answered: the body never completed
    }
}

TEST(HttpErrorsTest, CurlCodesMapThroughOneTable) {
    EXPECT_FALSE(platformErrorFromCurlCode(CURLE_OK, ""));
    const std::vector<std::pair<CURLcode, int64_t>> table = {
        {CURLE_COULDNT_CONNECT, URLError::cannotConnectToHost},
        {CURLE_COULDNT_RESOLVE_HOST, URLError::cannotFindHost},
        {CURLE_OPERATION_TIMEDOUT, URLError::timedOut},
        {CURLE_SEND_ERROR, URLError::networkConnectionLost},
        {CURLE_RECV_ERROR, URLError::networkConnectionLost},
        {CURLE_GOT_NOTHING, URLError::networkConnectionLost},
        {CURLE_WEIRD_SERVER_REPLY, URLError::cannotParseResponse},
        {CURLE_UNSUPPORTED_PROTOCOL, URLError::unsupportedURL},
        {CURLE_URL_MALFORMAT, URLError::badURL},
        {CURLE_ABORTED_BY_CALLBACK, URLError::cancelled},
        {CURLE_PEER_FAILED_VERIFICATION, URLError::serverCertificateUntrusted},
        {CURLE_SSL_CONNECT_ERROR, URLError::secureConnectionFailed},
        {CURLE_SEND_FAIL_REWIND, URLError::requestBodyStreamExhausted},
        {CURLE_OUT_OF_MEMORY, URLError::unknown},
    };
    for (const auto& [curlCode, urlCode] : table) {
        const std::optional<PlatformError> error = platformErrorFromCurlCode(curlCode, "");
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, urlCode) << curlCode;
        EXPECT_EQ(error->userInfo.at(std::string(kUnderlyingErrorTextKey)),
                  curl_easy_strerror(curlCode));
    }
    // A reply that is not HTTP comes with the code of an unsupported scheme; the text tells.
    const auto notHttp =
        platformErrorFromCurlCode(CURLE_UNSUPPORTED_PROTOCOL, "Received HTTP/0.9 when not allowed");
    EXPECT_EQ(notHttp->code, URLError::cannotParseResponse);
    EXPECT_EQ(notHttp->userInfo.at(std::string(kUnderlyingErrorTextKey)),
              "Received HTTP/0.9 when not allowed");
}

TEST(HttpErrorsTest, SharedSessionReportsAnErrorAndNoDataWhenTheServerIsGone) {
    std::promise<std::tuple<bool, bool, std::optional<PlatformError>>> answer;
    const std::string url = "http://127.0.0.1:" + std::to_string(closedPort()) + "/rpc";
    auto task = HttpSession::shared()->uploadTask(
        uploadRequest(url, 3), {'a', 'b', 'c'},
        [&](std::optional<std::vector<uint8_t>> data, std::shared_ptr<const HttpResponse> response,
            std::optional<PlatformError> error) {
            answer.set_value({data.has_value(), response != nullptr, std::move(error)});
        });
    task->resume();
    auto future = answer.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const auto [hasData, hasResponse, error] = future.get();
    EXPECT_FALSE(hasData);
    EXPECT_FALSE(hasResponse);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code, URLError::cannotConnectToHost);
}

}  // namespace
}  // namespace pellorin::testing
