#include <pellorin/Throughput.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "Platform/Fatal.h"

namespace pellorin {

namespace {

struct UnitInfo {
    const char* text;
    double bytesPerUnit;
};

// Indexed by the enumeration's value, in declaration order.
constexpr UnitInfo kUnits[] = {
    {"GB/sec", 1'000'000'000.0}, {"MB/sec", 1'000'000.0}, {"KB/sec", 1'000.0}, {"Bytes/sec", 1.0},
    {"Gb/sec", 125'000'000.0},   {"Mb/sec", 125'000.0},   {"Kb/sec", 125.0},   {"Bits/sec", 0.125},
};

const UnitInfo& info(Throughput unit) {
    const auto index = static_cast<size_t>(unit);
    if (index >= std::size(kUnits)) {
        fatalError("Throughput value out of range: " + std::to_string(index));
    }
    return kUnits[index];
}

}  // namespace

std::string description(Throughput unit) {
    return info(unit).text;
}

double divisor(Throughput unit) {
    return info(unit).bytesPerUnit;
}

double ratePerSecond(Throughput unit, uint64_t bytes, double seconds) {
    if (seconds == 0.0) {
        return 0.0;
    }
    const double rate = static_cast<double>(bytes) / divisor(unit) / seconds;
    // Only a normal number is a rate worth showing; inf, NaN, 0 and subnormals read as 0.
    return std::isnormal(rate) ? rate : 0.0;
}

std::string toString(Throughput unit, uint64_t bytes, double seconds) {
    const std::string unitText = description(unit);
    const double rate = ratePerSecond(unit, bytes, seconds);
    const int length = std::snprintf(nullptr, 0, "%.3f %s in %.3f secs (%" PRIu64 " bytes)", rate,
                                     unitText.c_str(), seconds, bytes);
    std::string text(static_cast<size_t>(length), '\0');
    std::snprintf(text.data(), text.size() + 1, "%.3f %s in %.3f secs (%" PRIu64 " bytes)", rate,
                  unitText.c_str(), seconds, bytes);
    return text;
}

}  // namespace pellorin
