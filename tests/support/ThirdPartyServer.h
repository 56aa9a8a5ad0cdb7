// A third-party server (nginx as a TLS reverse proxy, tinyproxy as a forward proxy) for a test,
// started through tests/support/thirdparty.py on an ephemeral loopback port and stopped when the
// object goes away. Owned by one test thread.
#pragma once

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pellorin::testing {

class ThirdPartyServer {
  public:
    // nginx terminating TLS (with a CA made for it) in front of `upstream` ("HOST:PORT").
    static ThirdPartyServer nginx(const std::string& upstream, const std::filesystem::path& dir,
                                  bool http2, std::optional<std::string> keepaliveTimeout);
    // tinyproxy: plain http forwarded, https carried through CONNECT.
    static ThirdPartyServer forwardProxy(const std::filesystem::path& dir);

    // False when the program is not installed (skipText() says which) or did not start
    // (failure() says why).
    bool running() const { return !url_.empty(); }
    const std::string& skipText() const { return skipText_; }
    const std::string& failure() const { return failure_; }
    const std::string& url() const { return url_; }  // "https://127.0.0.1:PORT" or "http://…"
    const std::string& caFile() const { return caFile_; }  // nginx only

  private:
    ThirdPartyServer(const std::filesystem::path& dir, const std::vector<std::string>& arguments);

    // The script's standard input; closing it (pclose, which then waits) stops the server.
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> input_{nullptr, ::pclose};
    std::string url_, caFile_, skipText_, failure_;
};

}  // namespace pellorin::testing
