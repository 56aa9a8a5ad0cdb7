// PellorinError: every reason a part is retried or fails. A part keeps all of them, in order, in
// its error list; they reach the host as ErrorMessage objects. Cheap value type.
#pragma once

#include <cstdint>
#include <string>

#include <pellorin/Export.h>
#include <pellorin/PlatformError.h>

namespace pellorin {

class PELLORIN_EXPORT PellorinError {
  public:
    enum class Kind {
        retryCountExceeded,         // retries(): the raised retry count
        checksumFailed,             // local(), remote(): hexadecimal checksums
        retryAfter,                 // code(): HTTP status; wait(): seconds
        unknownServerResponseCode,  // code(): HTTP status
        error,                      // wrappedDescription(): a foreign error, kept by its text
        nsError,                    // platformError()
        noRemoteChecksum,
        cancelledByUser,
    };

    static PellorinError retryCountExceeded(uint64_t retries);
    static PellorinError checksumFailed(std::string local, std::string remote);
    static PellorinError retryAfter(int64_t code, double wait);
    static PellorinError unknownServerResponseCode(int64_t code);
    static PellorinError error(std::string wrappedDescription);
    static PellorinError nsError(PlatformError error);
    static PellorinError noRemoteChecksum();
    static PellorinError cancelledByUser();

    Kind kind() const { return kind_; }
    uint64_t retries() const { return retries_; }
    const std::string& local() const { return local_; }
    const std::string& remote() const { return remote_; }
    int64_t code() const { return code_; }
    double wait() const { return wait_; }
    const std::string& wrappedDescription() const { return local_; }
    const PlatformError& platformError() const { return platformError_; }

    // A short readable form for logs, e.g. "checksumFailed(local: ..., remote: ...)".
    std::string description() const;

    bool operator==(const PellorinError& other) const;

  private:
    explicit PellorinError(Kind kind) : kind_(kind) {}
    Kind kind_;
    uint64_t retries_ = 0;
    std::string local_;  // also the wrapped error's description
    std::string remote_;
    int64_t code_ = 0;
    double wait_ = 0.0;
    PlatformError platformError_;
};

}  // namespace pellorin
