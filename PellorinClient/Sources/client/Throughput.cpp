#include <pellorin/Throughput.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace pellorin {

std::string description(Throughput unit) {
    switch (unit) {
        case Throughput::GBytesSec:
            return "GB/sec";
        case Throughput::MBytesSec:
            return "MB/sec";
        case Throughput::KBytesSec:
            return "KB/sec";
        case Throughput::BytesSec:
            return "Bytes/sec";
        case Throughput::GBitsSec:
            return "Gb/sec";
        case Throughput::MBitsSec:
            return "Mb/sec";
        case Throughput::KBitsSec:
            return "Kb/sec";
        case Throughput::BitsSec:
            return "Bits/sec";
    }
    return "Bytes/sec";
}

double divisor(Throughput unit) {
    switch (unit) {
        case Throughput::GBytesSec:
            return 1'000'000'000.0;
        case Throughput::MBytesSec:
            return 1'000'000.0;
        case Throughput::KBytesSec:
            return 1'000.0;
        case Throughput::BytesSec:
            return 1.0;
        case Throughput::GBitsSec:
            return 125'000'000.0;
        case Throughput::MBitsSec:
            return 125'000.0;
        case Throughput::KBitsSec:
            return 125.0;
        case Throughput::BitsSec:
            return 0.125;
    }
    return 1.0;
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
