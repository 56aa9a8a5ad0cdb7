// Text encodings of bytes: lower-case hexadecimal, strict base64 and the UTF-8 check. Pure
// functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pellorin {

// Two lower-case hexadecimal digits per byte, no separators ("00ab" for 0x00 0xAB).
std::string hexString(std::span<const uint8_t> bytes);

// Standard-alphabet base64 with padding. Returns no value for text that is not exactly that:
// a character outside the alphabet (white space included), a length that is not a multiple of
// four, misplaced padding, or non-zero bits after the last encoded byte.
std::optional<std::vector<uint8_t>> base64DecodeStrict(std::string_view text);

// Standard-alphabet base64 with padding.
std::string base64Encode(std::span<const uint8_t> bytes);

// True when `a` and `b` are equal but for the case of ASCII letters (whatever the locale). The one
// case-insensitive comparison of the library: header names, checksums.
bool equalsIgnoringCase(std::string_view a, std::string_view b);

// True when `text` is well-formed UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF,
// no truncated sequence.
bool isValidUtf8(std::string_view text);
// `text` with every byte that starts no well-formed UTF-8 sequence replaced by U+FFFD, for
// showing text from elsewhere (a server's answer) that may not be UTF-8.
std::string withInvalidUtf8Replaced(std::string_view text);

}  // namespace pellorin
