#include <pellorin/PellorinError.h>

namespace pellorin {

PellorinError PellorinError::retryCountExceeded(uint64_t retries) {
    PellorinError e(Kind::retryCountExceeded);
    e.retries_ = retries;
    return e;
}

PellorinError PellorinError::checksumFailed(std::string local, std::string remote) {
    PellorinError e(Kind::checksumFailed);
    e.local_ = std::move(local);
    e.remote_ = std::move(remote);
    return e;
}

PellorinError PellorinError::retryAfter(int64_t code, double wait) {
    PellorinError e(Kind::retryAfter);
    e.code_ = code;
    e.wait_ = wait;
    return e;
}

PellorinError PellorinError::unknownServerResponseCode(int64_t code) {
    PellorinError e(Kind::unknownServerResponseCode);
    e.code_ = code;
    return e;
}

PellorinError PellorinError::error(std::string wrappedDescription) {
    PellorinError e(Kind::error);
    e.local_ = std::move(wrappedDescription);
    return e;
}

PellorinError PellorinError::nsError(PlatformError error) {
    PellorinError e(Kind::nsError);
    e.platformError_ = std::move(error);
    return e;
}

PellorinError PellorinError::noRemoteChecksum() {
    return PellorinError(Kind::noRemoteChecksum);
}
PellorinError PellorinError::cancelledByUser() {
    return PellorinError(Kind::cancelledByUser);
}

std::string PellorinError::description() const {
    switch (kind_) {
        case Kind::retryCountExceeded:
            return "retryCountExceeded(retries: " + std::to_string(retries_) + ")";
        case Kind::checksumFailed:
            return "checksumFailed(local: " + local_ + ", remote: " + remote_ + ")";
        case Kind::retryAfter:
            return "retryAfter(code: " + std::to_string(code_) +
                   ", wait: " + std::to_string(wait_) + ")";
        case Kind::unknownServerResponseCode:
            return "unknownServerResponseCode(code: " + std::to_string(code_) + ")";
        case Kind::error:
            return "error(wrapped: " + local_ + ")";
        case Kind::nsError:
            return "nsError(" + platformError_.description() + ")";
        case Kind::noRemoteChecksum:
            return "noRemoteChecksum";
        case Kind::cancelledByUser:
            return "cancelledByUser";
    }
    return "unknown";
}

bool PellorinError::operator==(const PellorinError& other) const {
    return kind_ == other.kind_ && retries_ == other.retries_ && local_ == other.local_ &&
           remote_ == other.remote_ && code_ == other.code_ && wait_ == other.wait_ &&
           platformError_.domain == other.platformError_.domain &&
           platformError_.code == other.platformError_.code;
}

}  // namespace pellorin
