// Sixteen streams in the 32-bit lanes of 512-bit registers. One 64-byte block of a stream is
// exactly one register, so a block of sixteen streams is sixteen loads and a 16x16 transpose of
// 32-bit words in registers (four stages of shuffles) into the sixteen message-word vectors.
// Each round function is one three-input logic instruction and each rotation one instruction.
//
// Only this function-level target uses AVX-512, so the library still runs on any x86-64;
// callers check md5CpuHasAvx512 first.
#include "Platform/Fatal.h"
#include "datapath/Md5LanesKernels.h"

#if defined(__x86_64__) && !defined(PELLORIN_NO_SIMD_KERNELS)

// g++ 12 reports the deliberately undefined pass-through operand inside the AVX-512
// intrinsics' own definitions as "may be used uninitialised" (a false positive).
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>

#include <utility>

#define PELLORIN_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl")))

namespace pellorin::md5detail {

namespace {

constexpr size_t kWidth = 16;
// What idle lanes hash (their results are dropped).
alignas(64) const uint8_t kIdleBlock[64] = {};

// The truth tables of the round functions over (b, c, d) = (0xf0, 0xcc, 0xaa).
constexpr int kRoundTable[4] = {
    0xca,  // b ? c : d
    0xe4,  // d ? b : c
    0x96,  // b ^ c ^ d
    0x39,  // c ^ (b | ~d)
};

template <int kStep>
PELLORIN_AVX512 inline void step(__m512i (&v)[4], const __m512i (&x)[16]) {
    // Immediates: named constants, so that unoptimised builds see them as such too.
    constexpr int kTable = kRoundTable[kStep / 16];
    constexpr int kRotation = rotation(kStep);
    // The sum without the round function does not wait for the previous step, so the chain
    // from one step to the next is the logic instruction, one add, the rotation and the add.
    const __m512i early = _mm512_add_epi32(
        v[roleA(kStep)],
        _mm512_add_epi32(x[wordIndex(kStep)], _mm512_set1_epi32(static_cast<int>(kAdd[kStep]))));
    const __m512i b = v[roleB(kStep)];
    const __m512i f = _mm512_ternarylogic_epi32(b, v[roleC(kStep)], v[roleD(kStep)], kTable);
    v[roleA(kStep)] = _mm512_add_epi32(b, _mm512_rol_epi32(_mm512_add_epi32(early, f), kRotation));
}

template <int... kSteps>
PELLORIN_AVX512 inline void steps(__m512i (&v)[4], const __m512i (&x)[16],
                                  std::integer_sequence<int, kSteps...>) {
    (step<kSteps>(v, x), ...);
}

// Rows: the block of each lane; out: word k of every lane in out[k].
PELLORIN_AVX512 inline void transpose(const uint8_t* const (&block)[kWidth], __m512i (&out)[16]) {
    // Within each group of four rows, interleave words and then pairs: u[g][m] holds, in its
    // 128-bit chunk j, word 4j + m of rows 4g..4g+3.
    __m512i u[4][4];
    for (int g = 0; g < 4; ++g) {
        const __m512i r0 = _mm512_loadu_si512(block[4 * g]);
        const __m512i r1 = _mm512_loadu_si512(block[4 * g + 1]);
        const __m512i r2 = _mm512_loadu_si512(block[4 * g + 2]);
        const __m512i r3 = _mm512_loadu_si512(block[4 * g + 3]);
        const __m512i abLo = _mm512_unpacklo_epi32(r0, r1);
        const __m512i abHi = _mm512_unpackhi_epi32(r0, r1);
        const __m512i cdLo = _mm512_unpacklo_epi32(r2, r3);
        const __m512i cdHi = _mm512_unpackhi_epi32(r2, r3);
        u[g][0] = _mm512_unpacklo_epi64(abLo, cdLo);
        u[g][1] = _mm512_unpackhi_epi64(abLo, cdLo);
        u[g][2] = _mm512_unpacklo_epi64(abHi, cdHi);
        u[g][3] = _mm512_unpackhi_epi64(abHi, cdHi);
    }
    // Then a 4x4 transpose of 128-bit chunks across the groups: chunk g of out[4j + m] is
    // chunk j of u[g][m].
    for (int m = 0; m < 4; ++m) {
        const __m512i s0 = _mm512_shuffle_i32x4(u[0][m], u[1][m], 0x44);
        const __m512i s1 = _mm512_shuffle_i32x4(u[0][m], u[1][m], 0xee);
        const __m512i s2 = _mm512_shuffle_i32x4(u[2][m], u[3][m], 0x44);
        const __m512i s3 = _mm512_shuffle_i32x4(u[2][m], u[3][m], 0xee);
        out[m] = _mm512_shuffle_i32x4(s0, s2, 0x88);
        out[4 + m] = _mm512_shuffle_i32x4(s0, s2, 0xdd);
        out[8 + m] = _mm512_shuffle_i32x4(s1, s3, 0x88);
        out[12 + m] = _mm512_shuffle_i32x4(s1, s3, 0xdd);
    }
}

}  // namespace

bool md5CpuHasAvx512() {
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vl");
}

PELLORIN_AVX512 void md5BlocksAvx512(Lane* lanes, size_t count, size_t blocks) {
    const uint8_t* block[kWidth];
    size_t stride[kWidth];
    alignas(64) uint32_t state[4][kWidth] = {};
    for (size_t i = 0; i < kWidth; ++i) {
        const bool active = i < count;
        block[i] = active ? lanes[i].data : kIdleBlock;
        stride[i] = active ? 64 : 0;
        for (int w = 0; w < 4 && active; ++w) {
            state[w][i] = lanes[i].state[w];
        }
    }
    __m512i v[4];
    for (int w = 0; w < 4; ++w) {
        v[w] = _mm512_load_si512(state[w]);
    }
    for (size_t n = 0; n < blocks; ++n) {
        __m512i x[16];
        transpose(block, x);
        const __m512i saved[4] = {v[0], v[1], v[2], v[3]};
        steps(v, x, std::make_integer_sequence<int, 64>{});
        for (int w = 0; w < 4; ++w) {
            v[w] = _mm512_add_epi32(v[w], saved[w]);
        }
        for (size_t i = 0; i < kWidth; ++i) {
            block[i] += stride[i];
        }
    }
    for (int w = 0; w < 4; ++w) {
        _mm512_store_si512(state[w], v[w]);
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

bool md5CpuHasAvx512() {
    return false;
}

void md5BlocksAvx512(Lane* /*lanes*/, size_t /*count*/, size_t /*blocks*/) {
    fatalError("md5BlocksAvx512: this build has no AVX-512 kernel");
}

}  // namespace pellorin::md5detail

#endif
