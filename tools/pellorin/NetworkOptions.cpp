#include "NetworkOptions.h"

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <utility>

#include "HostError.h"
#include "Redaction.h"

namespace pellorin::host {

namespace {

std::string lowerCase(std::string text) {
    for (auto& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Whether `host` is listed in a no_proxy value: "*" matches all; every other entry matches the
// host itself and, as a domain, the hosts under it (a leading dot is optional).
bool listedIn(const std::string& list, const std::string& host) {
    size_t start = 0;
    const std::string lowerHost = lowerCase(host);
    while (start <= list.size()) {
        const size_t comma = list.find(',', start);
        std::string entry = lowerCase(trimmed(list.substr(start, comma - start)));
        start = comma == std::string::npos ? list.size() + 1 : comma + 1;
        if (entry == "*") {
            return true;
        }
        if (!entry.empty() && entry.front() == '.') {
            entry.erase(0, 1);
        }
        if (entry.empty()) {
            continue;
        }
        if (lowerHost == entry ||
            (lowerHost.size() > entry.size() &&
             lowerHost.compare(lowerHost.size() - entry.size(), entry.size(), entry) == 0 &&
             lowerHost[lowerHost.size() - entry.size() - 1] == '.')) {
            return true;
        }
    }
    return false;
}

std::optional<std::string> firstOf(const Environment& environment,
                                   std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (auto value = environment(name)) {
            return value;
        }
    }
    return std::nullopt;
}

}  // namespace

Environment processEnvironment() {
    return [](const char* name) -> std::optional<std::string> {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') {
            return std::nullopt;
        }
        return std::string(value);
    };
}

std::optional<std::string> proxyFor(const Url& url, const NetworkOptions& options,
                                    const Environment& environment) {
    std::string host = url.host();
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    const auto noProxy =
        options.noProxy ? options.noProxy : firstOf(environment, {"no_proxy", "NO_PROXY"});
    if (noProxy && listedIn(*noProxy, host)) {
        return std::nullopt;
    }
    if (options.proxy) {
        return options.proxy->empty() ? std::nullopt : options.proxy;
    }
    // As curl reads them: HTTP_PROXY in capitals is ignored (a CGI program gets it from a
    // request's "Proxy:" header).
    std::optional<std::string> proxy;
    if (url.scheme() == "http") {
        proxy = environment("http_proxy");
    } else if (url.scheme() == "https") {
        proxy = firstOf(environment, {"https_proxy", "HTTPS_PROXY"});
    }
    if (!proxy) {
        proxy = firstOf(environment, {"all_proxy", "ALL_PROXY"});
    }
    return proxy;
}

SessionConfiguration resolveSessionConfiguration(const NetworkOptions& options,
                                                 const std::vector<Url>& urls,
                                                 const Environment& environment) {
    SessionConfiguration configuration = SessionConfiguration::ephemeral();
    configuration.caFile = options.caFile;
    configuration.caDirectory = options.caDir;
    if (!configuration.caFile && !configuration.caDirectory) {
        configuration.caFile = firstOf(environment, {"CURL_CA_BUNDLE", "SSL_CERT_FILE"});
        configuration.caDirectory = environment("SSL_CERT_DIR");
    }
    std::error_code error;
    if (configuration.caFile && !std::filesystem::is_regular_file(*configuration.caFile, error)) {
        throw InputError("CA file " + *configuration.caFile + " is not a readable file");
    }
    if (configuration.caDirectory &&
        !std::filesystem::is_directory(*configuration.caDirectory, error)) {
        throw InputError("CA directory " + *configuration.caDirectory + " is not a directory");
    }
    // The proxy depends on the scheme and the host alone: each pair is looked up once, however
    // many parts go there.
    std::set<std::optional<std::string>> proxies;
    std::set<std::pair<std::string, std::string>> places;
    for (const auto& url : urls) {
        if (places.emplace(url.scheme(), url.host()).second) {
            proxies.insert(proxyFor(url, options, environment));
        }
    }
    if (proxies.size() > 1) {
        throw InputError(
            "the proxy settings send some parts through a proxy and others not; choose one "
            "with --proxy URL or --proxy ''");
    }
    if (!proxies.empty()) {
        configuration.proxy = *proxies.begin();
    }
    if (configuration.proxy && !Url::parse(*configuration.proxy)) {
        // curl takes a bare host:port as an HTTP proxy.
        if (!Url::parse("http://" + *configuration.proxy)) {
            throw InputError("not a proxy URL: " + redactUrls(*configuration.proxy));
        }
        configuration.proxy = "http://" + *configuration.proxy;
    }
    configuration.httpVersion = options.http2 ? HttpVersion::http2 : HttpVersion::http1_1;
    if (options.connectTimeout) {
        configuration.timeoutIntervalForRequest = *options.connectTimeout;
    }
    return configuration;
}

}  // namespace pellorin::host
