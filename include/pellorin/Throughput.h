// Throughput: the units in which a transfer rate is shown, in bytes and in bits per second.
// Pure functions, any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include <pellorin/Export.h>

namespace pellorin {

enum class Throughput {
    GBytesSec,
    MBytesSec,
    KBytesSec,
    BytesSec,
    GBitsSec,
    MBitsSec,
    KBitsSec,
    BitsSec
};

// The byte units and the bit units, largest first.
inline constexpr std::array<Throughput, 4> kByteUOM = {Throughput::GBytesSec, Throughput::MBytesSec,
                                                       Throughput::KBytesSec, Throughput::BytesSec};
inline constexpr std::array<Throughput, 4> kBitUOM = {Throughput::GBitsSec, Throughput::MBitsSec,
                                                      Throughput::KBitsSec, Throughput::BitsSec};

// The unit text: "GB/sec", "MB/sec", "KB/sec", "Bytes/sec", "Gb/sec", "Mb/sec", "Kb/sec",
// "Bits/sec".
PELLORIN_EXPORT std::string description(Throughput unit);

// Bytes per unit: 1e9, 1e6, 1e3, 1 for bytes; 1.25e8, 1.25e5, 125, 0.125 for bits.
PELLORIN_EXPORT double divisor(Throughput unit);

// bytes / divisor / seconds; 0 when seconds is 0 and whenever the result is infinite, not a
// number, zero or subnormal.
PELLORIN_EXPORT double ratePerSecond(Throughput unit, uint64_t bytes, double seconds);

// "<rate> <unit> in <seconds> secs (<bytes> bytes)", rate and seconds with three decimals.
PELLORIN_EXPORT std::string toString(Throughput unit, uint64_t bytes, double seconds);

}  // namespace pellorin
