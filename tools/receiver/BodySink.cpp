#include "receiver/BodySink.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace pellorin::receiver {

namespace {

void freeDigestContext(evp_md_ctx_st* context) {
    EVP_MD_CTX_free(context);
}

}  // namespace

BodySink::BodySink() : md5_(EVP_MD_CTX_new(), freeDigestContext) {
    if (!md5_ || EVP_DigestInit_ex(md5_.get(), EVP_md5(), nullptr) != 1) {
        throw std::runtime_error("Receiver cannot compute MD5 digests");
    }
}

BodySink::~BodySink() = default;

void BodySink::begin(UniqueFd file, uint64_t offset, bool keep) {
    // Re-initialising with the same type keeps the fetched implementation: no lookup per body.
    EVP_DigestInit_ex(md5_.get(), nullptr, nullptr);
    file_ = std::move(file);
    offset_ = offset;
    bytes_ = 0;
    writeError_.clear();
    keep_ = keep;
    kept_.clear();
}

void BodySink::consume(const uint8_t* data, size_t size) {
    EVP_DigestUpdate(md5_.get(), data, size);
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

BodySink::Digest BodySink::finish() {
    Digest digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(md5_.get(), digest.data(), &length);
    file_.reset();
    return digest;
}

}  // namespace pellorin::receiver
