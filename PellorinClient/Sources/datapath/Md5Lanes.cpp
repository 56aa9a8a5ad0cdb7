#include "datapath/Md5Lanes.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "Platform/Fatal.h"
#include "datapath/Md5LanesKernels.h"

namespace pellorin {

using md5detail::Lane;

namespace {

constexpr size_t kBlock = 64;
constexpr size_t kWidest = 16;

// What one kernel run costs per block, in units of OpenSSL hashing one block of one stream,
// measured on one core (bench_md5_lanes, AMD EPYC with AVX-512): the scalar kernel by how many
// streams it interleaves (index 1-4); a SIMD kernel costs the same however many of its lanes
// are busy (its full-width figure is used; runs with idle lanes are a little cheaper).
constexpr double kScalarRunCost[5] = {0.0, 1.15, 1.16, 1.43, 1.63};
constexpr double kAvx2RunCost = 1.66;      // 8 lanes: 4.8 x OpenSSL's rate when full
constexpr double kAvx512x4RunCost = 1.33;  // 4 lanes: 3.0 x OpenSSL's rate when full
constexpr double kAvx512x8RunCost = 1.35;  // 8 lanes: 5.9 x OpenSSL's rate when full
constexpr double kAvx512RunCost = 2.02;    // 16 lanes: 7.9 x OpenSSL's rate when full
// Beyond this many streams the choice is the same as for this many.
constexpr size_t kPlannedStreams = 64;

bool available(Md5Lanes::Kernel kernel) {
    static const bool avx2 = md5detail::md5CpuHasAvx2();
    static const bool avx512 = md5detail::md5CpuHasAvx512();
    switch (kernel) {
        case Md5Lanes::Kernel::openssl:
        case Md5Lanes::Kernel::scalar:
            return true;
        case Md5Lanes::Kernel::avx2:
            return avx2;
        case Md5Lanes::Kernel::avx512x4:
        case Md5Lanes::Kernel::avx512x8:
        case Md5Lanes::Kernel::avx512x16:
            return avx512;
    }
    return false;
}

void runKernel(Md5Lanes::Kernel kernel, Lane* lanes, size_t count, size_t blocks) {
    switch (kernel) {
        case Md5Lanes::Kernel::openssl:
            for (size_t i = 0; i < count; ++i) {
                md5detail::md5BlocksOpenSsl(lanes[i], blocks);
            }
            return;
        case Md5Lanes::Kernel::scalar:
            return md5detail::md5BlocksScalar(lanes, count, blocks);
        case Md5Lanes::Kernel::avx2:
            return md5detail::md5BlocksAvx2(lanes, count, blocks);
        case Md5Lanes::Kernel::avx512x4:
            return md5detail::md5BlocksAvx512x4(lanes, count, blocks);
        case Md5Lanes::Kernel::avx512x8:
            return md5detail::md5BlocksAvx512x8(lanes, count, blocks);
        case Md5Lanes::Kernel::avx512x16:
            return md5detail::md5BlocksAvx512(lanes, count, blocks);
    }
}

// A stream's whole blocks in a round: first its partial block when the round's bytes complete
// it (hashed from the stream's own buffer), then the round's whole blocks read in place.
struct LaneWork {
    Lane lane;
    size_t blocks;
    const uint8_t* nextData;
    size_t nextBlocks;
};

}  // namespace

Md5Stream::Md5Stream() {
    std::copy(std::begin(md5detail::kInitialState), std::end(md5detail::kInitialState),
              state_.begin());
}

void Md5Stream::update(std::span<const uint8_t> bytes) {
    length_ += bytes.size();
    if (tailLength_ > 0) {
        const size_t take = std::min(kBlock - tailLength_, bytes.size());
        if (take > 0) {
            std::memcpy(tail_.data() + tailLength_, bytes.data(), take);
        }
        tailLength_ += take;
        bytes = bytes.subspan(take);
        if (tailLength_ < kBlock) {
            return;
        }
        Lane lane{state_.data(), tail_.data()};
        md5detail::md5BlocksOpenSsl(lane, 1);
        tailLength_ = 0;
    }
    const size_t whole = bytes.size() / kBlock;
    if (whole > 0) {
        Lane lane{state_.data(), bytes.data()};
        md5detail::md5BlocksOpenSsl(lane, whole);
    }
    tailLength_ = bytes.size() - whole * kBlock;
    if (tailLength_ > 0) {
        std::memcpy(tail_.data(), bytes.data() + whole * kBlock, tailLength_);
    }
}

std::array<uint8_t, 16> Md5Stream::digest() const {
    // Padding: a one bit, zeros up to 8 bytes short of a block boundary, then the length in
    // bits as a little-endian 64-bit number.
    uint8_t last[2 * kBlock] = {};
    std::memcpy(last, tail_.data(), tailLength_);
    last[tailLength_] = 0x80;
    const size_t blocks = tailLength_ < kBlock - 8 ? 1 : 2;
    const uint64_t bits = length_ * 8;
    for (size_t i = 0; i < 8; ++i) {
        last[blocks * kBlock - 8 + i] = static_cast<uint8_t>(bits >> (8 * i));
    }
    std::array<uint32_t, 4> state = state_;
    Lane lane{state.data(), last};
    md5detail::md5BlocksOpenSsl(lane, blocks);
    std::array<uint8_t, 16> digest{};
    for (size_t i = 0; i < 16; ++i) {
        digest[i] = static_cast<uint8_t>(state[i / 4] >> (8 * (i % 4)));
    }
    return digest;
}

int Md5Lanes::width(Kernel kernel) {
    switch (kernel) {
        case Kernel::openssl:
            return 1;
        case Kernel::scalar:
            return 4;
        case Kernel::avx2:
            return 8;
        case Kernel::avx512x4:
            return 4;
        case Kernel::avx512x8:
            return 8;
        case Kernel::avx512x16:
            return 16;
    }
    return 1;
}

std::string_view Md5Lanes::name(Kernel kernel) {
    switch (kernel) {
        case Kernel::openssl:
            return "openssl";
        case Kernel::scalar:
            return "scalar";
        case Kernel::avx2:
            return "avx2";
        case Kernel::avx512x4:
            return "avx512x4";
        case Kernel::avx512x8:
            return "avx512x8";
        case Kernel::avx512x16:
            return "avx512x16";
    }
    return "unknown";
}

bool Md5Lanes::isAvailable(Kernel kernel) {
    return available(kernel);
}

std::vector<Md5Lanes::Kernel> Md5Lanes::availableKernels() {
    std::vector<Kernel> kernels;
    for (Kernel kernel : allKernels) {
        if (available(kernel)) {
            kernels.push_back(kernel);
        }
    }
    return kernels;
}

Md5Lanes::Kernel Md5Lanes::kernelFor(size_t streams) {
    // The cheapest way to take `k` streams one block further is a kernel run over up to its
    // width of them plus the cheapest way for the rest; the engine runs the first kernel of
    // that plan and plans again for what is left. (Filling a wide kernel beats a narrow one
    // full plus a stream left alone: 9 streams take the 16 lanes, not 8 lanes and then one.)
    struct Plan {
        std::array<double, kPlannedStreams + 1> cost{};
        std::array<Kernel, kPlannedStreams + 1> first{};
    };
    static const Plan plan = [] {
        Plan p;
        for (size_t k = 1; k <= kPlannedStreams; ++k) {
            p.cost[k] = 1.0 + p.cost[k - 1];
            p.first[k] = Kernel::openssl;
            const auto consider = [&](Kernel kernel, size_t width, double runCost) {
                const size_t taken = std::min(k, width);
                // Ties go to the wider kernel, so that the streams left alone are the last.
                if (available(kernel) && runCost + p.cost[k - taken] <= p.cost[k] + 1e-9) {
                    p.cost[k] = runCost + p.cost[k - taken];
                    p.first[k] = kernel;
                }
            };
            consider(Kernel::scalar, 4, kScalarRunCost[std::min<size_t>(k, 4)]);
            consider(Kernel::avx2, 8, kAvx2RunCost);
            consider(Kernel::avx512x4, 4, kAvx512x4RunCost);
            consider(Kernel::avx512x8, 8, kAvx512x8RunCost);
            consider(Kernel::avx512x16, 16, kAvx512RunCost);
        }
        return p;
    }();
    return plan.first[std::clamp<size_t>(streams, 1, kPlannedStreams)];
}

bool Md5Lanes::forceKernel(std::optional<Kernel> kernel) {
    if (kernel && !available(*kernel)) {
        return false;
    }
    forced_ = kernel;
    return true;
}

Md5Lanes::Occupancy Md5Lanes::occupancy() const {
    return {blocks_.load(std::memory_order_relaxed), laneSlots_.load(std::memory_order_relaxed),
            kernelRuns_.load(std::memory_order_relaxed)};
}

void Md5Lanes::hashRound(std::span<const Job> jobs) {
    for (size_t i = 0; i < jobs.size(); ++i) {
        for (size_t j = i + 1; j < jobs.size(); ++j) {
            if (jobs[i].stream == jobs[j].stream) {
                fatalError("Md5Lanes::hashRound: a stream appears twice in one round");
            }
        }
    }

    // Partial blocks first: bytes that complete a stream's pending block go into it; what is
    // left after the round's whole blocks is kept for the next round once they are hashed.
    std::vector<LaneWork> work;
    std::vector<std::span<const uint8_t>> remainders(jobs.size());
    work.reserve(jobs.size());
    for (size_t i = 0; i < jobs.size(); ++i) {
        Md5Stream& stream = *jobs[i].stream;
        std::span<const uint8_t> bytes = jobs[i].bytes;
        stream.length_ += bytes.size();
        bool tailFull = false;
        if (stream.tailLength_ > 0) {
            const size_t take = std::min(kBlock - stream.tailLength_, bytes.size());
            if (take > 0) {
                std::memcpy(stream.tail_.data() + stream.tailLength_, bytes.data(), take);
            }
            stream.tailLength_ += take;
            bytes = bytes.subspan(take);
            tailFull = stream.tailLength_ == kBlock;
        }
        const size_t whole = bytes.size() / kBlock;
        remainders[i] = bytes.subspan(whole * kBlock);
        LaneWork lane{{stream.state_.data(), bytes.data()}, whole, nullptr, 0};
        if (tailFull) {
            lane = {{stream.state_.data(), stream.tail_.data()}, 1, bytes.data(), whole};
        }
        if (lane.blocks > 0) {
            work.push_back(lane);
        }
    }

    // Each kernel run takes the first streams that still have blocks, as many as it is wide,
    // for as many blocks as the shortest of them has; streams that run out leave and the next
    // ones move up into their lanes.
    while (!work.empty()) {
        const Kernel kernel = forced_.value_or(kernelFor(work.size()));
        const size_t count = std::min<size_t>(static_cast<size_t>(width(kernel)), work.size());
        size_t blocks = work[0].blocks;
        Lane lanes[kWidest];
        for (size_t i = 0; i < count; ++i) {
            blocks = std::min(blocks, work[i].blocks);
            lanes[i] = work[i].lane;
        }
        runKernel(kernel, lanes, count, blocks);
        blocks_.fetch_add(count * blocks, std::memory_order_relaxed);
        laneSlots_.fetch_add(static_cast<uint64_t>(width(kernel)) * blocks,
                             std::memory_order_relaxed);
        kernelRuns_.fetch_add(1, std::memory_order_relaxed);
        for (size_t i = 0; i < count; ++i) {
            LaneWork& lane = work[i];
            lane.lane = lanes[i];
            lane.blocks -= blocks;
            if (lane.blocks == 0 && lane.nextBlocks > 0) {
                lane.lane.data = lane.nextData;
                lane.blocks = lane.nextBlocks;
                lane.nextBlocks = 0;
            }
        }
        std::erase_if(work, [](const LaneWork& lane) { return lane.blocks == 0; });
    }

    for (size_t i = 0; i < jobs.size(); ++i) {
        Md5Stream& stream = *jobs[i].stream;
        if (stream.tailLength_ == kBlock) {
            stream.tailLength_ = 0;
        }
        if (!remainders[i].empty()) {
            std::memcpy(stream.tail_.data() + stream.tailLength_, remainders[i].data(),
                        remainders[i].size());
            stream.tailLength_ += remainders[i].size();
        }
    }
}

}  // namespace pellorin
