#include "Redaction.h"

#include <atomic>
#include <cstdio>

namespace pellorin::host {

namespace {

std::atomic<bool> gShowSecrets{false};

bool endsUrl(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '"' || c == '\'' || c == '<' ||
           c == '>' || c == '`';
}

bool isSchemeChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '-' || c == '.';
}

// One URL (no white space in it) with its secrets replaced.
std::string redactOne(std::string_view url) {
    const size_t authority = url.find("://") + 3;
    const size_t authorityEnd = url.find_first_of("/?#", authority);
    const std::string_view host =
        url.substr(authority, authorityEnd == std::string_view::npos ? std::string_view::npos
                                                                     : authorityEnd - authority);
    std::string out(url.substr(0, authority));
    const size_t at = host.rfind('@');
    out += at == std::string_view::npos ? std::string(host)
                                        : "***@" + std::string(host.substr(at + 1));
    if (authorityEnd == std::string_view::npos) {
        return out;
    }
    const std::string_view rest = url.substr(authorityEnd);
    const size_t query = rest.find('?');
    if (query == std::string_view::npos) {
        out += rest;
        return out;
    }
    out += rest.substr(0, query);
    out += "?***";
    const size_t fragment = rest.find('#', query);
    if (fragment != std::string_view::npos) {
        out += rest.substr(fragment);
    }
    return out;
}

}  // namespace

void setShowSecrets(bool show) {
    gShowSecrets = show;
}

bool showSecrets() {
    return gShowSecrets;
}

std::string redactUrls(std::string_view text) {
    return gShowSecrets ? std::string(text) : stripUrlSecrets(text);
}

std::string stripUrlSecrets(std::string_view text) {
    std::string out;
    size_t copied = 0;
    for (size_t marker = text.find("://"); marker != std::string_view::npos;
         marker = text.find("://", marker + 3)) {
        size_t start = marker;
        while (start > copied && isSchemeChar(text[start - 1])) {
            --start;
        }
        if (start == marker) {
            continue;  // no scheme before "://"
        }
        size_t end = marker + 3;
        while (end < text.size() && !endsUrl(text[end])) {
            ++end;
        }
        out += text.substr(copied, start - copied);
        out += redactOne(text.substr(start, end - start));
        copied = end;
        marker = end - 3 < marker ? marker : end - 3;
    }
    out += text.substr(copied);
    return out;
}

std::string forTerminal(std::string_view text) {
    const std::string redacted = redactUrls(text);
    std::string out;
    out.reserve(redacted.size());
    for (const char c : redacted) {
        const auto u = static_cast<unsigned char>(c);
        if ((u < 0x20 && c != '\t') || u == 0x7f) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02X", u);
            out += escape;
        } else {
            out += c;
        }
    }
    return out;
}

}  // namespace pellorin::host
