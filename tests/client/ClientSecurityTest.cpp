// Trust and secrets: certificates are always verified (only an explicit CA setting changes whom
// the client trusts), TLS below 1.2 is refused whatever the configuration asks for, and header
// values a host passes with its parts never reach a log line.
#include <gtest/gtest.h>

#include <openssl/tls1.h>

#include <map>

#include <pellorin/LoggingProgressReporter.h>

#include "Platform/UrlError.h"
#include "TransferFixture.h"

namespace pellorin::testing {
namespace {

using receiver::Fault;
using receiver::RequestInfo;

constexpr uint64_t kPart = 16 * 1024;

receiver::ReceiverOptions tlsOptions(std::optional<int> maxVersion = std::nullopt) {
    return {.tls = true, .tlsMaxVersion = maxVersion};
}

// The part failed for good on its first attempt with the given URL-loading error, and the
// receiver never saw a request: no byte of the part left the client in the clear.
void expectRefused(Transfer& t, int64_t code) {
    EXPECT_EQ(t.run(std::chrono::seconds(20)), 1);
    ASSERT_EQ(t.delegate->failed.size(), 1u);
    const auto& errors = t.delegate->failed[0]->errors();
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors[0]->domain(), kURLErrorDomain);
    EXPECT_EQ(errors[0]->code(), code);
    EXPECT_TRUE(t.delegate->completed.empty());
    EXPECT_TRUE(t.receiver->requests().empty());
}

// A session configuration that trusts `certificate`, with the given minimum TLS version.
std::function<SessionConfiguration()> trusting(std::string certificate, TLSVersion minimum) {
    return [certificate, minimum] {
        auto configuration = SessionConfiguration::ephemeral();
        configuration.caFile = certificate;
        configuration.minimumTLSVersion = minimum;
        configuration.httpVersion = HttpVersion::http2;  // offered, and declined by the receiver
        return configuration;
    };
}

TEST(ClientSecurity, AnUntrustedCertificateFailsUnlessTheConfigurationNamesItsCA) {
    {
        Transfer t(kPart, 2, 0, tlsOptions());
        t.submitParts(kPart);
        expectRefused(t, URLError::serverCertificateUntrusted);
    }
    Transfer t(4 * kPart, 2, 0, tlsOptions());
    t.client->setSessionConfigurationSupplier(
        trusting(t.receiver->certificateFile(), TLSVersion::v1_2));
    t.submitParts(kPart);
    EXPECT_EQ(t.run(std::chrono::seconds(20)), 0);
    EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));
}

TEST(ClientSecurity, TlsBelowTheConfiguredMinimumAndBelowOnePointTwoIsRefused) {
    // The configuration may raise the minimum, never lower it below 1.2.
    for (const auto& [serverMaximum, minimum] : {std::pair{TLS1_1_VERSION, TLSVersion::v1_0},
                                                 std::pair{TLS1_2_VERSION, TLSVersion::v1_3}}) {
        Transfer t(kPart, 2, 0, tlsOptions(serverMaximum));
        t.client->setSessionConfigurationSupplier(trusting(t.receiver->certificateFile(), minimum));
        t.submitParts(kPart);
        expectRefused(t, URLError::secureConnectionFailed);
    }
}

TEST(ClientSecurity, HeaderValuesOfPartsNeverReachTheLog) {
    const std::vector<std::string> secrets{"secret-token", "hunter2-key"};
    Transfer t(5 * kPart, 4, 1);
    // Every ending that logs: success, retries after a server error and a dropped connection,
    // an answer that is not HTTP, a permanent failure.
    const std::map<uint64_t, Fault> faults{{2, Fault{.status = 500, .retryAfter = "0"}},
                                           {3, Fault{.closeAfterBodyBytes = 100}},
                                           {4, Fault{.garbageResponse = true}},
                                           {5, Fault{.status = 403}}};
    t.receiver->setFaultScript([faults](const RequestInfo& info) -> std::optional<Fault> {
        const auto found = faults.find(info.partNumber.value_or(0));
        return found == faults.end() ? std::nullopt : std::optional(found->second);
    });
    auto reporter = std::make_shared<LoggingProgressReporter>(
        Logger("test.reporter", std::make_unique<RecordingLogHandler>(t.log)));
    t.client->addDelegate(reporter, nullptr);
    for (uint64_t part = 1; part <= 5; ++part) {
        const uint64_t offset = (part - 1) * kPart;
        t.client->uploadPartRequest(FilePartRequest::makeWithHeadersArray(
            t.source.string(), part, offset, kPart,
            *Url::parse(t.receiver->partUrl("copy.bin", offset)), "PUT",
            FilePartRequest::HeadersArray{{{"name", "Authorization"}, {"value", secrets[0]}},
                                          {{"name", "X-Api-Key"}, {"value", secrets[1]}}}));
    }
    EXPECT_EQ(t.run(std::chrono::seconds(30)), 1);

    // The headers did go out, so the check below is not vacuous.
    const auto requests = t.receiver->requests();
    ASSERT_FALSE(requests.empty());
    for (const auto& r : requests) {
        EXPECT_NE(std::find(r.headers.begin(), r.headers.end(),
                            std::pair<std::string, std::string>{"Authorization", secrets[0]}),
                  r.headers.end());
    }
    const auto entries = t.log->entries();
    ASSERT_GT(entries.size(), 50u);
    for (const auto& entry : entries) {
        std::string text = entry.message;
        for (const auto& [key, value] : entry.metadata)
            text += " " + key + "=" + value.description();
        for (const auto& secret : secrets)
            EXPECT_EQ(text.find(secret), std::string::npos) << text;
    }
}

}  // namespace
}  // namespace pellorin::testing
