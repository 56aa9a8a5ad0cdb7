#include "Platform/HttpMessage.h"

#include <algorithm>

namespace pellorin {

namespace {

char asciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    const size_t last = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(first, last - first + 1));
}

bool isDecimal(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

bool headerNamesEqual(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return asciiLower(x) == asciiLower(y);
           });
}

std::optional<std::string> firstHeaderValue(const HttpHeaderFields& fields, std::string_view name) {
    for (const auto& [fieldName, value] : fields) {
        if (headerNamesEqual(fieldName, name)) {
            return value;
        }
    }
    return std::nullopt;
}

void HttpRequest::addValue(const std::string& value, const std::string& forHTTPHeaderField) {
    headerFields.emplace_back(forHTTPHeaderField, value);
}

std::optional<std::string> HttpRequest::valueForHTTPHeaderField(std::string_view name) const {
    return firstHeaderValue(headerFields, name);
}

std::optional<int64_t> requestBodyLength(const HttpRequest& request) {
    std::optional<int64_t> length;
    for (const auto& [name, value] : request.headerFields) {
        if (!headerNamesEqual(name, "Content-Length")) {
            continue;
        }
        const std::string digits = trimmed(value);
        if (!isDecimal(digits) || digits.size() > 18) {
            return std::nullopt;
        }
        const int64_t parsed = std::stoll(digits);
        if (length && *length != parsed) {
            return std::nullopt;  // two different lengths
        }
        length = parsed;
    }
    return length.value_or(-1);
}

}  // namespace pellorin
