// MD5 part streams hashed together: several streams read on threads of their own, each must
// serve exactly its range and certify exactly what it served, whatever the others do (rewind,
// close, go away, stall) and whatever happens to the file.
#include "datapath/LaneHasher.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <random>
#include <thread>

#include "Platform/Encoding.h"
#include "datapath/FilePartInputStream.h"
#include "support/TempDir.h"

namespace pellorin {
namespace {

std::string md5Hex(std::span<const uint8_t> bytes) {
    auto digest = newDigest(DigestAlgorithm::md5);
    digest->update(bytes);
    return hexString(digest->finalize());
}

// What one stream does on its thread.
enum class Plan {
    readAll,        // to the end
    rewindHalfway,  // half its range, rewind, then all of it
    closeEarly,     // a little, then close and let go of the stream
    destroyEarly,   // a little, then let go of the stream while still open
};

struct Outcome {
    std::vector<uint8_t> served;  // since the last rewind
    bool failed = false;
    std::string digest;
    bool certified = false;
};

constexpr uint64_t kMiB = 1024 * 1024;
constexpr int64_t kLargestRead = 512 * 1024 + 4096;

class LaneHasherTest : public ::testing::Test {
  protected:
    // A generous window, so that slow threads (sanitizers, a loaded machine) still meet in
    // rounds.
    void SetUp() override {
        LaneHasher::setEnabled(true);
        window = LaneHasher::gatherWindow();
        LaneHasher::setGatherWindow(std::chrono::milliseconds(20));
    }
    void TearDown() override { LaneHasher::setGatherWindow(window); }

    // Reads `stream` per `plan` with random read sizes up to a little more than a buffer.
    static Outcome run(std::shared_ptr<FilePartInputStream> stream, Plan plan, uint32_t seed) {
        std::minstd_rand random(seed);
        std::uniform_int_distribution<int64_t> size(1, kLargestRead);
        Outcome outcome;
        stream->open();
        std::vector<uint8_t> buffer(kLargestRead);
        const uint64_t stopAt = plan == Plan::readAll ? stream->length() : stream->length() / 2;
        bool rewound = false;
        for (;;) {
            if (outcome.served.size() >= stopAt && stopAt < stream->length()) {
                if (plan == Plan::rewindHalfway && !rewound) {
                    EXPECT_TRUE(stream->rewind());
                    outcome.served.clear();
                    rewound = true;
                    continue;
                }
                if (plan == Plan::closeEarly) {
                    stream->close();
                }
                if (plan != Plan::rewindHalfway) {
                    stream.reset();
                    return outcome;
                }
            }
            const int64_t n = stream->read(buffer.data(), size(random));
            if (n <= 0) {
                outcome.failed = n < 0;
                break;
            }
            outcome.served.insert(outcome.served.end(), buffer.begin(), buffer.begin() + n);
        }
        stream->close();
        outcome.digest = hexString(stream->digestData());
        outcome.certified = stream->verifyRemoteChecksum(md5Hex(outcome.served)).kind ==
                            ChecksumStatusKind::matched;
        return outcome;
    }

    // Runs one stream per (offset, length, plan) on threads of their own.
    std::vector<Outcome> runAll(const std::shared_ptr<SharedFile>& file,
                                const std::vector<std::tuple<uint64_t, uint64_t, Plan>>& parts) {
        std::vector<Outcome> outcomes(parts.size());
        std::vector<std::thread> threads;
        for (size_t i = 0; i < parts.size(); ++i) {
            const auto [offset, length, plan] = parts[i];
            auto stream = filePart(DigestAlgorithm::md5, file, i + 1, offset, length, nullptr);
            // The thread holds the only reference, so that letting go of it destroys the stream.
            threads.emplace_back([&outcomes, i, stream = std::move(stream), plan]() mutable {
                outcomes[i] = run(std::move(stream), plan, static_cast<uint32_t>(i + 1));
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        return outcomes;
    }

    testing::TempDir temp;
    std::chrono::microseconds window{};
};

TEST_F(LaneHasherTest, ConcurrentStreamsServeAndCertifyExactlyTheirRanges) {
    const auto path = temp.makeFile("f", 12 * kMiB + 333, 5);
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> content{std::istreambuf_iterator<char>(in), {}};
    auto file = std::make_shared<SharedFile>(path);
    const std::shared_ptr<LaneHasher> hasher = LaneHasher::shared();
    const Md5Lanes::Occupancy before = hasher->occupancy();

    const std::vector<std::tuple<uint64_t, uint64_t, Plan>> parts = {
        {0, 3 * kMiB, Plan::readAll},
        {3 * kMiB, 2 * kMiB + 1, Plan::readAll},
        {5 * kMiB + 1, 1000, Plan::readAll},
        {5 * kMiB + 1001, 2 * kMiB - 77, Plan::rewindHalfway},
        {7 * kMiB, 3 * kMiB, Plan::closeEarly},
        {10 * kMiB, 2 * kMiB, Plan::destroyEarly},
        {12 * kMiB, 333, Plan::readAll},
        {1, 4 * kMiB + 5, Plan::rewindHalfway},
    };
    const std::vector<Outcome> outcomes = runAll(file, parts);
    for (size_t i = 0; i < parts.size(); ++i) {
        const auto [offset, length, plan] = parts[i];
        SCOPED_TRACE(::testing::Message() << "part " << i + 1);
        const auto expected = std::span(content).subspan(offset, outcomes[i].served.size());
        EXPECT_FALSE(outcomes[i].failed);
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), outcomes[i].served.begin()));
        if (plan == Plan::readAll || plan == Plan::rewindHalfway) {
            EXPECT_EQ(outcomes[i].served.size(), length);
            EXPECT_EQ(outcomes[i].digest, md5Hex(expected));
            EXPECT_TRUE(outcomes[i].certified);
        }
    }
    const Md5Lanes::Occupancy after = hasher->occupancy();
    EXPECT_GT(after.blocks, before.blocks);
    EXPECT_GT(after.laneSlots, before.laneSlots);
    EXPECT_EQ(hasher->parts(), 0u);
}

TEST_F(LaneHasherTest, ALoneStreamHashesByItself) {
    const auto path = temp.makeFile("f", 3 * kMiB + 9, 6);
    auto file = std::make_shared<SharedFile>(path);
    const std::shared_ptr<LaneHasher> hasher = LaneHasher::shared();
    const uint64_t rounds = hasher->rounds();
    const std::vector<Outcome> outcomes = runAll(file, {{0, 3 * kMiB + 9, Plan::readAll}});
    EXPECT_TRUE(outcomes[0].certified);
    EXPECT_EQ(hasher->rounds(), rounds);
}

TEST_F(LaneHasherTest, APartGoesOnBesideAStalledOne) {
    // `mover` reads alone, then beside `stalled` (which reads a little and stops: each of the
    // mover's rounds waits out the window and is hashed without it), then alone again once
    // `stalled` is closed; its digest must be exact through all three.
    constexpr uint64_t kLength = 3 * kMiB + 11;
    const auto path = temp.makeFile("f", 2 * kLength, 8);
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> content{std::istreambuf_iterator<char>(in), {}};
    auto file = std::make_shared<SharedFile>(path);
    LaneHasher::setGatherWindow(std::chrono::milliseconds(1));
    const std::shared_ptr<LaneHasher> hasher = LaneHasher::shared();
    auto mover = filePart(DigestAlgorithm::md5, file, 1, 0, kLength, {});
    auto stalled = filePart(DigestAlgorithm::md5, file, 2, kLength, kLength, {});
    std::vector<uint8_t> served(kLength), scratch(100000);
    uint64_t total = 0;
    const auto readMover = [&](uint64_t upTo) {
        for (int64_t n; total < upTo; total += static_cast<uint64_t>(n)) {
            n = mover->read(served.data() + total, 100003);
            ASSERT_GT(n, 0);
        }
    };
    mover->open();
    readMover(kLength / 4);
    stalled->open();
    ASSERT_GT(stalled->read(scratch.data(), 1000), 0);
    const uint64_t rounds = hasher->rounds();
    readMover(3 * kLength / 4);
    EXPECT_GT(hasher->rounds(), rounds);
    stalled->close();
    readMover(kLength);
    EXPECT_EQ(mover->read(scratch.data(), 1), 0);
    EXPECT_TRUE(std::equal(served.begin(), served.end(), content.begin()));
    EXPECT_EQ(hexString(mover->digestData()), md5Hex(served));
    EXPECT_EQ(mover->verifyRemoteChecksum(md5Hex(served)).kind, ChecksumStatusKind::matched);
}

TEST_F(LaneHasherTest, AFileCutShortUnderTheRoundsIsNeverCertified) {
    const auto path = temp.makeFile("f", 8 * kMiB, 7);
    auto file = std::make_shared<SharedFile>(path);
    std::vector<std::shared_ptr<FilePartInputStream>> streams;
    for (uint64_t i = 0; i < 4; ++i) {
        streams.push_back(filePart(DigestAlgorithm::md5, file, i + 1, i * 2 * kMiB, 2 * kMiB, {}));
        streams.back()->open();
    }
    std::vector<uint8_t> buffer(64 * 1024);
    for (auto& stream : streams) {
        ASSERT_GT(stream->read(buffer.data(), static_cast<int64_t>(buffer.size())), 0);
    }
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(3 * kMiB)), 0);
    for (auto& stream : streams) {
        while (stream->read(buffer.data(), static_cast<int64_t>(buffer.size())) > 0) {
        }
        EXPECT_TRUE(stream->failed());
        EXPECT_TRUE(stream->sourceChanged());
        EXPECT_EQ(stream->verifyRemoteChecksum(hexString(stream->digestData())).kind,
                  ChecksumStatusKind::failed);
        stream->close();
    }
    EXPECT_EQ(LaneHasher::shared()->parts(), 0u);
}

}  // namespace
}  // namespace pellorin
