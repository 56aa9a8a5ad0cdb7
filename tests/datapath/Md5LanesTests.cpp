#include "datapath/Md5Lanes.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <random>

namespace pellorin {
namespace {

using Kernel = Md5Lanes::Kernel;

std::array<uint8_t, 16> opensslMd5(std::span<const uint8_t> bytes) {
    std::array<uint8_t, 16> digest{};
    unsigned int length = 0;
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_md5(), nullptr);
    return digest;
}

std::vector<uint8_t> randomBytes(size_t length, std::mt19937_64& random) {
    std::vector<uint8_t> bytes(length + 8);
    for (size_t at = 0; at < length; at += 8) {
        const uint64_t word = random();
        std::memcpy(bytes.data() + at, &word, 8);
    }
    bytes.resize(length);
    return bytes;
}

// Every test runs on each kernel forced alone, and on the engine's own choice (nullopt).
class Md5LanesKernel : public testing::TestWithParam<std::optional<Kernel>> {
  protected:
    void SetUp() override {
        if (GetParam() && !Md5Lanes::isAvailable(*GetParam())) {
            GTEST_SKIP() << "this CPU or build lacks the " << Md5Lanes::name(*GetParam())
                         << " kernel";
        }
        ASSERT_TRUE(lanes.forceKernel(GetParam()));
    }

    Md5Lanes lanes;
    std::mt19937_64 random{20261123};
};

// Each length 0-300 covers every position of the padding and of the partial block across one,
// two and several blocks; all streams share the one round, so lanes drop out one block at a
// time and the groups of wide kernels shrink to one lane at the end.
TEST_P(Md5LanesKernel, EveryLengthUpTo300InOneRound) {
    const std::vector<uint8_t> data = randomBytes(301 * 3 + 300, random);
    std::vector<Md5Stream> streams(301);
    std::vector<Md5Lanes::Job> jobs;
    for (size_t length = 0; length <= 300; ++length) {
        jobs.push_back({&streams[length], std::span(data).subspan(length * 3, length)});
    }
    lanes.hashRound(jobs);
    for (size_t length = 0; length <= 300; ++length) {
        EXPECT_EQ(streams[length].digest(), opensslMd5(jobs[length].bytes)) << length;
        EXPECT_EQ(streams[length].length(), length);
    }
}

// Streams fed in random chunks over many rounds (partial blocks carried, completed and carried
// again; streams sitting rounds out), some chunks through the one-stream path, with the digest
// so far checked on the way without disturbing what follows.
TEST_P(Md5LanesKernel, RandomChunkingsAcrossRounds) {
    constexpr size_t kStreams = 21;
    std::vector<std::vector<uint8_t>> data;
    for (size_t i = 0; i < kStreams; ++i) {
        data.push_back(randomBytes(random() % (96 * 1024), random));
    }
    std::vector<Md5Stream> streams(kStreams);
    std::vector<size_t> fed(kStreams, 0);
    for (int round = 0; round < 400; ++round) {
        std::vector<Md5Lanes::Job> jobs;
        for (size_t i = 0; i < kStreams; ++i) {
            const size_t left = data[i].size() - fed[i];
            if (random() % 5 == 0) {
                continue;  // no data this round
            }
            const size_t chunk =
                std::min(left, random() % 3 == 0 ? random() % 4096 : random() % 200);
            const std::span<const uint8_t> bytes = std::span(data[i]).subspan(fed[i], chunk);
            fed[i] += chunk;
            if (random() % 10 == 0) {
                streams[i].update(bytes);
            } else {
                jobs.push_back({&streams[i], bytes});
            }
        }
        std::shuffle(jobs.begin(), jobs.end(), random);
        lanes.hashRound(jobs);
        if (round % 50 == 7) {
            const size_t i = random() % kStreams;
            EXPECT_EQ(streams[i].digest(), opensslMd5(std::span(data[i]).first(fed[i])));
        }
    }
    for (size_t i = 0; i < kStreams; ++i) {
        streams[i].update(std::span(data[i]).subspan(fed[i]));
        EXPECT_EQ(streams[i].digest(), opensslMd5(data[i])) << i;
    }
}

// Long streams of random lengths (one of 8-16 MiB) at odd offsets, fed in rounds of 512 KiB
// and finishing at different rounds; one stream restarts from scratch half-way, as a resent
// part does.
TEST_P(Md5LanesKernel, LongStreamsFinishingAtDifferentTimes) {
    constexpr size_t kRound = 512 * 1024;
    constexpr size_t kLongest = 16 << 20;
    const std::vector<uint8_t> data = randomBytes(kLongest + 4096, random);
    std::vector<std::span<const uint8_t>> views{
        std::span(data).subspan(3, kLongest / 2 + random() % (kLongest / 2))};
    for (size_t i = 1; i < 10; ++i) {
        views.push_back(std::span(data).subspan(i * 67, random() % (3 << 19)));
    }
    std::vector<Md5Stream> streams(views.size());
    std::vector<size_t> fed(views.size(), 0);
    for (int round = 0; fed[0] < views[0].size(); ++round) {
        if (round == 2) {
            streams[1].reset();
            fed[1] = 0;
        }
        std::vector<Md5Lanes::Job> jobs;
        for (size_t i = 0; i < views.size(); ++i) {
            const size_t chunk = std::min(kRound, views[i].size() - fed[i]);
            jobs.push_back({&streams[i], views[i].subspan(fed[i], chunk)});
            fed[i] += chunk;
        }
        lanes.hashRound(jobs);
    }
    for (size_t i = 0; i < views.size(); ++i) {
        EXPECT_EQ(streams[i].length(), views[i].size()) << i;
        EXPECT_EQ(streams[i].digest(), opensslMd5(views[i])) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(, Md5LanesKernel,
                         testing::Values(std::nullopt, Kernel::openssl, Kernel::scalar,
                                         Kernel::avx2, Kernel::avx512x4, Kernel::avx512x8,
                                         Kernel::avx512x16),
                         [](const testing::TestParamInfo<std::optional<Kernel>>& info) {
                             return info.param ? std::string(Md5Lanes::name(*info.param))
                                               : std::string("chosen");
                         });

// The counters report how full the lanes ran: a stream that outlasts the others keeps running
// the kernel at its full width with one busy lane.
TEST(Md5Lanes, OccupancyCountsBusyLaneBlocks) {
    const std::vector<uint8_t> data(4096);
    std::vector<Md5Stream> streams(4);
    Md5Lanes lanes;
    ASSERT_TRUE(lanes.forceKernel(Kernel::scalar));
    const auto round = [&](std::array<size_t, 4> lengths) {
        std::vector<Md5Lanes::Job> jobs;
        for (size_t i = 0; i < 4; ++i) {
            jobs.push_back({&streams[i], std::span(data).first(lengths[i])});
        }
        lanes.hashRound(jobs);
    };
    round({645, 645, 645, 645});
    EXPECT_EQ(lanes.occupancy().blocks, 40u);
    EXPECT_EQ(lanes.occupancy().laneSlots, 40u);
    EXPECT_EQ(lanes.occupancy().kernelRuns, 1u);
    // The 5 carried bytes of each stream make a block with the next 59, hashed together; then
    // the first stream runs 9 more blocks alone in the 4-wide kernel.
    round({59 + 9 * 64, 59, 59, 59});
    EXPECT_EQ(lanes.occupancy().blocks, 40u + 4 + 9);
    EXPECT_EQ(lanes.occupancy().laneSlots, 40u + 4 + 4 * 9);
    EXPECT_EQ(lanes.occupancy().kernelRuns, 3u);
}

TEST(Md5Lanes, ChoosesAnAvailableKernelForEveryLoad) {
    EXPECT_EQ(Md5Lanes::kernelFor(1), Kernel::openssl);
    for (size_t streams = 2; streams <= 40; ++streams) {
        EXPECT_TRUE(Md5Lanes::isAvailable(Md5Lanes::kernelFor(streams))) << streams;
    }
    const std::vector<Kernel> kernels = Md5Lanes::availableKernels();
    EXPECT_EQ(Md5Lanes::kernelFor(16), kernels.back()) << "a full round takes the widest kernel";
}

}  // namespace
}  // namespace pellorin
