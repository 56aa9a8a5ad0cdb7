// Transfers through real third-party servers (nginx terminating TLS over HTTP/1.1 and HTTP/2 and
// closing idle connections between parts; tinyproxy forwarding plain http and carrying https
// through CONNECT), and against a server that answers before the whole body: every byte arrives,
// every part is reported once, and no part is reported complete while bytes of it are missing.
#include <gtest/gtest.h>

#include <map>

#include "TransferFixture.h"
#include "support/ThirdPartyServer.h"

namespace pellorin::testing {
namespace {

constexpr uint64_t kPart = 8 * 1024;
constexpr uint64_t kParts = 200;

// Uploads kParts parts of the transfer's source to `base` + "/upload/copy.bin" and checks the
// copy byte for byte and that each part was reported complete exactly once.
void uploadThrough(Transfer& t, const std::string& base, SessionConfiguration configuration) {
    t.client->setSessionConfigurationSupplier([configuration] { return configuration; });
    for (uint64_t n = 0; n < kParts; ++n) {
        const std::string url = base + "/upload/copy.bin?offset=" + std::to_string(n * kPart);
        t.client->uploadPartRequest(FilePartRequest::make(t.source.string(), n + 1, n * kPart,
                                                          kPart, *Url::parse(url), "PUT"));
    }
    EXPECT_EQ(t.run(std::chrono::seconds(30)), 0);
    ASSERT_TRUE(t.delegate->waitForFinish());
    EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));
    std::lock_guard lock(t.delegate->mutex);
    std::map<uint64_t, int> completions;
    for (const auto& m : t.delegate->completed) {
        ++completions[m->partNumber()];
    }
    EXPECT_EQ(completions.size(), kParts);
    for (const auto& [part, count] : completions) {
        EXPECT_EQ(count, 1) << "part " << part;
    }
    EXPECT_TRUE(t.delegate->failed.empty());
}

#define SKIP_UNLESS_RUNNING(server)                                    \
    if (!(server).running()) {                                         \
        ASSERT_TRUE((server).failure().empty()) << (server).failure(); \
        GTEST_SKIP() << (server).skipText();                           \
    }

TEST(RealServers, NginxTerminatingTlsOverHttp1AndHttp2ClosingIdleConnections) {
    for (const bool http2 : {false, true}) {
        SCOPED_TRACE(http2 ? "HTTP/2" : "HTTP/1.1");
        Transfer t(kParts * kPart, 4, 0);
        ThirdPartyServer nginx =
            ThirdPartyServer::nginx("127.0.0.1:" + std::to_string(t.receiver->port()),
                                    t.dir.path() / "nginx", http2, "50ms");
        SKIP_UNLESS_RUNNING(nginx);
        SessionConfiguration configuration;
        configuration.caFile = nginx.caFile();
        configuration.httpVersion = http2 ? HttpVersion::http2 : HttpVersion::http1_1;
        uploadThrough(t, nginx.url(), configuration);
    }
}

TEST(RealServers, ForwardProxyCarriesHttpsThroughConnectAndHttpPlainly) {
    for (const bool tls : {true, false}) {
        SCOPED_TRACE(tls ? "https" : "http");
        Transfer t(kParts * kPart, 4, 0, {.tls = tls});
        ThirdPartyServer proxy = ThirdPartyServer::forwardProxy(t.dir.path() / "proxy");
        SKIP_UNLESS_RUNNING(proxy);
        SessionConfiguration configuration;
        configuration.proxy = proxy.url();
        if (tls) {
            configuration.caFile = t.receiver->certificateFile();
        }
        uploadThrough(t, t.receiver->baseUrl(), configuration);
    }
}

// A server that reads part of each body, answers 200 with the digest of what it read and closes:
// with no retries the transfer fails, and no part is reported complete.
TEST(RealServers, AnswersBeforeTheWholeBodyNeverCompleteAPart) {
    constexpr uint64_t kLarge = 1 << 20;
    for (const uint64_t readBytes : {uint64_t{1000}, kLarge / 2}) {
        Transfer t(20 * kLarge, 4, 0);
        t.receiver->setFaultScript([readBytes](const receiver::RequestInfo&) {
            return receiver::Fault{.answerAfterBodyBytes = readBytes};
        });
        t.submitParts(kLarge);
        EXPECT_EQ(t.run(std::chrono::seconds(30)), 1) << readBytes;
        ASSERT_TRUE(t.delegate->waitForFinish());
        std::lock_guard lock(t.delegate->mutex);
        EXPECT_TRUE(t.delegate->completed.empty()) << readBytes;
        EXPECT_EQ(t.delegate->failed.size(), 20u) << readBytes;
    }
}

}  // namespace
}  // namespace pellorin::testing
