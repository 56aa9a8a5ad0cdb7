#include "client/RetryAfter.h"

#include <locale.h>
#include <stdlib.h>

#include <cmath>
#include <string>

namespace pellorin::client {

namespace {

// The "C" locale, made once: strtod_l reads numbers with it whatever locale the host set.
locale_t cLocale() {
    static const locale_t locale = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return locale;
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

std::optional<double> parseRetryAfterSeconds(std::string_view text) {
    // strtod skips leading white space; the whole text must be the number, so refuse it here.
    if (text.empty() || isSpace(text.front()) || cLocale() == static_cast<locale_t>(nullptr)) {
        return std::nullopt;
    }
    const std::string copy(text);  // strtod needs a terminator; an embedded NUL ends it early
    char* end = nullptr;
    const double value = ::strtod_l(copy.c_str(), &end, cLocale());
    // Underflow gives 0 or a tiny value, which is a fine wait; overflow gives infinity, which
    // like "inf" and "nan" is no wait at all.
    if (end != copy.c_str() + copy.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace pellorin::client
