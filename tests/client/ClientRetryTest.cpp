// How the client treats each way a part can end: retries with their waits and messages,
// permanent failures, checksum handling, and the retry budget.
#include <gtest/gtest.h>

#include <map>

#include "TransferFixture.h"

namespace pellorin::testing {
namespace {

using receiver::Fault;
using receiver::RequestInfo;

constexpr uint64_t kPart = 64 * 1024;

// Applies `fault` to the first `attempts` attempts of part 1.
receiver::Receiver::FaultScript onPartOne(Fault fault, uint32_t attempts) {
    return [fault, attempts](const RequestInfo& info) {
        return info.partNumber == 1u && info.attempt < attempts ? std::optional(fault)
                                                                : std::nullopt;
    };
}

TEST(ClientRetry, ServerErrorsAreRetriedWithTheServersWaitWithoutBeingHeldBack) {
    struct Case {
        int status;
        std::optional<std::string> retryAfter;
        double expectedWait;
    };
    for (const Case& c : {Case{500, std::nullopt, 120.0}, Case{429, "30", 30.0},
                          Case{503, "Wed, 21 Oct 2015 07:28:00 GMT", 120.0}}) {
        SCOPED_TRACE(c.status);
        Transfer t(2 * kPart, 2);
        t.receiver->setFaultScript(
            onPartOne(Fault{.status = c.status, .retryAfter = c.retryAfter}, 1));
        t.submitParts(kPart);
        // Finishing well inside the requested wait shows the wait only orders the queue.
        EXPECT_EQ(t.run(std::chrono::seconds(20)), 0);
        ASSERT_EQ(t.delegate->retries.size(), 1u);
        const auto& retry = *t.delegate->retries[0];
        EXPECT_EQ(retry.retryCount(), 1u);
        EXPECT_EQ(retry.waitSecs(), c.expectedWait);
        EXPECT_EQ(retry.error()->code(), 4);
        EXPECT_NE(retry.error()->message().find(std::to_string(c.status)), std::string::npos);
        EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));

        const auto requests = t.receiver->requests();
        EXPECT_EQ(std::count_if(requests.begin(), requests.end(),
                                [](const auto& r) { return r.retryCount == 1u; }),
                  1);
        const auto messages = t.log->messages();
        const bool warned = std::any_of(messages.begin(), messages.end(), [&](const auto& m) {
            return m == "Could not parse the Retry-After HTTP Header: (" +
                            c.retryAfter.value_or("") + "), will default to 120.0 seconds";
        });
        EXPECT_EQ(warned, c.status == 503);
    }
}

TEST(ClientRetry, DroppedConnectionsBackOffOneTwoFourSecondsAndChecksumMismatchesDoNotWait) {
    Transfer t(2 * kPart, 2, 3);
    t.receiver->setFaultScript([](const RequestInfo& info) -> std::optional<Fault> {
        // By the client's attempt: a request the transport sends again is dropped again.
        if (info.partNumber == 1u && info.retryCount.value_or(0) < 3)
            return Fault{.closeAfterBodyBytes = 1000};
        if (info.partNumber == 2u && info.attempt == 0)
            return Fault{.wrongChecksum = true};
        return std::nullopt;
    });
    t.submitParts(kPart);
    EXPECT_EQ(t.run(), 0);
    EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));

    std::map<uint64_t, std::vector<std::shared_ptr<const PartRetryMessage>>> retries;
    for (const auto& m : t.delegate->retries)
        retries[m->partNumber()].push_back(m);
    ASSERT_EQ(retries[1].size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(retries[1][i]->retryCount(), i + 1);
        EXPECT_EQ(retries[1][i]->waitSecs(), double(1 << i));
        EXPECT_EQ(retries[1][i]->error()->domain(), kURLErrorDomain);
    }
    ASSERT_EQ(retries[2].size(), 1u);
    EXPECT_EQ(retries[2][0]->waitSecs(), 0.0);
    EXPECT_EQ(retries[2][0]->error()->code(), 2);
    // The metrics count every retry and keep the bytes of failed attempts apart.
    EXPECT_EQ(t.delegate->metrics->retryCount(), 4u);
    EXPECT_EQ(t.delegate->metrics->bytesSent(), 2 * kPart);
}

TEST(ClientRetry, SpentBudgetFailsWithTheWholeHistory) {
    struct Case {
        Fault fault;
        std::vector<int64_t> expectedCodes;  // the failure's error list
    };
    // A server-requested retry travels only in the retry messages; network errors and checksum
    // mismatches stay in the part's history.
    for (const Case& c : {Case{Fault{.status = 503}, {1}},
                          Case{Fault{.closeAfterBodyBytes = 10},
                               {URLError::networkConnectionLost, URLError::networkConnectionLost,
                                URLError::networkConnectionLost, 1}},
                          Case{Fault{.quotedETag = true}, {2, 2, 2, 1}}}) {
        Transfer t(kPart, 2, 2);
        t.receiver->setFaultScript(onPartOne(c.fault, 4));
        t.submitParts(kPart);
        EXPECT_EQ(t.run(), 1);
        EXPECT_EQ(t.receiver->requests().size(), 3u);
        EXPECT_EQ(t.delegate->retries.size(), 2u);
        ASSERT_EQ(t.delegate->failed.size(), 1u);
        const auto& errors = t.delegate->failed[0]->errors();
        std::vector<int64_t> codes;
        for (const auto& e : errors)
            codes.push_back(e->code());
        EXPECT_EQ(codes, c.expectedCodes);
        EXPECT_EQ(errors.back()->message(), "Exceeded retry count: 3");
        EXPECT_EQ(t.delegate->finishStatus, 1);
    }
}

TEST(ClientRetry, PermanentFailuresAreNotRetried) {
    const std::map<uint64_t, int> statuses{{1, 204}, {2, 404}, {3, 499}, {4, 600}};
    Transfer t(6 * kPart, 4, 3);
    t.receiver->setFaultScript([statuses](const RequestInfo& info) -> std::optional<Fault> {
        if (auto found = statuses.find(info.partNumber.value_or(0)); found != statuses.end())
            return Fault{.status = found->second};
        if (info.partNumber == 5u)
            return Fault{.noChecksum = true};
        if (info.partNumber == 6u)
            return Fault{.upperCaseETag = true};  // matches: the comparison ignores case
        return std::nullopt;
    });
    t.submitParts(kPart);
    EXPECT_EQ(t.run(), 1);
    EXPECT_EQ(t.receiver->requests().size(), 6u);
    EXPECT_TRUE(t.delegate->retries.empty());
    std::map<uint64_t, std::shared_ptr<const PartFailureMessage>> failures;
    for (const auto& m : t.delegate->failed)
        failures[m->partNumber()] = m;
    ASSERT_EQ(failures.size(), 5u);
    for (const auto& [part, status] : statuses) {
        ASSERT_EQ(failures[part]->errors().size(), 1u);
        EXPECT_EQ(failures[part]->errors()[0]->code(), 5);
        EXPECT_NE(failures[part]->errors()[0]->message().find(std::to_string(status)),
                  std::string::npos);
    }
    EXPECT_EQ(failures[5]->errors()[0]->code(), 3);
    ASSERT_EQ(t.delegate->completed.size(), 1u);
    const std::string expected = md5HexOfRange(t.source, 5 * kPart, kPart);
    std::string upper = expected;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ(t.delegate->completed[0]->eTag(), upper);
}

}  // namespace
}  // namespace pellorin::testing
