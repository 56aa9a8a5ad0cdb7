// End-to-end transfers through the client against the local receiver: completeness, the
// connection limit, the delegate registry and bad parts.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <set>
#include <thread>

#include <pellorin/LoggingProgressReporter.h>

#include "TransferFixture.h"
#include "datapath/RateLimiter.h"

namespace pellorin::testing {
namespace {

constexpr uint64_t kPart = 256 * 1024;

class ClientTransferTest : public ::testing::TestWithParam<uint8_t> {};

TEST_P(ClientTransferTest, UploadsEveryPartExactlyOnceAndReportsIt) {
    const uint8_t connections = GetParam();
    // Parts over 1 MiB, not a whole number of MD5 blocks: with several connections they are
    // hashed together in lanes, by client and receiver alike, so the copy and each part's ETag
    // are checked against OpenSSL's digests here.
    constexpr uint64_t kLargePart = 1024 * 1024 + 4099;
    Transfer t(11 * kLargePart + 1234, connections);
    const auto parts = t.submitParts(kLargePart);

    EXPECT_EQ(t.run(), 0);
    ASSERT_TRUE(t.delegate->waitForFinish());
    EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));
    EXPECT_LE(t.receiver->maxConcurrentRequests(), connections);
    // A part that starts as soon as another has been reported goes to that part's transfer
    // thread and connection, even though the thread has not quite finished yet.
    std::set<uint64_t> connectionsUsed;
    for (const auto& r : t.receiver->requests())
        connectionsUsed.insert(r.connection);
    EXPECT_LE(connectionsUsed.size(), connections);

    std::lock_guard lock(t.delegate->mutex);
    EXPECT_EQ(t.delegate->finishStatus, 0);
    std::map<uint64_t, std::array<int64_t, 3>> seen;  // starts, progress bytes, completions
    for (const auto& m : t.delegate->started)
        ++seen[m->partNumber()][0];
    for (const auto& m : t.delegate->progress)
        seen[m->partNumber()][1] += m->bytesSent();
    for (const auto& m : t.delegate->completed) {
        ++seen[m->partNumber()][2];
        const auto& part = parts.at(m->partNumber() - 1);
        EXPECT_EQ(m->eTag(), md5HexOfRange(t.source, part->offset(), part->length()));
    }
    for (const auto& part : parts) {
        EXPECT_EQ(seen[part->partNumber()], (std::array<int64_t, 3>{1, int64_t(part->length()), 1}))
            << "part " << part->partNumber();
    }
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
    // Each part has a session of its own, yet the next part reuses the open connection, even
    // when it starts before the previous part's transfer thread is free again.
    EXPECT_EQ(connections.size(), 1u);
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

TEST(ClientBadParts, MissingFileAndPartPastTheEndFailAloneWhileTheOthersAndAnEmptyOneComplete) {
    Transfer t(4 * kPart, 2, 1);
    t.submitParts(kPart);
    t.submit((t.dir.path() / "missing.bin").string(), 10, 0, 100);
    t.submit(t.source.string(), 11, 4 * kPart - 10, 100);  // runs past the end of the file
    t.submit(t.source.string(), 12, 0, 0);                 // empty, and fine

    EXPECT_EQ(t.run(), 1);
    EXPECT_EQ(md5HexOfRange(t.copy(), 0, 4 * kPart), md5HexOfRange(t.source, 0, 4 * kPart));
    std::lock_guard lock(t.delegate->mutex);
    EXPECT_EQ(t.delegate->completed.size(), 5u);
    std::map<uint64_t, int64_t> lastCodes;
    for (const auto& m : t.delegate->failed)
        lastCodes[m->partNumber()] = m->errors().back()->code();
    // The open error, wrapped; the retries spent on a failing read.
    EXPECT_EQ(lastCodes, (std::map<uint64_t, int64_t>{{10, 99999}, {11, 1}}));
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
    t.client->addDelegate(twice, nullptr);
    t.client->addDelegate(twice, nullptr);
    t.client->addDelegate(removed, nullptr);
    t.client->addDelegate(released, nullptr);
    t.client->removeDelegate(removed);
    std::weak_ptr<RecordingDelegate> releasedWeak = released;
    released.reset();
    // Completions reach a queued delegate synchronously, on its queue.
    DeliveryOrder delivery(*t.client, "complete");
    std::thread::id queueThread;
    delivery.queue->sync([&] { queueThread = std::this_thread::get_id(); });

    t.submitParts(kPart);
    EXPECT_EQ(t.run(), 0);
    ASSERT_TRUE(delivery.queued->waitForFinish());
    EXPECT_TRUE(releasedWeak.expired());
    EXPECT_EQ(twice->completed.size(), 6u);
    EXPECT_TRUE(removed->events.empty());
    for (const auto& e : delivery.queued->events)
        EXPECT_EQ(e.thread, queueThread) << e.kind;
    EXPECT_EQ(DeliveryOrder::seen(*delivery.queued, "complete"), 3u);
    EXPECT_EQ(delivery.early, 0);
}

// The stock reporter on a real transfer logs start, progress, completion and metrics in that
// order; each line's text is pinned by the reporter's and the messages' own tests.
TEST(ClientDelegates, ReporterLogsAOnePartTransferInEventOrder) {
    Transfer t(kPart, 1);
    auto lines = std::make_shared<LogRecord>();
    auto reporter = std::make_shared<LoggingProgressReporter>(
        Logger("reporter", std::make_unique<RecordingLogHandler>(lines)));
    reporter->logger().setLogLevel(Logger::Level::info);
    t.client->addDelegate(reporter, nullptr);
    t.submitParts(kPart);
    EXPECT_EQ(t.run(), 0);
    std::vector<std::string> prefixes;
    for (const auto& message : lines->messages()) {
        const std::string prefix = message.substr(0, message.find(": {") + 2);
        if (prefixes.empty() || prefixes.back() != prefix)
            prefixes.push_back(prefix);
    }
    EXPECT_EQ(prefixes, (std::vector<std::string>{"part-started: ", "part-progress: ",
                                                  "part-complete: ", "transfer-metrics: "}));
}

}  // namespace
}  // namespace pellorin::testing
