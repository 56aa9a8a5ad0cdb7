// Streams in the 32-bit lanes of AVX-512 registers: sixteen in 512-bit ones, eight in 256-bit
// and four in 128-bit ones (AVX-512VL). Each round function is one three-input logic
// instruction and each rotation one instruction at every width, so the narrow kernels are not
// AVX2's: where the CPU runs a 512-bit instruction as two 256-bit halves, eight streams in
// 256-bit registers go at nearly the rate of sixteen in 512-bit ones. Each lane reads its
// stream in place, transposed into the sixteen message-word vectors in registers.
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

#include <cstring>
#include <utility>

#define PELLORIN_AVX512 __attribute__((target("avx512f,avx512bw,avx512vl")))

namespace pellorin::md5detail {

namespace {

// What idle lanes hash (their results are dropped).
alignas(64) const uint8_t kIdleBlock[64] = {};

// The truth tables of the round functions over (b, c, d) = (0xf0, 0xcc, 0xaa).
constexpr int kRoundTable[4] = {
    0xca,  // b ? c : d
    0xe4,  // d ? b : c
    0x96,  // b ^ c ^ d
    0x39,  // c ^ (b | ~d)
};

// The same few operations at each register width, so that one step and one kernel body serve
// all three. (Immediates are template arguments, so unoptimised builds see constants too.)
PELLORIN_AVX512 inline __m128i add(__m128i a, __m128i b) {
    return _mm_add_epi32(a, b);
}
PELLORIN_AVX512 inline __m256i add(__m256i a, __m256i b) {
    return _mm256_add_epi32(a, b);
}
PELLORIN_AVX512 inline __m512i add(__m512i a, __m512i b) {
    return _mm512_add_epi32(a, b);
}

template <class V>
PELLORIN_AVX512 inline V broadcast(uint32_t value) {
    const int word = static_cast<int>(value);
    if constexpr (sizeof(V) == 16) {
        return _mm_set1_epi32(word);
    } else if constexpr (sizeof(V) == 32) {
        return _mm256_set1_epi32(word);
    } else {
        return _mm512_set1_epi32(word);
    }
}

template <int kTable, class V>
PELLORIN_AVX512 inline V logic(V b, V c, V d) {
    if constexpr (sizeof(V) == 16) {
        return _mm_ternarylogic_epi32(b, c, d, kTable);
    } else if constexpr (sizeof(V) == 32) {
        return _mm256_ternarylogic_epi32(b, c, d, kTable);
    } else {
        return _mm512_ternarylogic_epi32(b, c, d, kTable);
    }
}

template <int kRotation, class V>
PELLORIN_AVX512 inline V rotateLeft(V a) {
    if constexpr (sizeof(V) == 16) {
        return _mm_rol_epi32(a, kRotation);
    } else if constexpr (sizeof(V) == 32) {
        return _mm256_rol_epi32(a, kRotation);
    } else {
        return _mm512_rol_epi32(a, kRotation);
    }
}

template <int kStep, class V>
PELLORIN_AVX512 inline void step(V (&v)[4], const V (&x)[16]) {
    // The sum without the round function does not wait for the previous step, so the chain
    // from one step to the next is the logic instruction, one add, the rotation and the add.
    const V early = add(v[roleA(kStep)], add(x[wordIndex(kStep)], broadcast<V>(kAdd[kStep])));
    const V b = v[roleB(kStep)];
    const V f = logic<kRoundTable[kStep / 16]>(b, v[roleC(kStep)], v[roleD(kStep)]);
    v[roleA(kStep)] = add(b, rotateLeft<rotation(kStep)>(add(early, f)));
}

template <class V, int... kSteps>
PELLORIN_AVX512 inline void steps(V (&v)[4], const V (&x)[16],
                                  std::integer_sequence<int, kSteps...>) {
    (step<kSteps>(v, x), ...);
}

// The transposes: rows are the lanes' blocks; out[k] gets word k of every lane.

// An unaligned load of one register's width.
template <class V>
PELLORIN_AVX512 inline V load(const uint8_t* at) {
    V value;
    std::memcpy(&value, at, sizeof(V));
    return value;
}

// Interleaves within each 128-bit chunk, at every width: the low (kHigh false) or high halves of
// the chunks' 32-bit (k64 false) or 64-bit elements of `a` and `b`.
template <bool kHigh, bool k64, class V>
PELLORIN_AVX512 inline V unpack(V a, V b) {
    if constexpr (sizeof(V) == 16) {
        return k64 ? (kHigh ? _mm_unpackhi_epi64(a, b) : _mm_unpacklo_epi64(a, b))
                   : (kHigh ? _mm_unpackhi_epi32(a, b) : _mm_unpacklo_epi32(a, b));
    } else if constexpr (sizeof(V) == 32) {
        return k64 ? (kHigh ? _mm256_unpackhi_epi64(a, b) : _mm256_unpacklo_epi64(a, b))
                   : (kHigh ? _mm256_unpackhi_epi32(a, b) : _mm256_unpacklo_epi32(a, b));
    } else {
        return k64 ? (kHigh ? _mm512_unpackhi_epi64(a, b) : _mm512_unpacklo_epi64(a, b))
                   : (kHigh ? _mm512_unpackhi_epi32(a, b) : _mm512_unpacklo_epi32(a, b));
    }
}

// Four rows into out[0..3]: in each 128-bit chunk j, out[m] holds word 4j + m of the four rows
// (a 4x4 transpose per chunk, which is all of it at 128 bits).
template <class V>
PELLORIN_AVX512 inline void transpose4(V r0, V r1, V r2, V r3, V* out) {
    const V abLo = unpack<false, false>(r0, r1);
    const V abHi = unpack<true, false>(r0, r1);
    const V cdLo = unpack<false, false>(r2, r3);
    const V cdHi = unpack<true, false>(r2, r3);
    out[0] = unpack<false, true>(abLo, cdLo);
    out[1] = unpack<true, true>(abLo, cdLo);
    out[2] = unpack<false, true>(abHi, cdHi);
    out[3] = unpack<true, true>(abHi, cdHi);
}

// Sixteen lanes: one block is one register, so sixteen loads, the four-row transpose within
// each group of four rows, then a 4x4 transpose of 128-bit chunks across the groups.
PELLORIN_AVX512 inline void transpose(const uint8_t* const (&block)[16], __m512i (&out)[16]) {
    // u[g][m] holds, in its 128-bit chunk j, word 4j + m of rows 4g..4g+3.
    __m512i u[4][4];
    for (int g = 0; g < 4; ++g) {
        const uint8_t* const* rows = block + 4 * g;
        transpose4(load<__m512i>(rows[0]), load<__m512i>(rows[1]), load<__m512i>(rows[2]),
                   load<__m512i>(rows[3]), u[g]);
    }
    // Chunk g of out[4j + m] is chunk j of u[g][m].
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

// Eight lanes: each block is two 32-byte rows; two groups of four rows interleaved as above,
// then 128-bit halves swapped across the groups.
PELLORIN_AVX512 inline void transpose(const uint8_t* const (&block)[8], __m256i (&out)[16]) {
    for (size_t offset = 0; offset < 64; offset += 32) {
        __m256i u[2][4];
        for (int g = 0; g < 2; ++g) {
            const uint8_t* const* rows = block + 4 * g;
            transpose4(load<__m256i>(rows[0] + offset), load<__m256i>(rows[1] + offset),
                       load<__m256i>(rows[2] + offset), load<__m256i>(rows[3] + offset), u[g]);
        }
        __m256i* half = out + offset / 4;
        for (int m = 0; m < 4; ++m) {
            half[m] = _mm256_permute2x128_si256(u[0][m], u[1][m], 0x20);
            half[4 + m] = _mm256_permute2x128_si256(u[0][m], u[1][m], 0x31);
        }
    }
}

// Four lanes: each block is four 16-byte rows, each a plain 4x4 transpose.
PELLORIN_AVX512 inline void transpose(const uint8_t* const (&block)[4], __m128i (&out)[16]) {
    for (size_t offset = 0; offset < 64; offset += 16) {
        transpose4(load<__m128i>(block[0] + offset), load<__m128i>(block[1] + offset),
                   load<__m128i>(block[2] + offset), load<__m128i>(block[3] + offset),
                   out + offset / 4);
    }
}

// The kernel at one width: kWidth lanes in registers of type V.
template <class V>
PELLORIN_AVX512 void blocksAtWidth(Lane* lanes, size_t count, size_t blocks) {
    constexpr size_t kWidth = sizeof(V) / 4;
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
    V v[4];
    for (int w = 0; w < 4; ++w) {
        std::memcpy(&v[w], state[w], sizeof(V));
    }
    for (size_t n = 0; n < blocks; ++n) {
        V x[16];
        transpose(block, x);
        const V saved[4] = {v[0], v[1], v[2], v[3]};
        steps(v, x, std::make_integer_sequence<int, 64>{});
        for (int w = 0; w < 4; ++w) {
            v[w] = add(v[w], saved[w]);
        }
        for (size_t i = 0; i < kWidth; ++i) {
            block[i] += stride[i];
        }
    }
    for (int w = 0; w < 4; ++w) {
        std::memcpy(state[w], &v[w], sizeof(V));
    }
    for (size_t i = 0; i < count; ++i) {
        for (int w = 0; w < 4; ++w) {
            lanes[i].state[w] = state[w][i];
        }
        lanes[i].data = block[i];
    }
}

}  // namespace

bool md5CpuHasAvx512() {
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vl");
}

PELLORIN_AVX512 void md5BlocksAvx512(Lane* lanes, size_t count, size_t blocks) {
    blocksAtWidth<__m512i>(lanes, count, blocks);
}

PELLORIN_AVX512 void md5BlocksAvx512x8(Lane* lanes, size_t count, size_t blocks) {
    blocksAtWidth<__m256i>(lanes, count, blocks);
}

PELLORIN_AVX512 void md5BlocksAvx512x4(Lane* lanes, size_t count, size_t blocks) {
    blocksAtWidth<__m128i>(lanes, count, blocks);
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

void md5BlocksAvx512x8(Lane* /*lanes*/, size_t /*count*/, size_t /*blocks*/) {
    fatalError("md5BlocksAvx512x8: this build has no AVX-512 kernel");
}

void md5BlocksAvx512x4(Lane* /*lanes*/, size_t /*count*/, size_t /*blocks*/) {
    fatalError("md5BlocksAvx512x4: this build has no AVX-512 kernel");
}

}  // namespace pellorin::md5detail

#endif
