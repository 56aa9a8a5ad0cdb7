// Eight streams in the 32-bit lanes of 256-bit registers. Each lane reads its stream in place:
// a block's two 32-byte halves of eight streams are loaded as rows and transposed in registers
// into the sixteen message-word vectors, which costs far less than copying into lane buffers.
//
// Only this function-level target uses AVX2, so the library still runs on any x86-64; callers
// check md5CpuHasAvx2 first.
#include "Platform/Fatal.h"
#include "datapath/Md5LanesKernels.h"

#if defined(__x86_64__) && !defined(PELLORIN_NO_SIMD_KERNELS)

#include <immintrin.h>

#include <utility>

#define PELLORIN_AVX2 __attribute__((target("avx2")))

namespace pellorin::md5detail {

namespace {

constexpr size_t kWidth = 8;
// What idle lanes hash (their results are dropped).
alignas(64) const uint8_t kIdleBlock[64] = {};

template <int kRound>
PELLORIN_AVX2 inline __m256i roundFunction(__m256i b, __m256i c, __m256i d) {
    if constexpr (kRound == 0) {
        return _mm256_xor_si256(d, _mm256_and_si256(b, _mm256_xor_si256(c, d)));
    } else if constexpr (kRound == 1) {
        return _mm256_xor_si256(c, _mm256_and_si256(d, _mm256_xor_si256(b, c)));
    } else if constexpr (kRound == 2) {
        return _mm256_xor_si256(_mm256_xor_si256(b, c), d);
    } else {
        const __m256i notD = _mm256_xor_si256(d, _mm256_set1_epi32(-1));
        return _mm256_xor_si256(c, _mm256_or_si256(b, notD));
    }
}

template <int kStep>
PELLORIN_AVX2 inline void step(__m256i (&v)[4], const __m256i (&x)[16]) {
    // The sum without the round function does not wait for the previous step (see the
    // AVX-512 kernel).
    const __m256i early = _mm256_add_epi32(
        v[roleA(kStep)],
        _mm256_add_epi32(x[wordIndex(kStep)], _mm256_set1_epi32(static_cast<int>(kAdd[kStep]))));
    const __m256i b = v[roleB(kStep)];
    const __m256i a =
        _mm256_add_epi32(early, roundFunction<kStep / 16>(b, v[roleC(kStep)], v[roleD(kStep)]));
    const __m256i rotated = _mm256_or_si256(_mm256_slli_epi32(a, rotation(kStep)),
                                            _mm256_srli_epi32(a, 32 - rotation(kStep)));
    v[roleA(kStep)] = _mm256_add_epi32(b, rotated);
}

template <int... kSteps>
PELLORIN_AVX2 inline void steps(__m256i (&v)[4], const __m256i (&x)[16],
                                std::integer_sequence<int, kSteps...>) {
    (step<kSteps>(v, x), ...);
}

// Rows: eight words from each lane at `offset`; out: word k of every lane in out[k].
PELLORIN_AVX2 inline void transpose(const uint8_t* const (&block)[kWidth], size_t offset,
                                    __m256i* out) {
    __m256i u[2][4];
    for (int g = 0; g < 2; ++g) {
        const __m256i r0 =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block[4 * g] + offset));
        const __m256i r1 =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block[4 * g + 1] + offset));
        const __m256i r2 =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block[4 * g + 2] + offset));
        const __m256i r3 =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block[4 * g + 3] + offset));
        const __m256i abLo = _mm256_unpacklo_epi32(r0, r1);
        const __m256i abHi = _mm256_unpackhi_epi32(r0, r1);
        const __m256i cdLo = _mm256_unpacklo_epi32(r2, r3);
        const __m256i cdHi = _mm256_unpackhi_epi32(r2, r3);
        u[g][0] = _mm256_unpacklo_epi64(abLo, cdLo);
        u[g][1] = _mm256_unpackhi_epi64(abLo, cdLo);
        u[g][2] = _mm256_unpacklo_epi64(abHi, cdHi);
        u[g][3] = _mm256_unpackhi_epi64(abHi, cdHi);
    }
    for (int m = 0; m < 4; ++m) {
        out[m] = _mm256_permute2x128_si256(u[0][m], u[1][m], 0x20);
        out[4 + m] = _mm256_permute2x128_si256(u[0][m], u[1][m], 0x31);
    }
}

}  // namespace

bool md5CpuHasAvx2() {
    return __builtin_cpu_supports("avx2");
}

PELLORIN_AVX2 void md5BlocksAvx2(Lane* lanes, size_t count, size_t blocks) {
    const uint8_t* block[kWidth];
    size_t stride[kWidth];
    alignas(32) uint32_t state[4][kWidth] = {};
    for (size_t i = 0; i < kWidth; ++i) {
        const bool active = i < count;
        block[i] = active ? lanes[i].data : kIdleBlock;
        stride[i] = active ? 64 : 0;
        for (int w = 0; w < 4 && active; ++w) {
            state[w][i] = lanes[i].state[w];
        }
    }
    __m256i v[4];
    for (int w = 0; w < 4; ++w) {
        v[w] = _mm256_load_si256(reinterpret_cast<const __m256i*>(state[w]));
    }
    for (size_t n = 0; n < blocks; ++n) {
        __m256i x[16];
        transpose(block, 0, x);
        transpose(block, 32, x + 8);
        const __m256i saved[4] = {v[0], v[1], v[2], v[3]};
        steps(v, x, std::make_integer_sequence<int, 64>{});
        for (int w = 0; w < 4; ++w) {
            v[w] = _mm256_add_epi32(v[w], saved[w]);
        }
        for (size_t i = 0; i < kWidth; ++i) {
            block[i] += stride[i];
        }
    }
    for (int w = 0; w < 4; ++w) {
        _mm256_store_si256(reinterpret_cast<__m256i*>(state[w]), v[w]);
    }
    for (size_t i = 0; i < count; ++i) {
        for (int w = 0; w < 4; ++w) {
            lanes[i].state[w] = state[w][i];
        }
        lanes[i].data = block[i];
    }
}

}  // namespace pellorin::md5detail

#else

namespace pellorin::md5detail {

bool md5CpuHasAvx2() {
    return false;
}

void md5BlocksAvx2(Lane* /*lanes*/, size_t /*count*/, size_t /*blocks*/) {
    fatalError("md5BlocksAvx2: this build has no AVX2 kernel");
}

}  // namespace pellorin::md5detail

#endif
