#include "Platform/HttpMessage.h"

#include <algorithm>

namespace pellorin {

namespace {

char asciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
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

}  // namespace pellorin
