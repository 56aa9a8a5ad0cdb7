// Cancellation from another thread: in the middle of a transfer, before it starts, and at random
// moments of a busy one, where waitUntilFinished must always return and every part be reported
// exactly once, as complete or as failed.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <random>
#include <thread>

#include "Platform/UrlError.h"
#include "RandomFaults.h"
#include "TransferFixture.h"

namespace pellorin::testing {
namespace {

using receiver::Fault;
using receiver::RequestInfo;

// Every part of the transfer has exactly one final report, and the status agrees with them.
void expectEachPartReportedOnce(const Transfer& t, uint64_t parts, int32_t status) {
    std::lock_guard lock(t.delegate->mutex);
    std::map<uint64_t, int> finals;
    for (const auto& m : t.delegate->completed)
        ++finals[m->partNumber()];
    for (const auto& m : t.delegate->failed)
        ++finals[m->partNumber()];
    for (uint64_t part = 1; part <= parts; ++part)
        EXPECT_EQ(finals[part], 1) << "part " << part;
    EXPECT_EQ(finals.size(), parts);
    EXPECT_EQ(status, t.delegate->failed.empty() ? 0 : 1);
    ASSERT_TRUE(t.delegate->metrics);
    EXPECT_EQ(t.delegate->metrics->partsSent(), t.delegate->completed.size());
    EXPECT_EQ(t.delegate->metrics->failureCount(), t.delegate->failed.size());
}

TEST(ClientCancel, InFlightPartsEndCancelledAndWaitingPartsFailInQueueOrderUnsent) {
    constexpr uint64_t kPart = 64 * 1024;
    Transfer t(8 * kPart, 2, 3);
    // The first two parts stall at the server, so they are in flight when the host cancels.
    t.receiver->setFaultScript([](const RequestInfo& info) {
        return info.partNumber <= 2u ? std::optional(Fault{.stallSecs = 30}) : std::nullopt;
    });
    // Failures of cancelled parts reach a queued delegate synchronously: it sees each one before
    // the direct delegate registered after it, although it is slow.
    DeliveryOrder delivery(*t.client, "failed");
    t.submitParts(kPart);

    std::thread canceller([&] {
        for (int i = 0; i < 500 && t.receiver->requests().size() < 2; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        t.client->invalidateAndCancel();
    });
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(t.run(), 1);
    canceller.join();
    t.client->invalidateAndCancel();  // after the first took effect: only logs
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(15));

    for (const auto& r : t.receiver->requests())
        EXPECT_LE(r.partNumber.value_or(0), 2u);
    ASSERT_EQ(t.delegate->failed.size(), 8u);
    std::vector<uint64_t> waitingOrder;
    for (const auto& m : t.delegate->failed) {
        EXPECT_EQ(m->errors().back()->code(), 6) << m->partNumber();
        EXPECT_EQ(m->errors().back()->message(), "Cancelled by user.");
        if (m->partNumber() > 2)
            waitingOrder.push_back(m->partNumber());
    }
    EXPECT_EQ(waitingOrder, (std::vector<uint64_t>{3, 4, 5, 6, 7, 8}));
    EXPECT_TRUE(t.delegate->completed.empty());
    EXPECT_EQ(t.delegate->metrics->failureCount(), 8u);

    EXPECT_EQ(DeliveryOrder::seen(*delivery.queued, "failed"), 8u);
    EXPECT_EQ(delivery.early, 0);
    const auto messages = t.log->messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Upload cancelled by user."), 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Upload was previously cancelled."), 1);
}

TEST(ClientCancel, APartHandedInAfterTheCancellationFailsOnceAndNeverStarts) {
    Transfer t(1024, 2, 3);
    t.client->invalidateAndCancel();
    ClientCore::of(*t.client).delegateQueue()->sync([] {});  // the cancellation has taken effect
    t.submitParts(1024);
    EXPECT_EQ(t.run(std::chrono::seconds(10)), 1);
    EXPECT_TRUE(t.receiver->requests().empty());
    std::lock_guard lock(t.delegate->mutex);
    ASSERT_EQ(t.delegate->failed.size(), 1u);
    EXPECT_EQ(t.delegate->failed[0]->errors().back()->code(), 6);
    EXPECT_TRUE(t.delegate->started.empty());
}

// A part whose connection drops just before the cancellation reaches it is retried, and must
// then fail as cancelled rather than wait for ever in a queue that no longer runs.
TEST(CancelUnderLoad, APartRetriedAfterTheCancellationFailsInsteadOfWaitingForever) {
    constexpr uint64_t kPart = 16 * 1024;
    Transfer t(2 * kPart, 2, 3);
    t.receiver->setFaultScript([](const RequestInfo& info) {
        const Fault dropLate{.closeAfterBodyBytes = 10, .stallSecs = 0.3};
        return info.partNumber == 1u && info.attempt == 0 ? std::optional(dropLate) : std::nullopt;
    });
    // Runs on the client's delegate queue: the cancellation is queued there, and the queue is
    // held until the dropped connection's ending has been queued behind it.
    std::atomic<bool> cancelled{false};
    t.delegate->onEvent = [&](const RecordingDelegate::Event& e) {
        if (e.kind == "started" && e.partNumber == 1 && !cancelled.exchange(true)) {
            t.client->invalidateAndCancel();
            std::this_thread::sleep_for(std::chrono::milliseconds(800));
        }
    };
    t.submitParts(kPart);
    const int32_t status = t.run(std::chrono::seconds(15));
    EXPECT_EQ(status, 1);
    expectEachPartReportedOnce(t, 2, status);

    std::lock_guard lock(t.delegate->mutex);
    ASSERT_EQ(t.delegate->retries.size(), 1u);
    EXPECT_EQ(t.delegate->retries[0]->error()->code(), URLError::networkConnectionLost);
    const auto failure = std::find_if(t.delegate->failed.begin(), t.delegate->failed.end(),
                                      [](const auto& m) { return m->partNumber() == 1u; });
    ASSERT_NE(failure, t.delegate->failed.end());
    ASSERT_EQ((*failure)->errors().size(), 2u);
    EXPECT_EQ((*failure)->errors()[0]->code(), URLError::networkConnectionLost);
    EXPECT_EQ((*failure)->errors()[1]->code(), 6);
}

// Fifty transfers with sixteen connections, some faults, and a cancellation at a random moment
// (seeded): before the start, while parts start and retry, near the end, or after it.
TEST(CancelUnderLoad, RandomCancellationsAlwaysEndWithEveryPartReportedOnce) {
    constexpr uint64_t kPart = 8 * 1024;
    constexpr uint64_t kParts = 48;
    const int runs = int(sizeFromEnvironment("PELLORIN_CANCEL_RUNS", 50));
    std::mt19937_64 generator(977);
    int early = 0, midway = 0, late = 0;  // runs cancelled before, during and after the parts
    for (int run = 0; run < runs; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        Transfer t(kParts * kPart, 16, 3);
        RandomFaults faults(run, 20, 0.05, kPart);
        t.receiver->setFaultScript(faults.script());
        t.submitParts(kPart);
        const auto delay =
            std::chrono::microseconds(std::uniform_int_distribution<int>(0, 60'000)(generator));
        std::thread canceller([&] {
            std::this_thread::sleep_for(delay);
            t.client->invalidateAndCancel();
        });
        const int32_t status = t.run(std::chrono::seconds(30));
        canceller.join();
        ASSERT_TRUE(t.delegate->waitForFinish(std::chrono::seconds(10)));
        expectEachPartReportedOnce(t, kParts, status);
        if (HasFailure())
            break;
        const size_t done = t.delegate->completed.size();
        (done == 0 ? early : done == kParts ? late : midway)++;
    }
    std::printf("[ cancel ] %d runs: %d cancelled before any part completed, %d midway, %d after\n",
                runs, early, midway, late);
}

}  // namespace
}  // namespace pellorin::testing
