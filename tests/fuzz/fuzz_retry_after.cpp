// libFuzzer target for the "Retry-After" parser. Any text must parse or be refused without a
// fault. The parser is held against a grammar of plain decimal numbers and strtod in the C
// locale: what it accepts is such a number with strtod's value, and it accepts every such
// number that strtod reads without range error. Built and run by bench/fuzz; its corpus is
// replayed by CTest.
//
// Library sources: PellorinClient/Sources/client/RetryAfter.cpp
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "client/RetryAfter.h"

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// [+|-] (digits [. digits*] | . digits) [(e|E) [+|-] digits]
bool isPlainDecimal(std::string_view text) {
    size_t i = 0;
    const auto digits = [&] {
        const size_t start = i;
        while (i < text.size() && isDigit(text[i]))
            ++i;
        return i - start;
    };
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        ++i;
    size_t mantissa = digits();
    if (i < text.size() && text[i] == '.') {
        ++i;
        mantissa += digits();
    }
    if (mantissa == 0)
        return false;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-'))
            ++i;
        if (digits() == 0)
            return false;
    }
    return i == text.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto parsed = pellorin::client::parseRetryAfterSeconds(text);
    if (!isPlainDecimal(text)) {
        if (parsed) {
            std::abort();  // accepted something that is not a number of seconds
        }
        return 0;
    }
    const std::string copy(text);  // strtod needs a terminator
    errno = 0;
    const double reference = std::strtod(copy.c_str(), nullptr);
    const bool inRange = errno != ERANGE && std::isfinite(reference);
    if (parsed && (!std::isfinite(*parsed) || (inRange && *parsed != reference))) {
        std::abort();
    }
    if (!parsed && inRange) {
        std::abort();  // refused a plain number that strtod reads
    }
    return 0;
}
