#include "datapath/MessageDigest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "Platform/Fatal.h"
#include "Platform/SecureRandom.h"

namespace pellorin {

namespace {

size_t indexOf(DigestAlgorithm algorithm) {
    return static_cast<size_t>(algorithm);
}

// The EVP implementations, fetched once per process: fetching is costly compared with starting
// a digest, and every part starts one.
const EVP_MD* fetchedEvpDigest(DigestAlgorithm algorithm) {
    static const std::array<EVP_MD*, allDigestAlgorithms.size()> fetched = [] {
        constexpr std::array<const char*, allDigestAlgorithms.size()> kNames{
            "MD5", "SHA1", "SHA224", "SHA256", "SHA384", "SHA512"};
        std::array<EVP_MD*, allDigestAlgorithms.size()> digests{};
        for (size_t i = 0; i < kNames.size(); ++i) {
            digests[i] = EVP_MD_fetch(nullptr, kNames[i], nullptr);  // kept for the process
        }
        return digests;
    }();
    return fetched[indexOf(algorithm)];
}

bool runningOpenSSL3OrLater() {
    return OpenSSL_version_num() >= 0x30000000L;
}

// The EVP provider's digest.
class TessalyWrapper final : public MessageDigest {
  public:
    TessalyWrapper(DigestAlgorithm algorithm, const EVP_MD* md)
        : algorithm_(algorithm), hasher_(EVP_MD_CTX_new()) {
        if (!hasher_ || EVP_DigestInit_ex(hasher_.get(), md, nullptr) != 1) {
            fatalError("MessageDigest: the EVP digest could not be started");
        }
    }

    DigestAlgorithm algorithm() const override { return algorithm_; }

    void update(std::span<const uint8_t> bytes) override {
        EVP_DigestUpdate(hasher_.get(), bytes.data(), bytes.size());
    }

    std::vector<uint8_t> finalize() override {
        if (!finalized_) {
            digest_.assign(static_cast<size_t>(length()), 0);
            EVP_DigestFinal_ex(hasher_.get(), digest_.data(), nullptr);
            finalized_ = true;
        }
        return digest_;
    }

  private:
    struct ContextDeleter {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    const DigestAlgorithm algorithm_;
    std::unique_ptr<EVP_MD_CTX, ContextDeleter> hasher_;
    bool finalized_ = false;
    std::vector<uint8_t> digest_;
};

}  // namespace

MessageDigest::~MessageDigest() = default;

std::string name(CryptoFramework framework) {
    switch (framework) {
        case CryptoFramework::corvane:
            return "OpenSSL per-algorithm digests";
        case CryptoFramework::tessaly:
            return "OpenSSL EVP digests";
    }
    return "unknown";
}

int32_t length(DigestAlgorithm algorithm) {
    constexpr std::array<int32_t, allDigestAlgorithms.size()> kLengths{16, 20, 28, 32, 48, 64};
    return kLengths[indexOf(algorithm)];
}

bool isInsecure(DigestAlgorithm algorithm) {
    return algorithm == DigestAlgorithm::md5 || algorithm == DigestAlgorithm::sha1;
}

CryptoFramework cryptoFramework(DigestAlgorithm /*algorithm*/) {
    return runningOpenSSL3OrLater() ? CryptoFramework::tessaly : CryptoFramework::corvane;
}

std::unique_ptr<MessageDigest> newSecondProviderDigest(DigestAlgorithm algorithm) {
    const EVP_MD* md = fetchedEvpDigest(algorithm);
    if (md == nullptr) {
        return nullptr;
    }
    return std::make_unique<TessalyWrapper>(algorithm, md);
}

std::unique_ptr<MessageDigest> newDigest(DigestAlgorithm algorithm) {
    if (runningOpenSSL3OrLater() && algorithm != DigestAlgorithm::sha224) {
        if (std::unique_ptr<MessageDigest> digest = newSecondProviderDigest(algorithm)) {
            return digest;
        }
    }
    return newFirstProviderDigest(algorithm);
}

std::vector<uint8_t> randomData(int64_t length) {
    return secureRandomBytes(length);
}

}  // namespace pellorin
