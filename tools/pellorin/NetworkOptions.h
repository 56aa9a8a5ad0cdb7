// NetworkOptions: trust, proxy, HTTP version and time-out of the host's HTTP sessions, from the
// command line and, where the command line says nothing, from the environment variables curl
// users already set: CURL_CA_BUNDLE, SSL_CERT_FILE, SSL_CERT_DIR for trust; http_proxy (lower
// case only), https_proxy / HTTPS_PROXY, all_proxy / ALL_PROXY and no_proxy / NO_PROXY for the
// proxy. Plain values; made and resolved on the host thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/SessionConfiguration.h>
#include <pellorin/Url.h>

namespace pellorin::host {

struct NetworkOptions {
    std::optional<std::string> caFile;     // --ca-file
    std::optional<std::string> caDir;      // --ca-dir
    std::optional<std::string> proxy;      // --proxy; "" for none whatever the environment says
    std::optional<std::string> noProxy;    // --noproxy
    bool http2 = false;                    // --http2
    std::optional<double> connectTimeout;  // --connect-timeout, seconds
};

// Reads an environment variable; no value when it is unset or empty.
using Environment = std::function<std::optional<std::string>(const char* name)>;
Environment processEnvironment();

// The proxy for a request to `url`, or no value for a direct connection.
std::optional<std::string> proxyFor(const Url& url, const NetworkOptions& options,
                                    const Environment& environment);

// The session configuration for requests to every URL of `urls`. Throws InputError when a CA file
// or directory is missing, or when the proxy rules send some of the URLs through a proxy and
// others not (the configuration applies to every part alike).
SessionConfiguration resolveSessionConfiguration(const NetworkOptions& options,
                                                 const std::vector<Url>& urls,
                                                 const Environment& environment);

}  // namespace pellorin::host
