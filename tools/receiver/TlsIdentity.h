// The receiver's HTTPS identity: a fresh P-256 key and a self-signed certificate for 127.0.0.1
// and localhost (subjectAltName IP and DNS), valid for a day, written as PEM into a temporary
// directory so that clients can trust it; and the server TLS context built on them. Made by
// start() on the caller's thread; the context is then shared read-only by connection threads.
// The temporary directory is removed when the identity goes away.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>

struct ssl_ctx_st;

namespace pellorin::receiver {

class TlsIdentity {
  public:
    // `maxVersion`: the highest protocol version served (an OpenSSL *_VERSION constant). Throws
    // std::runtime_error with OpenSSL's reason when anything fails.
    explicit TlsIdentity(std::optional<int> maxVersion);
    ~TlsIdentity();
    TlsIdentity(const TlsIdentity&) = delete;
    TlsIdentity& operator=(const TlsIdentity&) = delete;

    ssl_ctx_st* context() const { return context_.get(); }
    const std::filesystem::path& certificateFile() const { return certificateFile_; }

  private:
    std::unique_ptr<ssl_ctx_st, void (*)(ssl_ctx_st*)> context_;
    std::filesystem::path directory_;
    std::filesystem::path certificateFile_;
};

}  // namespace pellorin::receiver
