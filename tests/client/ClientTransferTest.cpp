// End-to-end transfers through the client against the local receiver: completeness, the
// connection limit, the delegate registry, bad parts, and what a client leaves behind.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "TransferFixture.h"
#include "datapath/RateLimiter.h"
#include "support/ProcessResources.h"

namespace pellorin::testing {
namespace {

constexpr uint64_t kPart = 256 * 1024;

class ClientTransferTest : public ::testing::TestWithParam<uint8_t> {};

TEST_P(ClientTransferTest, UploadsEveryPartExactlyOnceAndReportsIt) {
    const uint8_t connections = GetParam();
    Transfer t(11 * kPart + 1234, connections);
    const auto parts = t.submitParts(kPart);

    EXPECT_EQ(t.run(), 0);
    ASSERT_TRUE(t.delegate->waitForFinish());
    EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));
    EXPECT_LE(t.receiver->maxConcurrentRequests(), connections);

    std::lock_guard lock(t.delegate->mutex);
    EXPECT_EQ(t.delegate->finishStatus, 0);
    std::map<uint64_t, int> starts, completions;
    std::map<uint64_t, int64_t> progress;
    for (const auto& m : t.delegate->started)
        ++starts[m->partNumber()];
    for (const auto& m : t.delegate->progress)
        progress[m->partNumber()] += m->bytesSent();
    for (const auto& part : parts) {
        const uint64_t n = part->partNumber();
        EXPECT_EQ(starts[n], 1) << "part " << n;
        EXPECT_EQ(progress[n], static_cast<int64_t>(part->length())) << "part " << n;
    }
    for (const auto& m : t.delegate->completed) {
        ++completions[m->partNumber()];
        const auto& part = parts.at(m->partNumber() - 1);
        EXPECT_EQ(m->eTag(), md5HexOfRange(t.source, part->offset(), part->length()));
    }
    EXPECT_EQ(completions.size(), parts.size());
    EXPECT_TRUE(t.delegate->failed.empty());
    ASSERT_TRUE(t.delegate->metrics);
    EXPECT_EQ(t.delegate->metrics->totalPartsRequested(), static_cast<int64_t>(parts.size()));
    EXPECT_EQ(t.delegate->metrics->partsSent(), parts.size());
    EXPECT_EQ(t.delegate->metrics->bytesSent(), std::filesystem::file_size(t.source));
    EXPECT_EQ(t.delegate->metrics->failureCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Connections, ClientTransferTest, ::testing::Values(1, 4, 16));

TEST(ClientScheduling, OneConnectionSendsPartsOneAtATimeInSubmissionOrder) {
    Transfer t(6 * kPart, 1);
    t.submitParts(kPart);
    EXPECT_EQ(t.run(), 0);
    EXPECT_EQ(t.receiver->maxConcurrentRequests(), 1);
    std::vector<uint64_t> order;
    std::set<uint64_t> connections;
    for (const auto& r : t.receiver->requests()) {
        order.push_back(r.partNumber.value_or(0));
        connections.insert(r.connection);
    }
    EXPECT_EQ(order, (std::vector<uint64_t>{1, 2, 3, 4, 5, 6}));
    // Each part has a session of its own, yet the next part reuses the open connection (a part
    // that starts before the previous transfer thread is free may open one more).
    EXPECT_LE(connections.size(), 3u);
    for (const auto& r : t.receiver->requests()) {
        EXPECT_FALSE(r.retryCount.has_value()) << "a first attempt carries no retry count";
        EXPECT_EQ(r.contentLength, kPart);
    }
}

TEST(ClientScheduling, NothingSubmittedReturnsZeroAtOnceWithoutNotification) {
    Transfer t(10);
    EXPECT_EQ(t.run(std::chrono::seconds(5)), 0);
    std::lock_guard lock(t.delegate->mutex);
    EXPECT_TRUE(t.delegate->events.empty());
}

TEST(ClientScheduling, StandardClientMultipliesTheRateLimitByAThousand) {
    auto client = PellorinClient::standardClient(5, 2, 1);
    ASSERT_TRUE(client->rateLimiter());
    EXPECT_EQ(client->rateLimiter()->permitsPerSecond(), 5000u);
    EXPECT_FALSE(PellorinClient::standardClient(std::nullopt, 2, 1)->rateLimiter());
}

TEST(ClientBadParts, MissingFileAndPartPastTheEndFailAloneWhileTheOthersComplete) {
    Transfer t(4 * kPart, 2, 1);
    t.submitParts(kPart);
    t.submit((t.dir.path() / "missing.bin").string(), 10, 0, 100);
    t.submit(t.source.string(), 11, 4 * kPart - 10, 100);  // runs past the end of the file

    EXPECT_EQ(t.run(), 1);
    EXPECT_EQ(md5HexOfRange(t.copy(), 0, 4 * kPart), md5HexOfRange(t.source, 0, 4 * kPart));
    std::lock_guard lock(t.delegate->mutex);
    EXPECT_EQ(t.delegate->completed.size(), 4u);
    ASSERT_EQ(t.delegate->failed.size(), 2u);
    std::map<uint64_t, std::shared_ptr<const PartFailureMessage>> failures;
    for (const auto& m : t.delegate->failed)
        failures[m->partNumber()] = m;
    ASSERT_TRUE(failures.count(10) && failures.count(11));
    EXPECT_EQ(failures[10]->errors().back()->code(), 99999);  // the open error, wrapped
    EXPECT_EQ(failures[11]->errors().back()->code(), 1);      // retries spent on a failing read
    EXPECT_EQ(t.delegate->metrics->failureCount(), 2u);

    const auto messages = t.log->messages();
    const std::string expected =
        "Could not process file part: FilePart (filePath: missing.bin, partNumber: 10).  "
        "Cancelling the file transfer.";
    EXPECT_NE(std::find(messages.begin(), messages.end(), expected), messages.end());
}

TEST(ClientDelegates, WeakTwiceRemovedAndQueuedDelegatesAreHonoured) {
    Transfer t(3 * kPart, 2);
    auto twice = std::make_shared<RecordingDelegate>();
    auto removed = std::make_shared<RecordingDelegate>();
    auto released = std::make_shared<RecordingDelegate>();
    auto queued = std::make_shared<RecordingDelegate>();
    auto queue = SerialQueue::make("host delegate queue");
    std::thread::id queueThread;
    queue->sync([&] { queueThread = std::this_thread::get_id(); });

    // Completions reach a queued delegate synchronously: with a slow queued delegate first and a
    // direct one after it, the queued one still sees each completion first.
    std::mutex orderMutex;
    std::vector<std::string> order;
    queued->onEvent = [&](const RecordingDelegate::Event& e) {
        if (e.kind != "complete")
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::lock_guard lock(orderMutex);
        order.push_back("queued " + std::to_string(e.partNumber));
    };
    auto direct = std::make_shared<RecordingDelegate>();
    direct->onEvent = [&](const RecordingDelegate::Event& e) {
        if (e.kind != "complete")
            return;
        std::lock_guard lock(orderMutex);
        order.push_back("direct " + std::to_string(e.partNumber));
    };

    t.client->addDelegate(twice, nullptr);
    t.client->addDelegate(twice, nullptr);
    t.client->addDelegate(removed, nullptr);
    t.client->addDelegate(released, nullptr);
    t.client->addDelegate(queued, queue);
    t.client->addDelegate(direct, nullptr);
    t.client->removeDelegate(removed);
    std::weak_ptr<RecordingDelegate> releasedWeak = released;
    released.reset();

    t.submitParts(kPart);
    EXPECT_EQ(t.run(), 0);
    ASSERT_TRUE(queued->waitForFinish());
    EXPECT_TRUE(releasedWeak.expired());
    EXPECT_EQ(twice->completed.size(), 6u);
    EXPECT_TRUE(removed->events.empty());
    for (const auto& e : queued->events)
        EXPECT_EQ(e.thread, queueThread) << e.kind;
    ASSERT_EQ(order.size(), 6u);
    for (size_t i = 0; i < order.size(); i += 2) {
        EXPECT_EQ(order[i].substr(0, 6), "queued") << i;
        EXPECT_EQ(order[i].substr(6), order[i + 1].substr(6)) << i;
    }
}

TEST(ClientResources, NoThreadOrDescriptorIsLeftAfterAClientGoesAway) {
    {
        Transfer warmUp(kPart);
        warmUp.submitParts(kPart);
        warmUp.run();
    }  // one-time globals
    const ProcessResources before = settledResources();
    for (int round = 0; round < 3; ++round) {
        Transfer t(8 * kPart, 4);
        t.submitParts(kPart);
        EXPECT_EQ(t.run(), 0);
    }
    const ProcessResources after = waitForResources(before);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
}

}  // namespace
}  // namespace pellorin::testing
