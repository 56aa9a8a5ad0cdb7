// Every client error converts to its tabled domain, code and text.
#include <gtest/gtest.h>

#include "client/ErrorConversion.h"

using namespace pellorin;

TEST(ErrorConversion, EveryCaseHasItsDomainCodeAndText) {
    struct Case {
        PellorinError error;
        std::string domain;
        int64_t code;
        std::string message;
    };
    const std::vector<Case> cases = {
        {PellorinError::retryCountExceeded(4), "PellorinClient", 1, "Exceeded retry count: 4"},
        {PellorinError::checksumFailed("aa", "bb"), "PellorinClient", 2,
         "Checksum mismatch, local: aa, remote: bb"},
        {PellorinError::noRemoteChecksum(), "PellorinClient", 3,
         "Remote server did not provide a checksum"},
        {PellorinError::retryAfter(503, 30), "PellorinClient", 4,
         "Remote server wants to retry after: 30 seconds, HTTP status code: 503"},
        {PellorinError::retryAfter(429, 1), "PellorinClient", 4,
         "Remote server wants to retry after: 1 second, HTTP status code: 429"},
        {PellorinError::retryAfter(500, 2.5), "PellorinClient", 4,
         "Remote server wants to retry after: 2.5 seconds, HTTP status code: 500"},
        {PellorinError::unknownServerResponseCode(404), "PellorinClient", 5,
         "Remote server returned an unhandled HTTP response code of: 404"},
        {PellorinError::cancelledByUser(), "PellorinClient", 6, "Cancelled by user."},
        {PellorinError::error("disk on fire"), "Unknown", 99999,
         "Unknown error received: disk on fire"},
    };
    for (const auto& c : cases) {
        auto message = toErrorMessage(c.error);
        EXPECT_EQ(message->domain(), c.domain) << c.message;
        EXPECT_EQ(message->code(), c.code) << c.message;
        EXPECT_EQ(message->message(), c.message);
        EXPECT_FALSE(message->userInfo().has_value()) << c.message;
    }
}

TEST(ErrorConversion, PlatformErrorKeepsItsOwnFields) {
    PlatformError timedOut{std::string(kURLErrorDomain),
                           URLError::timedOut,
                           "The request timed out.",
                           {{"underlyingErrorText", "Timeout reached"}}};
    auto message = toErrorMessage(PellorinError::nsError(timedOut));
    EXPECT_EQ(message->domain(), "URLErrorDomain");
    EXPECT_EQ(message->code(), -1001);
    EXPECT_EQ(message->message(), "The request timed out.");
    EXPECT_EQ(message->userInfo(), timedOut.userInfo);

    // A platform error with no details still carries its (empty) details: {} rather than null.
    auto bare = toErrorMessage(PellorinError::nsError({"POSIXErrorDomain", 2, "No such file", {}}));
    ASSERT_TRUE(bare->userInfo().has_value());
    EXPECT_TRUE(bare->userInfo()->empty());
}
