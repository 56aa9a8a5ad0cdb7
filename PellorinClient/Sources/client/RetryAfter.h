// Reading the "Retry-After" header of an answer that asks for a retry. Pure; any thread.
#pragma once

#include <optional>
#include <string_view>

namespace pellorin::client {

// Parses a "Retry-After" value as a number of seconds in the C locale ("30", "1.5", "-5", "+2");
// no value when the whole text is not one finite decimal number (an HTTP-date, white space,
// units, "inf", "nan" and out-of-range values all give none).
std::optional<double> parseRetryAfterSeconds(std::string_view text);

}  // namespace pellorin::client
