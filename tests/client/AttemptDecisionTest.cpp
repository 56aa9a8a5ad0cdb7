// What each ending of an attempt means, one row per kind of ending, without a server.
#include <gtest/gtest.h>

#include <variant>

#include "Platform/HttpMessage.h"
#include "Platform/UrlError.h"
#include "client/AttemptDecision.h"

namespace pellorin {
namespace {

using Decision = AttemptDecision;

struct Row {
    const char* name;
    AttemptEnding ending;
    std::variant<Decision::Complete, Decision::Retry, Decision::Fail> outcome;
    std::optional<PellorinError> recorded;
    size_t retryCount;
    bool warns = false;
};

AttemptEnding answer(int64_t status, std::optional<ChecksumStatus> checksum = std::nullopt,
                     std::optional<std::string> retryAfter = std::nullopt, bool cancelled = false) {
    AttemptEnding ending;
    ending.statusCode = status;
    ending.retryAfter = std::move(retryAfter);
    if (checksum) {
        ending.remoteChecksum = "abc";
        ending.checksum = checksum;
    }
    ending.cancelled = cancelled;
    ending.maxRetries = 3;
    return ending;
}

AttemptEnding transportError(PlatformError error, size_t retryCount = 0, uint8_t maxRetries = 3) {
    AttemptEnding ending;
    ending.error = std::move(error);
    ending.retryCount = retryCount;
    ending.maxRetries = maxRetries;
    return ending;
}

TEST(AttemptDecision, EveryKindOfEndingHasItsOutcome) {
    const auto mismatch = ChecksumStatus::failed("aa", "abc");
    const auto mismatchError = PellorinError::checksumFailed("aa", "abc");
    const auto lost = urlError(URLError::networkConnectionLost);
    const PlatformError posix{std::string(kPOSIXErrorDomain), 5, "Input/output error", {}};
    AttemptEnding spent = transportError(lost, 2, 2);
    AttemptEnding spentByServer = answer(503);
    spentByServer.retryCount = 3;
    AttemptEnding noBudget = answer(500);
    noBudget.maxRetries = 0;
    AttemptEnding cutShort = answer(200, ChecksumStatus::matched());
    cutShort.bytesSent = 10;
    cutShort.length = 20;
    const auto shortError = PellorinError::error("the answer came after 10 of 20 body bytes");
    // The body's file changed under it: whatever else happened, a retry would read it again.
    AttemptEnding changedUnderAnswer = answer(200, mismatch);
    changedUnderAnswer.sourceChanged = "a.bin changed";
    AttemptEnding changedUnderError = transportError(lost);
    changedUnderError.sourceChanged = "a.bin changed";
    const auto changedError = PellorinError::error("a.bin changed");

    using E = PellorinError;
    const auto matched = ChecksumStatus::matched();
    const Decision::Complete done{"abc"};
    const Decision::Fail cancelled{E::cancelledByUser()};
    const auto serverRetry = [](int status, double wait) {
        return Decision::Retry{wait, E::retryAfter(status, wait)};
    };
    const auto refused = E::nsError(urlError(URLError::cannotConnectToHost));
    const auto garbled = E::nsError(urlError(URLError::cannotParseResponse));
    const auto lostError = E::nsError(lost), posixError = E::nsError(posix);
    const std::string date = "Wed, 21 Oct 2015 07:28:00 GMT";

    const Row rows[] = {
        {"200, checksum equal", answer(200, matched), done, {}, 0},
        {"201, checksum equal", answer(201, matched), done, {}, 0},
        {"200 before the whole body went out", cutShort, Decision::Retry{{}, shortError},
         shortError, 1},
        {"file changed, answer 200", changedUnderAnswer, Decision::Fail{changedError}, {}, 0},
        {"file changed, transport error", changedUnderError, Decision::Fail{changedError}, {}, 0},
        {"200, no checksum", answer(200), Decision::Fail{E::noRemoteChecksum()}, {}, 0},
        {"200, checksum different", answer(200, mismatch), Decision::Retry{{}, mismatchError},
         mismatchError, 1},
        {"200, checksum different, cancelled", answer(200, mismatch, {}, true), cancelled,
         mismatchError, 0},
        {"503, Retry-After 30", answer(503, {}, "30"), serverRetry(503, 30.0), {}, 1},
        {"429, negative Retry-After", answer(429, {}, "-5"), serverRetry(429, -5.0), {}, 1},
        {"408, no Retry-After", answer(408), serverRetry(408, 120.0), {}, 1},
        {"599, Retry-After as a date", answer(599, {}, date), serverRetry(599, 120.0), {}, 1, true},
        {"500, cancelled", answer(500, {}, "30", true), cancelled, {}, 0},
        {"404", answer(404), Decision::Fail{E::unknownServerResponseCode(404)}, {}, 0},
        {"302", answer(302), Decision::Fail{E::unknownServerResponseCode(302)}, {}, 0},
        {"cancelled transfer", transportError(urlError(URLError::cancelled)), cancelled, {}, 0},
        {"connection refused", transportError(urlError(URLError::cannotConnectToHost)),
         Decision::Retry{{}, refused}, refused, 1},
        {"answer not HTTP", transportError(urlError(URLError::cannotParseResponse)),
         Decision::Retry{{}, garbled}, garbled, 1},
        {"first network error waits 1 s", transportError(lost, 0), Decision::Retry{1.0, lostError},
         lostError, 1},
        {"second waits 2 s", transportError(lost, 1), Decision::Retry{2.0, lostError}, lostError,
         2},
        {"third waits 4 s", transportError(lost, 2), Decision::Retry{4.0, lostError}, lostError, 3},
        {"error of another domain", transportError(posix, 3, 5), Decision::Retry{8.0, posixError},
         posixError, 4},
        {"budget spent by a network error", spent, Decision::Fail{E::retryCountExceeded(3)},
         lostError, 3},
        {"budget spent by server retries",
         spentByServer,
         Decision::Fail{E::retryCountExceeded(4)},
         {},
         4},
        {"no budget at all", noBudget, Decision::Fail{E::retryCountExceeded(1)}, {}, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Decision decision = decideAttempt(row.ending);
        ASSERT_EQ(decision.outcome.index(), row.outcome.index());
        if (const auto* complete = std::get_if<Decision::Complete>(&row.outcome)) {
            EXPECT_EQ(std::get<Decision::Complete>(decision.outcome).eTag, complete->eTag);
        } else if (const auto* retry = std::get_if<Decision::Retry>(&row.outcome)) {
            EXPECT_EQ(std::get<Decision::Retry>(decision.outcome).wait, retry->wait);
            EXPECT_EQ(std::get<Decision::Retry>(decision.outcome).error, retry->error);
        } else {
            EXPECT_EQ(std::get<Decision::Fail>(decision.outcome).error,
                      std::get<Decision::Fail>(row.outcome).error);
        }
        EXPECT_EQ(decision.recorded, row.recorded);
        EXPECT_EQ(decision.retryCount, row.retryCount);
        EXPECT_EQ(decision.warning.has_value(), row.warns);
    }
}

TEST(AttemptDecision, TheRemoteChecksumIsContentMD5WhenItDecodesElseTheETag) {
    const Url url = *Url::parse("http://127.0.0.1/");
    // base64 of the bytes 0x00 0xAB.
    EXPECT_EQ(remoteChecksum(HttpResponse(200, {{"content-md5", "AKs="}, {"ETag", "e"}}, url)),
              "00ab");
    EXPECT_EQ(remoteChecksum(HttpResponse(200, {{"Content-MD5", "AKs"}, {"etag", "E1"}}, url)),
              "E1");
    EXPECT_EQ(remoteChecksum(HttpResponse(200, {}, url)), std::nullopt);
}

}  // namespace
}  // namespace pellorin
