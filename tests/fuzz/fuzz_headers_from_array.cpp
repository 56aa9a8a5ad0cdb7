// libFuzzer target for the conversion of a part's header array (as read from a reservation) into
// its header dictionary. The input is cut into elements at each 0 byte and into entries at each
// newline; an entry's first byte picks its key ("name", "value", or the entry's own text up to a
// '=') and the rest is the value. The conversion must keep exactly the elements that have both
// "name" and "value", the last one of a name winning, and a request made from the array must
// carry the same, present dictionary. Built and run by bench/fuzz; its corpus is replayed by
// CTest.
//
// clang-format off
// Library sources: PellorinClient/Sources/datapath/FilePartRequest.cpp PellorinClient/Platform/Url.cpp PellorinClient/Platform/PlatformError.cpp PellorinClient/Sources/client/PellorinError.cpp
// clang-format on
#include <pellorin/FilePartRequest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using pellorin::FilePartRequest;

FilePartRequest::HeadersArray decode(std::string_view input) {
    FilePartRequest::HeadersArray array;
    array.emplace_back();
    std::string_view rest = input;
    while (!rest.empty()) {
        const size_t end = rest.find_first_of(std::string_view("\0\n", 2));
        const std::string_view entry = rest.substr(0, end);
        if (!entry.empty()) {
            const std::string_view body = entry.substr(1);
            switch (static_cast<uint8_t>(entry[0]) % 3) {
                case 0:
                    array.back()["name"] = std::string(body);
                    break;
                case 1:
                    array.back()["value"] = std::string(body);
                    break;
                default: {
                    const size_t equals = body.find('=');
                    array.back()[std::string(body.substr(0, equals))] =
                        equals == std::string_view::npos ? ""
                                                         : std::string(body.substr(equals + 1));
                }
            }
        }
        if (end == std::string_view::npos)
            break;
        if (rest[end] == '\0')
            array.emplace_back();
        rest.remove_prefix(end + 1);
    }
    return array;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto array = decode(std::string_view(reinterpret_cast<const char*>(data), size));
    const FilePartRequest::Headers headers = FilePartRequest::headersFromArray(array);

    FilePartRequest::Headers expected;
    for (const auto& element : array) {
        const auto name = element.find("name");
        const auto value = element.find("value");
        if (name != element.end() && value != element.end())
            expected[name->second] = value->second;
    }
    if (headers != expected) {
        std::abort();
    }
    static const auto url = pellorin::Url::parse("http://127.0.0.1:1/upload/fuzz?offset=0");
    if (!url) {
        std::abort();
    }
    const auto request =
        FilePartRequest::makeWithHeadersArray("/dev/null", 1, 0, 0, *url, "PUT", array);
    if (!request->headers() || *request->headers() != headers) {
        std::abort();
    }
    if (!FilePartRequest::headersFromArray(std::nullopt).empty()) {
        std::abort();
    }
    return 0;
}
