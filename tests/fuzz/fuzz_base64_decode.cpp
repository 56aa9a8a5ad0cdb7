// libFuzzer target for the strict base64 decoder that reads the server's "Content-MD5". Any input
// must decode or be refused without a fault; what decodes must be exactly what the encoder writes
// for the decoded bytes (one text per value), and the input taken as bytes must survive an
// encode and a decode. Built and run by bench/fuzz; its corpus is replayed by CTest.
//
// Library sources: PellorinClient/Platform/Encoding.cpp
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

#include "Platform/Encoding.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto decoded = pellorin::base64DecodeStrict(text)) {
        if (decoded->size() != size / 4 * 3 - (size > 0 && text[size - 1] == '=') -
                                   (size > 1 && text[size - 2] == '=')) {
            std::abort();
        }
        if (pellorin::base64Encode(*decoded) != text) {
            std::abort();
        }
    }
    const std::span<const uint8_t> bytes(data, size);
    const auto again = pellorin::base64DecodeStrict(pellorin::base64Encode(bytes));
    if (!again || !std::equal(again->begin(), again->end(), bytes.begin(), bytes.end())) {
        std::abort();
    }
    return 0;
}
