// Sizes of the long-running client tests, which a run may change through the environment (the
// soak benchmark makes them larger). Any thread.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace pellorin::testing {

// The decimal number in the environment variable `name`, or `fallback` when it is unset or empty.
inline uint64_t sizeFromEnvironment(const char* name, uint64_t fallback) {
    const char* text = std::getenv(name);
    return text && *text ? std::strtoull(text, nullptr, 10) : fallback;
}

}  // namespace pellorin::testing
