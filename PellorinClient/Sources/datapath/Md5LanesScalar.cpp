// The kernels in ordinary registers: one stream through OpenSSL's block function, and 2-4
// streams whose steps are interleaved so that the CPU overlaps their dependency chains. MD5 is
// serial within a stream (every step needs the previous one), which leaves most of a core's
// arithmetic units idle on one stream; independent streams fill them.
//
// OpenSSL's block function is reached through MD5_Update on a context whose buffer is empty:
// given whole blocks it hashes them all in place and buffers nothing. That interface is
// deprecated in OpenSSL 3 in favour of EVP, which has no way to set or read the state words,
// hence the suppression in this file.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/md5.h>

#include <bit>
#include <cstring>
#include <utility>

#include "datapath/Md5LanesKernels.h"

namespace pellorin::md5detail {

namespace {

// A little-endian 32-bit word at any alignment (one load on little-endian machines).
inline uint32_t loadWord(const uint8_t* at) {
    return uint32_t{at[0]} | uint32_t{at[1]} << 8 | uint32_t{at[2]} << 16 | uint32_t{at[3]} << 24;
}

template <int kRound>
inline uint32_t roundFunction(uint32_t b, uint32_t c, uint32_t d) {
    if constexpr (kRound == 0) {
        return d ^ (b & (c ^ d));  // b ? c : d
    } else if constexpr (kRound == 1) {
        return c ^ (d & (b ^ c));  // d ? b : c
    } else if constexpr (kRound == 2) {
        return b ^ c ^ d;
    } else {
        return c ^ (b | ~d);
    }
}

template <size_t N>
struct Interleaved {
    uint32_t word[4][N];
    const uint8_t* block[N];

    template <int kStep>
    inline void step() {
        for (size_t n = 0; n < N; ++n) {
            const uint32_t b = word[roleB(kStep)][n];
            uint32_t a =
                word[roleA(kStep)][n] +
                roundFunction<kStep / 16>(b, word[roleC(kStep)][n], word[roleD(kStep)][n]) +
                loadWord(block[n] + 4 * wordIndex(kStep)) + kAdd[kStep];
            word[roleA(kStep)][n] = b + std::rotl(a, rotation(kStep));
        }
    }

    template <int... kSteps>
    inline void steps(std::integer_sequence<int, kSteps...>) {
        (step<kSteps>(), ...);
    }
};

template <size_t N>
void interleavedBlocks(Lane* lanes, size_t blocks) {
    Interleaved<N> s;
    uint32_t saved[4][N];
    for (size_t n = 0; n < N; ++n) {
        for (int w = 0; w < 4; ++w) {
            s.word[w][n] = lanes[n].state[w];
        }
        s.block[n] = lanes[n].data;
    }
    for (size_t i = 0; i < blocks; ++i) {
        std::memcpy(saved, s.word, sizeof saved);
        s.steps(std::make_integer_sequence<int, 64>{});
        for (size_t n = 0; n < N; ++n) {
            for (int w = 0; w < 4; ++w) {
                s.word[w][n] += saved[w][n];
            }
            s.block[n] += 64;
        }
    }
    for (size_t n = 0; n < N; ++n) {
        for (int w = 0; w < 4; ++w) {
            lanes[n].state[w] = s.word[w][n];
        }
        lanes[n].data = s.block[n];
    }
}

}  // namespace

void md5BlocksOpenSsl(Lane& lane, size_t blocks) {
    MD5_CTX context{};
    context.A = lane.state[0];
    context.B = lane.state[1];
    context.C = lane.state[2];
    context.D = lane.state[3];
    MD5_Update(&context, lane.data, blocks * 64);
    lane.state[0] = context.A;
    lane.state[1] = context.B;
    lane.state[2] = context.C;
    lane.state[3] = context.D;
    lane.data += blocks * 64;
}

void md5BlocksScalar(Lane* lanes, size_t count, size_t blocks) {
    switch (count) {
        case 1:
            return interleavedBlocks<1>(lanes, blocks);
        case 2:
            return interleavedBlocks<2>(lanes, blocks);
        case 3:
            return interleavedBlocks<3>(lanes, blocks);
        default:
            return interleavedBlocks<4>(lanes, blocks);
    }
}

}  // namespace pellorin::md5detail
