// The fatal stop: for programming errors and impossible states only, never for bad input.
#pragma once

#include <source_location>
#include <string_view>

namespace pellorin {

// Writes "Fatal error: <message>" and the source location to standard error, then aborts.
// Any thread.
[[noreturn]] void fatalError(std::string_view message,
                             std::source_location location = std::source_location::current());

// Adds two unsigned counts, stopping the process on overflow.
template <typename T>
T checkedAdd(T a, T b, std::string_view what,
             std::source_location location = std::source_location::current()) {
    T result;
    if (__builtin_add_overflow(a, b, &result)) {
        fatalError(what, location);
    }
    return result;
}

// Subtracts b from a, stopping the process when the result would go below zero.
template <typename T>
T checkedSubtract(T a, T b, std::string_view what,
                  std::source_location location = std::source_location::current()) {
    T result;
    if (__builtin_sub_overflow(a, b, &result)) {
        fatalError(what, location);
    }
    return result;
}

}  // namespace pellorin
