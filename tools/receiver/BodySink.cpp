#include "receiver/BodySink.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace pellorin::receiver {

void BodySink::begin(UniqueFd file, uint64_t offset, bool keep) {
    md5_.reset();
    hasher_.join(member_);
    inBody_ = true;
    file_ = std::move(file);
    offset_ = offset;
    bytes_ = 0;
    writeError_.clear();
    keep_ = keep;
    kept_.clear();
}

void BodySink::consume(const uint8_t* data, size_t size) {
    hasher_.hash(member_, md5_, {data, size});
    if (keep_) {
        kept_.append(reinterpret_cast<const char*>(data), size);
    }
    size_t written = 0;
    while (file_ && written < size) {
        const ssize_t result = ::pwrite(file_.get(), data + written, size - written,
                                        static_cast<off_t>(offset_ + bytes_ + written));
        if (result > 0) {
            written += static_cast<size_t>(result);
        } else if (result < 0 && errno == EINTR) {
            continue;
        } else {
            writeError_ = result < 0 ? std::strerror(errno) : "nothing written";
            file_.reset();
        }
    }
    bytes_ += size;
}

void BodySink::setIdle(bool idle) {
    if (!inBody_) {
        return;
    }
    if (idle) {
        hasher_.leave(member_);
    } else {
        hasher_.join(member_);
    }
}

BodySink::Digest BodySink::finish() {
    hasher_.leave(member_);
    inBody_ = false;
    file_.reset();
    return md5_.digest();
}

}  // namespace pellorin::receiver
