#include "client/RetryAfter.h"

#include <charconv>
#include <cmath>

namespace pellorin::client {

std::optional<double> parseRetryAfterSeconds(std::string_view text) {
    // from_chars reads numbers the same way in every locale. A leading '+' is accepted as a
    // number's sign; anything else that is not part of the number (spaces, units, a date) fails.
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
            return std::nullopt;
        }
    }
    double value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty() ||
        !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace pellorin::client
