// Cancellation from another thread in the middle of a transfer.
#include <gtest/gtest.h>

#include <thread>

#include "TransferFixture.h"

namespace pellorin::testing {
namespace {

using receiver::Fault;
using receiver::RequestInfo;

constexpr uint64_t kPart = 64 * 1024;

TEST(ClientCancel, InFlightPartsEndCancelledAndWaitingPartsFailInQueueOrderUnsent) {
    Transfer t(8 * kPart, 2, 3);
    // The first two parts stall at the server, so they are in flight when the host cancels.
    t.receiver->setFaultScript([](const RequestInfo& info) -> std::optional<Fault> {
        if (info.partNumber.value_or(0) > 2)
            return std::nullopt;
        Fault fault;
        fault.stallSecs = 30;
        return fault;
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

    EXPECT_TRUE(delivery.queuedFirst(8));
    const auto messages = t.log->messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Upload cancelled by user."), 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Upload was previously cancelled."), 1);
}

TEST(ClientCancel, CancellingBeforeAnythingStartedStillLetsTheWaitReturn) {
    Transfer t(4 * kPart, 2, 3);
    t.submitParts(kPart);
    t.client->invalidateAndCancel();
    EXPECT_EQ(t.run(std::chrono::seconds(10)), 1);
    EXPECT_TRUE(t.receiver->requests().empty());
    EXPECT_EQ(t.delegate->failed.size(), 4u);
}

}  // namespace
}  // namespace pellorin::testing
