// The per-algorithm provider: OpenSSL's MD5_* and SHA*_* functions. They are deprecated in
// OpenSSL 3 in favour of EVP, which is why this file alone silences that warning.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/md5.h>
#include <openssl/sha.h>

#include <cstdint>
#include <string>

#include "Platform/Fatal.h"
#include "datapath/MessageDigest.h"

namespace pellorin {

namespace {

// One digest over a provider context. The implementations differ only in the context type and
// the three functions they call; MD5Impl is the model for the rest.
template <DigestAlgorithm kAlgorithm, typename Context, int (*kInit)(Context*),
          int (*kUpdate)(Context*, const void*, size_t), int (*kFinal)(unsigned char*, Context*)>
class FirstProviderDigest final : public MessageDigest {
  public:
    FirstProviderDigest() { kInit(&context_); }

    DigestAlgorithm algorithm() const override { return kAlgorithm; }

    void update(std::span<const uint8_t> bytes) override {
        // The provider's length is 32 bits wide on some systems; a range that does not fit is
        // a programming error here, not something to split silently.
        if (bytes.size() >= (uint64_t{1} << 32)) {
            fatalError("MessageDigest::update: a single range of " + std::to_string(bytes.size()) +
                       " bytes exceeds 4 GiB");
        }
        kUpdate(&context_, bytes.data(), bytes.size());
    }

    std::vector<uint8_t> finalize() override {
        if (!finalized_) {
            digest_.assign(static_cast<size_t>(length()), 0);
            kFinal(digest_.data(), &context_);
            finalized_ = true;
        }
        return digest_;
    }

  private:
    Context context_{};
    bool finalized_ = false;
    std::vector<uint8_t> digest_;
};

using MD5Impl = FirstProviderDigest<DigestAlgorithm::md5, MD5_CTX, MD5_Init, MD5_Update, MD5_Final>;
using SHA1Impl =
    FirstProviderDigest<DigestAlgorithm::sha1, SHA_CTX, SHA1_Init, SHA1_Update, SHA1_Final>;
using SHA224Impl = FirstProviderDigest<DigestAlgorithm::sha224, SHA256_CTX, SHA224_Init,
                                       SHA224_Update, SHA224_Final>;
using SHA256Impl = FirstProviderDigest<DigestAlgorithm::sha256, SHA256_CTX, SHA256_Init,
                                       SHA256_Update, SHA256_Final>;
using SHA384Impl = FirstProviderDigest<DigestAlgorithm::sha384, SHA512_CTX, SHA384_Init,
                                       SHA384_Update, SHA384_Final>;
using SHA512Impl = FirstProviderDigest<DigestAlgorithm::sha512, SHA512_CTX, SHA512_Init,
                                       SHA512_Update, SHA512_Final>;

}  // namespace

std::unique_ptr<MessageDigest> newFirstProviderDigest(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::md5:
            return std::make_unique<MD5Impl>();
        case DigestAlgorithm::sha1:
            return std::make_unique<SHA1Impl>();
        case DigestAlgorithm::sha224:
            return std::make_unique<SHA224Impl>();
        case DigestAlgorithm::sha256:
            return std::make_unique<SHA256Impl>();
        case DigestAlgorithm::sha384:
            return std::make_unique<SHA384Impl>();
        case DigestAlgorithm::sha512:
            return std::make_unique<SHA512Impl>();
    }
    fatalError("newFirstProviderDigest: unknown algorithm");
}

}  // namespace pellorin
