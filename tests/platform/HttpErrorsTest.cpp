// Errors of the HTTP session service, each produced by a real condition where one can be made.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <openssl/tls1.h>

#include "HttpTestSupport.h"
#include "receiver/Receiver.h"

namespace pellorin::testing {
namespace {

using Kind = SessionEvent::Kind;

// Runs one streamed upload and returns the URL error code it failed with (0 when it did not
// fail), having checked the error's texts and that the delegate heard body stream, progress
// (if any), metrics, completion and invalidation, in that order, all on its queue.
int64_t failureCode(const HttpRequest& request, SessionConfiguration configuration = {},
                    RecordingDelegate::BodySupplier body = nullptr) {
    SessionHarness harness(body ? body : bodyOf(requestBodyLength(request).value_or(0)),
                           configuration);
    const std::optional<SessionEvent> completion = harness.runOne(request);
    if (!completion || !completion->error) {
        ADD_FAILURE() << "no completion with an error";
        return 0;
    }
    const PlatformError& error = *completion->error;
    EXPECT_EQ(error.domain, kURLErrorDomain);
    EXPECT_FALSE(error.localizedDescription.empty());
    EXPECT_FALSE(error.userInfo.at(std::string(kUnderlyingErrorTextKey)).empty());
    std::vector<Kind> kinds;
    for (const SessionEvent& e : harness.delegate->events()) {
        if (kinds.empty() || kinds.back() != e.kind) {
            kinds.push_back(e.kind);
        }
    }
    if (kinds.size() > 1 && kinds[1] == Kind::sentBodyData) {
        kinds.erase(kinds.begin() + 1);
    }
    EXPECT_EQ(kinds, (std::vector{Kind::needBodyStream, Kind::metrics, Kind::completed,
                                  Kind::invalidated}));
    EXPECT_EQ(harness.delegate->offQueueCalls(), 0);
    return error.code;
}

TEST(HttpErrorsTest, ConnectionFailuresAreReportedByKind) {
    const std::string refused = "http://127.0.0.1:" + std::to_string(closedPort()) + "/x";
    EXPECT_EQ(failureCode(uploadRequest(refused, 1000)), URLError::cannotConnectToHost);
    EXPECT_EQ(failureCode(uploadRequest("http://upload.nowhere.invalid/x", 1000)),
              URLError::cannotFindHost);
    EXPECT_EQ(failureCode(uploadRequest("ftp://127.0.0.1/x", 1000)), URLError::unsupportedURL);
}

TEST(HttpErrorsTest, ServerFaultsAreReportedByKind) {
    receiver::Receiver receiver;
    receiver.start();
    receiver.setFaultScript([](const receiver::RequestInfo& info) {
        receiver::Fault fault;
        fault.closeAfterBodyBytes = 100000;
        fault.garbageResponse = info.path.find("junk") != std::string::npos;
        if (fault.garbageResponse) {
            fault.closeAfterBodyBytes.reset();
        }
        return fault;
    });
    EXPECT_EQ(failureCode(uploadRequest(receiver.partUrl("drop", 0), 8 << 20)),
              URLError::networkConnectionLost);
    EXPECT_EQ(failureCode(uploadRequest(receiver.partUrl("junk", 0), 1000)),
              URLError::cannotParseResponse);
}

TEST(HttpErrorsTest, TlsTrustAndProtocolVersionAreEnforced) {
    receiver::ReceiverOptions options;
    options.tls = true;
    receiver::Receiver receiver(options);
    receiver.start();
    EXPECT_EQ(failureCode(uploadRequest(receiver.partUrl("tls", 0), 1000)),
              URLError::serverCertificateUntrusted);  // self-signed, not in the trust store

    SessionConfiguration trusting;
    trusting.caFile = receiver.certificateFile();
    trusting.httpVersion = HttpVersion::http2;  // offered, and declined by an HTTP/1.1 server
    SessionHarness harness(bodyOf(1000), trusting);
    const std::optional<SessionEvent> completion =
        harness.runOne(uploadRequest(receiver.partUrl("tls", 0), 1000));
    ASSERT_TRUE(completion && completion->response);
    EXPECT_FALSE(completion->error);
    EXPECT_EQ(completion->response->statusCode(), 200);
    const auto metrics = harness.delegate->events(Kind::metrics);
    ASSERT_EQ(metrics.size(), 1u);
    EXPECT_GT(metrics[0].metrics.transactionMetrics.at(0).tlsSecs, 0.0);

    options.tlsMaxVersion = TLS1_2_VERSION;
    receiver::Receiver older(options);
    older.start();
    trusting.caFile = older.certificateFile();
    trusting.minimumTLSVersion = TLSVersion::v1_3;
    EXPECT_EQ(failureCode(uploadRequest(older.partUrl("tls", 0), 1000), trusting),
              URLError::secureConnectionFailed);
}

TEST(HttpErrorsTest, MissingFailingOrShortBodiesFailTheTask) {
    const HttpRequest anywhere = uploadRequest("http://127.0.0.1:1/x", 10);
    EXPECT_EQ(failureCode(anywhere, {}, [](UploadTask&) { return nullptr; }),
              URLError::requestBodyStreamExhausted);
    HttpRequest badLength = anywhere;
    badLength.headerFields.back().second = "ten";
    EXPECT_EQ(failureCode(badLength, {}, bodyOf(10)), URLError::badURL);

    receiver::Receiver receiver;
    receiver.start();
    for (const auto failAfter : {std::optional<int64_t>(300000), std::optional<int64_t>()}) {
        // A read that fails, and a stream that ends short of "Content-Length".
        auto body = [failAfter](UploadTask&) {
            return std::make_shared<TestStream>(patternBytes(1 << 20), std::nullopt, failAfter);
        };
        EXPECT_EQ(failureCode(uploadRequest(receiver.partUrl("short", 0), (1 << 20) + 1), {}, body),
                  URLError::requestBodyStreamExhausted);
    }
    for (const receiver::RequestRecord& record : receiver.requests()) {
        EXPECT_EQ(record.status, 0);  // never answered: the body never completed
    }
}

TEST(HttpErrorsTest, CurlCodesMapThroughOneTable) {
    EXPECT_FALSE(platformErrorFromCurlCode(CURLE_OK, ""));
    // Codes that the tests above do not produce for real.
    for (const auto& [curlCode, urlCode] : std::vector<std::pair<CURLcode, int64_t>>{
             {CURLE_OPERATION_TIMEDOUT, URLError::timedOut},
             {CURLE_SEND_ERROR, URLError::networkConnectionLost},
             {CURLE_GOT_NOTHING, URLError::networkConnectionLost},
             {CURLE_WEIRD_SERVER_REPLY, URLError::cannotParseResponse},
             {CURLE_URL_MALFORMAT, URLError::badURL},
             {CURLE_SEND_FAIL_REWIND, URLError::requestBodyStreamExhausted},
             {CURLE_OUT_OF_MEMORY, URLError::unknown}}) {
        const std::optional<PlatformError> error = platformErrorFromCurlCode(curlCode, "");
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, urlCode) << curlCode;
        EXPECT_EQ(error->userInfo.at(std::string(kUnderlyingErrorTextKey)),
                  curl_easy_strerror(curlCode));
    }
}

}  // namespace
}  // namespace pellorin::testing
