// A third-party server (nginx as a TLS reverse proxy, tinyproxy as a forward proxy) for a test,
// started through tests/support/thirdparty.py on an ephemeral loopback port and stopped when the
// object goes away. Owned by one test thread.
#pragma once

#include <sys/types.h>

#include <filesystem>
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

    ThirdPartyServer(ThirdPartyServer&& other) noexcept;
    ThirdPartyServer& operator=(ThirdPartyServer&&) = delete;
    ~ThirdPartyServer();  // stops the server: end of its input, then SIGTERM, then SIGKILL

    // False when the program is not installed (skipText() says which) or did not start
    // (failure() says why).
    bool running() const { return pid_ > 0 && !url_.empty(); }
    const std::string& skipText() const { return skipText_; }
    const std::string& failure() const { return failure_; }
    const std::string& url() const { return url_; }  // "https://127.0.0.1:PORT" or "http://…"
    const std::string& caFile() const { return caFile_; }  // nginx only

  private:
    explicit ThirdPartyServer(std::vector<std::string> arguments);

    pid_t pid_ = -1;
    int input_ = -1;  // the server's standard input; closing it stops the server
    std::string url_, caFile_, skipText_, failure_;
};

}  // namespace pellorin::testing
