// The MD5 compression kernels behind Md5Lanes, and the constants of the MD5 definition they
// share (RFC 1321). Internal to the lanes engine: each kernel advances a few independent
// streams over the same number of whole 64-byte blocks.
//
// Kernels are plain functions, callable from any thread on distinct lanes. The SIMD ones exist
// only in builds for x86-64 with PELLORIN_SIMD_KERNELS on, and may be called only when the CPU
// offers their instructions (md5CpuHasAvx2 / md5CpuHasAvx512).
#pragma once

#include <cstddef>
#include <cstdint>

namespace pellorin::md5detail {

// One stream as a kernel sees it: its four state words (updated in place) and where its next
// block starts (advanced past the blocks hashed). `data` may be unaligned.
struct Lane {
    uint32_t* state;
    const uint8_t* data;
};

// The state of a fresh MD5.
inline constexpr uint32_t kInitialState[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

// Per step i (0-63): the additive constant floor(2^32 * |sin(i + 1)|), the rotation, and which
// of the block's sixteen words is added.
inline constexpr uint32_t kAdd[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr int rotation(int step) {
    constexpr int kRotations[4][4] = {
        {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
    return kRotations[step / 16][step % 4];
}

constexpr int wordIndex(int step) {
    const int i = step % 16;
    switch (step / 16) {
        case 0:
            return i;
        case 1:
            return (5 * i + 1) % 16;
        case 2:
            return (3 * i + 5) % 16;
        default:
            return (7 * i) % 16;
    }
}

// The four state words rotate roles every step: step i updates word (4 - i % 4) % 4 as `a`,
// with b, c, d the next ones round the ring.
constexpr int roleA(int step) {
    return (4 - step % 4) % 4;
}
constexpr int roleB(int step) {
    return (roleA(step) + 1) % 4;
}
constexpr int roleC(int step) {
    return (roleA(step) + 2) % 4;
}
constexpr int roleD(int step) {
    return (roleA(step) + 3) % 4;
}

// One stream through OpenSSL's block function (its assembly where it has one).
void md5BlocksOpenSsl(Lane& lane, size_t blocks);
// 1-4 streams interleaved in ordinary registers; `count` lanes.
void md5BlocksScalar(Lane* lanes, size_t count, size_t blocks);

// Whether this build has the SIMD kernels and the CPU can run them.
bool md5CpuHasAvx2();
bool md5CpuHasAvx512();
// 1-8 streams in the 32-bit lanes of 256-bit registers.
void md5BlocksAvx2(Lane* lanes, size_t count, size_t blocks);
// 1-16 streams in the 32-bit lanes of 512-bit registers.
void md5BlocksAvx512(Lane* lanes, size_t count, size_t blocks);
// 1-8 and 1-4 streams with the same instructions in 256-bit and 128-bit registers.
void md5BlocksAvx512x8(Lane* lanes, size_t count, size_t blocks);
void md5BlocksAvx512x4(Lane* lanes, size_t count, size_t blocks);

}  // namespace pellorin::md5detail
