// Byte sizes, rates and durations as people type and read them. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pellorin::host {

// "8MiB", "256 MiB", "1.5GiB", "500k", "100KB", "80Mbit", "4096" (bytes): a decimal number and
// an optional unit, case-insensitive: k, M, G, T are decimal (1000), Ki, Mi, Gi, Ti binary (1024),
// a trailing B is optional and "bit" counts bits (divided by 8). Rounded down to whole bytes. No
// value for anything else, for a negative number and for a result that does not fit 64 bits.
std::optional<uint64_t> parseByteSize(std::string_view text);
// A rate in bytes per second: a size as above, optionally followed by "/s" or "ps" ("1.5MB/s",
// "80Mbit", "80Mbitps").
std::optional<uint64_t> parseByteRate(std::string_view text);

// "512 B", "1.5 KiB", "12.3 MiB", "2.00 GiB": three significant figures in the largest binary
// unit that keeps the number at or above 1.
std::string formatBytes(uint64_t bytes);
// formatBytes per second: "35.2 MiB/s".
std::string formatRate(double bytesPerSecond);
// "0:07", "12:34", "1:02:03"; "--:--" for a negative or non-finite duration or one of 100 hours
// or more.
std::string formatDuration(double seconds);

// "1 part", "3 parts": a count and a noun that takes an "s" in the plural.
std::string countOf(uint64_t count, const std::string& noun);

}  // namespace pellorin::host
