#include "Units.h"

#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <utility>

namespace pellorin::host {

namespace {

std::string lowerCase(std::string_view text) {
    std::string lower(text);
    for (auto& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return lower;
}

// Bytes per unit, case-insensitive: k, M, G, T are decimal (1000), Ki, Mi, Gi, Ti binary (1024);
// a trailing "B" changes nothing, "bit" divides by 8.
std::optional<double> unitFactor(std::string_view unit) {
    std::string lower = lowerCase(unit);
    double factor = 1.0;
    if (lower.size() >= 3 && lower.compare(lower.size() - 3, 3, "bit") == 0) {
        factor = 1.0 / 8;
        lower.resize(lower.size() - 3);
    } else if (!lower.empty() && lower.back() == 'b') {
        lower.pop_back();
    }
    static const std::array<std::pair<std::string_view, double>, 9> kPrefixes = {{
        {"", 1.0},
        {"k", 1e3},
        {"ki", 0x1p10},
        {"m", 1e6},
        {"mi", 0x1p20},
        {"g", 1e9},
        {"gi", 0x1p30},
        {"t", 1e12},
        {"ti", 0x1p40},
    }};
    for (const auto& [name, scale] : kPrefixes) {
        if (lower == name) {
            return factor * scale;
        }
    }
    return std::nullopt;
}

}  // namespace

std::optional<uint64_t> parseByteRate(std::string_view text) {
    for (const std::string_view suffix : {"/s", "ps"}) {
        if (text.size() > suffix.size() &&
            lowerCase(text.substr(text.size() - suffix.size())) == suffix) {
            text.remove_suffix(suffix.size());
            break;
        }
    }
    return parseByteSize(text);
}

std::optional<uint64_t> parseByteSize(std::string_view text) {
    size_t i = 0;
    uint64_t whole = 0;
    bool digits = false;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
        const auto digit = static_cast<uint64_t>(text[i] - '0');
        if (whole > (UINT64_MAX - digit) / 10) {
            return std::nullopt;
        }
        whole = whole * 10 + digit;
        digits = true;
        ++i;
    }
    double fraction = 0.0;
    if (i < text.size() && text[i] == '.') {
        double scale = 0.1;
        for (++i; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
            fraction += scale * (text[i] - '0');
            scale /= 10;
            digits = true;
        }
    }
    if (!digits) {
        return std::nullopt;
    }
    while (i < text.size() && text[i] == ' ') {
        ++i;
    }
    const auto factor = unitFactor(text.substr(i));
    if (!factor) {
        return std::nullopt;
    }
    if (*factor == 1.0 && fraction == 0.0) {
        return whole;  // exact, whatever its size
    }
    const double value = (static_cast<double>(whole) + fraction) * *factor;
    if (!(value < 0x1p64)) {
        return std::nullopt;
    }
    return static_cast<uint64_t>(value);  // whole bytes, rounded down
}

std::string formatBytes(uint64_t bytes) {
    static constexpr std::array<const char*, 5> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < kUnits.size()) {
        value /= 1024;
        ++unit;
    }
    // Three significant figures; a value that rounds up to 1024 stays in this unit (1024 KiB is
    // rarer than the jump it would avoid).
    const int decimals = value < 10 ? 2 : value < 100 ? 1 : 0;
    char text[32];
    std::snprintf(text, sizeof text, "%.*f %s", decimals, value, kUnits[unit]);
    return text;
}

std::string formatRate(double bytesPerSecond) {
    if (!std::isfinite(bytesPerSecond) || bytesPerSecond < 0) {
        bytesPerSecond = 0;
    }
    return formatBytes(static_cast<uint64_t>(bytesPerSecond)) + "/s";
}

std::string formatDuration(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0 || seconds >= 100 * 3600) {
        return "--:--";
    }
    const auto total = static_cast<uint64_t>(std::llround(seconds));
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%u:%02u:%02u", static_cast<unsigned>(total / 3600),
                      static_cast<unsigned>(total / 60 % 60), static_cast<unsigned>(total % 60));
    } else {
        std::snprintf(text, sizeof text, "%u:%02u", static_cast<unsigned>(total / 60),
                      static_cast<unsigned>(total % 60));
    }
    return text;
}

std::string countOf(uint64_t count, const std::string& noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace pellorin::host
