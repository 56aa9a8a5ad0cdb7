#include "Platform/Encoding.h"

#include <algorithm>
#include <array>

namespace pellorin {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeDecodeTable() {
    std::array<int8_t, 256> table{};
    for (auto& entry : table) {
        entry = -1;
    }
    for (int i = 0; i < 64; ++i) {
        table[static_cast<uint8_t>(kBase64Alphabet[i])] = static_cast<int8_t>(i);
    }
    return table;
}

constexpr std::array<int8_t, 256> kDecodeTable = makeDecodeTable();

}  // namespace

std::string hexString(std::span<const uint8_t> bytes) {
    std::string text(bytes.size() * 2, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        text[2 * i] = kHexDigits[bytes[i] >> 4];
        text[2 * i + 1] = kHexDigits[bytes[i] & 0x0f];
    }
    return text;
}

std::optional<std::vector<uint8_t>> base64DecodeStrict(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const size_t padding = (text[i + 3] == '=') + (text[i + 2] == '=' && text[i + 3] == '=');
        if (padding > 0 && !last) {
            return std::nullopt;
        }
        uint32_t group = 0;
        for (size_t j = 0; j < 4 - padding; ++j) {
            const int8_t value = kDecodeTable[static_cast<uint8_t>(text[i + j])];
            if (value < 0) {
                return std::nullopt;
            }
            group = (group << 6) | static_cast<uint32_t>(value);
        }
        group <<= 6 * padding;
        // Bits below the last encoded byte must be zero, so that one text means one value.
        if ((padding == 1 && (group & 0xff) != 0) || (padding == 2 && (group & 0xffff) != 0)) {
            return std::nullopt;
        }
        out.push_back(static_cast<uint8_t>(group >> 16));
        if (padding < 2) {
            out.push_back(static_cast<uint8_t>(group >> 8));
        }
        if (padding < 1) {
            out.push_back(static_cast<uint8_t>(group));
        }
    }
    return out;
}

std::string base64Encode(std::span<const uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t n = std::min<size_t>(3, bytes.size() - i);
        uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
        if (n > 1)
            group |= static_cast<uint32_t>(bytes[i + 1]) << 8;
        if (n > 2)
            group |= bytes[i + 2];
        text.push_back(kBase64Alphabet[(group >> 18) & 63]);
        text.push_back(kBase64Alphabet[(group >> 12) & 63]);
        text.push_back(n > 1 ? kBase64Alphabet[(group >> 6) & 63] : '=');
        text.push_back(n > 2 ? kBase64Alphabet[group & 63] : '=');
    }
    return text;
}

namespace {

// The length of the well-formed UTF-8 sequence at bytes[i] (1-4), or 0 when there is none: the
// lead byte fixes the length and the range of the first continuation byte, which rules out
// overlong forms, surrogates and values past U+10FFFF.
size_t sequenceLength(const uint8_t* bytes, size_t size, size_t i) {
    const uint8_t lead = bytes[i];
    if (lead < 0x80) {
        return 1;
    }
    size_t length = 0;
    uint8_t low = 0x80;
    uint8_t high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (size - i < length || bytes[i + 1] < low || bytes[i + 1] > high) {
        return 0;
    }
    for (size_t k = 2; k < length; ++k) {
        if (bytes[i + k] < 0x80 || bytes[i + k] > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    for (size_t i = 0; i < text.size();) {
        const size_t length = sequenceLength(bytes, text.size(), i);
        if (length == 0) {
            return false;
        }
        i += length;
    }
    return true;
}

std::string withInvalidUtf8Replaced(std::string_view text) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const size_t length = sequenceLength(bytes, text.size(), i);
        if (length == 0) {
            out += "\xEF\xBF\xBD";  // U+FFFD REPLACEMENT CHARACTER
            ++i;
        } else {
            out.append(text.substr(i, length));
            i += length;
        }
    }
    return out;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    const auto lower = [](char c) {
        return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    };
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [&](char x, char y) { return lower(x) == lower(y); });
}

}  // namespace pellorin
