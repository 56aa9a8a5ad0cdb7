// MD5 over many independent streams at once. MD5 is serial within one stream, but the parts of
// a transfer are independent, so one core can hash several of them together: interleaved in
// ordinary registers, or one stream per 32-bit lane of a SIMD register. The engine advances a
// round of streams, each by the bytes it is given, and keeps each stream's partial block for
// the next round; every stream's digest is exactly MD5 of the bytes it was fed.
//
// The savings need every lane to have data when a kernel runs, which is why the engine works in
// rounds: the caller gathers a chunk from each stream that has one and hands them over together.
//
// Threads: an Md5Stream and an Md5Lanes are used by one thread at a time (the one hashing the
// round); occupancy() may be read from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace pellorin {

class Md5Lanes;

// One stream's running MD5: the four state words, the bytes of a partial block, and the
// count of bytes fed. Plain value; copying it forks the digest.
class Md5Stream {
  public:
    Md5Stream();

    // Bytes fed so far.
    uint64_t length() const { return length_; }
    // Feeds bytes on the one-stream path (OpenSSL's block function).
    void update(std::span<const uint8_t> bytes);
    // The digest of everything fed so far; the stream stays usable and unchanged.
    std::array<uint8_t, 16> digest() const;
    // Back to the state of no bytes fed (a resent request starts its part's digest over).
    void reset() { *this = Md5Stream(); }

  private:
    friend class Md5Lanes;
    std::array<uint32_t, 4> state_;
    std::array<uint8_t, 64> tail_{};
    size_t tailLength_ = 0;
    uint64_t length_ = 0;
};

class Md5Lanes {
  public:
    // The kernels, by how many streams they hash at once: one stream through OpenSSL; 1-4
    // interleaved in ordinary registers; 8 in AVX2 lanes; 4, 8 or 16 in AVX-512 lanes of
    // 128-, 256- or 512-bit registers.
    enum class Kernel { openssl, scalar, avx2, avx512x4, avx512x8, avx512x16 };
    static constexpr std::array allKernels{Kernel::openssl,  Kernel::scalar,   Kernel::avx2,
                                           Kernel::avx512x4, Kernel::avx512x8, Kernel::avx512x16};
    static int width(Kernel kernel);
    static std::string_view name(Kernel kernel);
    // The kernels this build and this CPU can run (openssl and scalar always).
    static bool isAvailable(Kernel kernel);
    static std::vector<Kernel> availableKernels();
    // The kernel the engine runs when `streams` streams have whole blocks left: the one that
    // hashes the most bytes per unit of time with that many lanes busy.
    static Kernel kernelFor(size_t streams);

    // A stream of the round and the bytes it advances by (possibly none). A stream appears at
    // most once per round.
    struct Job {
        Md5Stream* stream;
        std::span<const uint8_t> bytes;
    };

    // How full the lanes ran: `blocks` 64-byte blocks of stream data hashed in `laneSlots`
    // lane-blocks of kernel work (a kernel `width` wide running n blocks counts width x n), over
    // `kernelRuns` kernel calls. blocks / laneSlots is the occupancy.
    struct Occupancy {
        uint64_t blocks = 0;
        uint64_t laneSlots = 0;
        uint64_t kernelRuns = 0;
    };

    Md5Lanes() = default;
    Md5Lanes(const Md5Lanes&) = delete;
    Md5Lanes& operator=(const Md5Lanes&) = delete;

    // Runs every later round on `kernel` alone, in groups of its width (nullopt: choose per
    // kernel run). False, and nothing changes, when the kernel is not available here.
    bool forceKernel(std::optional<Kernel> kernel);

    // Advances every job's stream by its bytes: whole blocks go through the kernels with as
    // many streams side by side as have blocks left, partial blocks wait in their streams.
    // Streams whose bytes run out early leave the lanes to the others.
    void hashRound(std::span<const Job> jobs);

    Occupancy occupancy() const;

  private:
    std::optional<Kernel> forced_;
    std::atomic<uint64_t> blocks_{0};
    std::atomic<uint64_t> laneSlots_{0};
    std::atomic<uint64_t> kernelRuns_{0};
};

}  // namespace pellorin
