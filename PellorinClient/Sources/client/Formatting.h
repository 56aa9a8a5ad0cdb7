// Small text forms used in the client's log lines. Pure functions, any thread.
#pragma once

#include <charconv>
#include <cmath>
#include <optional>
#include <string>

namespace pellorin {

// The shortest text that reads back as the same double, with ".0" on whole numbers
// (120.0, 1.5, 0.001).
inline std::string doubleDescription(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (std::isfinite(value) && text.find_first_of(".e") == std::string::npos) {
        text += ".0";
    }
    return text;
}

// An optional number as "1.0", or "none" when absent.
inline std::string optionalDescription(const std::optional<double>& value) {
    return value ? doubleDescription(*value) : std::string("none");
}

}  // namespace pellorin
