// libFuzzer target for the "Retry-After" parser. Any text must parse or be refused without a
// fault. The parser is held against a grammar of plain decimal and hexadecimal numbers and strtod
// in the C locale: what it accepts is such a number with strtod's value, and it accepts every
// such number whose value strtod reads as finite (an underflow to 0 included). Built and run by
// bench/fuzz; its corpus is replayed by CTest.
//
// Library sources: PellorinClient/Sources/client/RetryAfter.cpp
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

bool isHexDigit(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// [+|-] (digits [. digits*] | . digits) [(e|E) [+|-] digits]
// [+|-] 0(x|X) (hexdigits [. hexdigits*] | . hexdigits) [(p|P) [+|-] digits]
bool isPlainNumber(std::string_view text) {
    size_t i = 0;
    const auto run = [&](bool (*member)(char)) {
        const size_t start = i;
        while (i < text.size() && member(text[i]))
            ++i;
        return i - start;
    };
    const auto sign = [&] {
        if (i < text.size() && (text[i] == '+' || text[i] == '-'))
            ++i;
    };
    sign();
    bool (*mantissaDigit)(char) = isDigit;
    char exponentMark = 'e';
    if (i + 1 < text.size() && text[i] == '0' && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
        i += 2;
        mantissaDigit = isHexDigit;
        exponentMark = 'p';
    }
    size_t mantissa = run(mantissaDigit);
    if (i < text.size() && text[i] == '.') {
        ++i;
        mantissa += run(mantissaDigit);
    }
    if (mantissa == 0)
        return false;
    if (i < text.size() && (text[i] | 0x20) == exponentMark) {
        ++i;
        sign();
        if (run(isDigit) == 0)
            return false;
    }
    return i == text.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto parsed = pellorin::client::parseRetryAfterSeconds(text);
    if (!isPlainNumber(text)) {
        if (parsed) {
            std::abort();  // accepted something that is not a number of seconds
        }
        return 0;
    }
    const std::string copy(text);  // strtod needs a terminator
    const double reference = std::strtod(copy.c_str(), nullptr);
    const bool finite = std::isfinite(reference);
    if (parsed && (!finite || *parsed != reference)) {
        std::abort();
    }
    if (!parsed && finite) {
        std::abort();  // refused a plain number that strtod reads
    }
    return 0;
}
