#include "receiver/HttpHead.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "Platform/Encoding.h"

namespace pellorin::receiver {

namespace {

std::string_view trim(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

bool isTokenChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, isTokenChar);
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::string_view reasonPhrase(int status) {
    switch (status) {
        case 100:
            return "Continue";
        case 200:
            return "OK";
        case 201:
            return "Created";
        case 204:
            return "No Content";
        case 400:
            return "Bad Request";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 408:
            return "Request Timeout";
        case 409:
            return "Conflict";
        case 411:
            return "Length Required";
        case 413:
            return "Content Too Large";
        case 429:
            return "Too Many Requests";
        case 431:
            return "Request Header Fields Too Large";
        case 500:
            return "Internal Server Error";
        case 502:
            return "Bad Gateway";
        case 503:
            return "Service Unavailable";
        case 504:
            return "Gateway Timeout";
        default:
            return "Status";
    }
}

}  // namespace

std::optional<std::string_view> RequestHead::header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (equalsIgnoringCase(key, name)) {
            return std::string_view(value);
        }
    }
    return std::nullopt;
}

bool RequestHead::hasToken(std::string_view name, std::string_view token) const {
    for (const auto& [key, value] : headers) {
        if (!equalsIgnoringCase(key, name)) {
            continue;
        }
        std::string_view rest = value;
        while (!rest.empty()) {
            const auto comma = rest.find(',');
            if (equalsIgnoringCase(trim(rest.substr(0, comma)), token)) {
                return true;
            }
            rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        }
    }
    return false;
}

std::string_view RequestHead::path() const {
    return std::string_view(target).substr(0, target.find('?'));
}

std::string_view RequestHead::query() const {
    const auto mark = target.find('?');
    return mark == std::string::npos ? std::string_view()
                                     : std::string_view(target).substr(mark + 1);
}

std::optional<RequestHead> parseRequestHead(std::string_view text) {
    RequestHead head;
    const auto lineEnd = text.find("\r\n");
    const std::string_view requestLine = text.substr(0, lineEnd);
    const auto firstSpace = requestLine.find(' ');
    const auto lastSpace = requestLine.rfind(' ');
    if (firstSpace == std::string_view::npos || lastSpace == firstSpace) {
        return std::nullopt;
    }
    head.method = requestLine.substr(0, firstSpace);
    head.target = requestLine.substr(firstSpace + 1, lastSpace - firstSpace - 1);
    head.version = requestLine.substr(lastSpace + 1);
    if (!isToken(head.method) || head.target.empty() || head.target.front() != '/' ||
        head.target.find(' ') != std::string::npos ||
        (head.version != "HTTP/1.1" && head.version != "HTTP/1.0")) {
        return std::nullopt;
    }
    std::string_view rest =
        lineEnd == std::string_view::npos ? std::string_view() : text.substr(lineEnd + 2);
    while (!rest.empty()) {
        const auto end = rest.find("\r\n");
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 2);
        const auto colon = line.find(':');
        if (colon == std::string_view::npos || !isToken(line.substr(0, colon))) {
            return std::nullopt;
        }
        head.headers.emplace_back(line.substr(0, colon), trim(line.substr(colon + 1)));
    }
    return head;
}

std::optional<uint64_t> parseDecimal(std::string_view text) {
    uint64_t value = 0;
    const auto* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::string> queryParameter(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        const auto amp = query.find('&');
        const std::string_view pair = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
        const auto equals = pair.find('=');
        if (pair.substr(0, equals) == name) {
            return percentDecode(equals == std::string_view::npos ? std::string_view()
                                                                  : pair.substr(equals + 1));
        }
    }
    return std::nullopt;
}

std::optional<std::string> percentDecode(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) {
            return std::nullopt;
        }
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        decoded.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return decoded;
}

std::string responseHead(int status,
                         const std::vector<std::pair<std::string, std::string>>& headers) {
    std::string head = "HTTP/1.1 " + std::to_string(status) + " ";
    head += reasonPhrase(status);
    head += "\r\n";
    for (const auto& [name, value] : headers) {
        head += name;
        head += ": ";
        head += value;
        head += "\r\n";
    }
    head += "\r\n";
    return head;
}

}  // namespace pellorin::receiver
