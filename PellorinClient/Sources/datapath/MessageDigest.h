// Message digests: the algorithms, the running-digest interface over two OpenSSL providers, the
// choice between them, and the factory of hashing part streams.
//
// A MessageDigest is owned by one holder (std::unique_ptr) and used by one thread at a time;
// the free functions may be called from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace pellorin {

class FilePartInputStream;
class RateLimiter;
class SharedFile;

// The digest providers: `corvane` is OpenSSL's per-algorithm functions (one context structure
// and init/update/final per algorithm), `tessaly` its EVP interface.
enum class CryptoFramework { corvane, tessaly };
// A display name of the provider.
std::string name(CryptoFramework framework);

enum class DigestAlgorithm { md5, sha1, sha224, sha256, sha384, sha512 };

inline constexpr std::array allDigestAlgorithms{DigestAlgorithm::md5,    DigestAlgorithm::sha1,
                                                DigestAlgorithm::sha224, DigestAlgorithm::sha256,
                                                DigestAlgorithm::sha384, DigestAlgorithm::sha512};

// Digest length in bytes: 16, 20, 28, 32, 48, 64.
int32_t length(DigestAlgorithm algorithm);
// True for md5 and sha1.
bool isInsecure(DigestAlgorithm algorithm);
// The provider this system prefers: `tessaly` when the OpenSSL loaded at run time is 3 or
// later, whatever the algorithm (sha224 included, although newDigest uses `corvane` for it).
CryptoFramework cryptoFramework(DigestAlgorithm algorithm);

class MessageDigest {
  public:
    virtual ~MessageDigest();
    virtual DigestAlgorithm algorithm() const = 0;
    // Feeds a contiguous range of bytes, possibly empty.
    virtual void update(std::span<const uint8_t> bytes) = 0;
    // The digest of everything fed so far, length() bytes. Call once; later calls return the
    // same bytes.
    virtual std::vector<uint8_t> finalize() = 0;
    int32_t length() const { return pellorin::length(algorithm()); }
};

// A fresh digest: the EVP provider when OpenSSL >= 3 runs (sha224 still takes the
// per-algorithm provider), else the per-algorithm provider for every algorithm.
std::unique_ptr<MessageDigest> newDigest(DigestAlgorithm algorithm);
// A fresh digest over OpenSSL's per-algorithm functions (MD5Impl, SHA1Impl, ...). A single
// update of 4 GiB or more is a fatal stop (its length is passed as 32 bits).
std::unique_ptr<MessageDigest> newFirstProviderDigest(DigestAlgorithm algorithm);
// A fresh digest over OpenSSL's EVP interface, or none when the running OpenSSL lacks the
// algorithm.
std::unique_ptr<MessageDigest> newSecondProviderDigest(DigestAlgorithm algorithm);

// A body stream over [offset, offset + length) of `file` that hashes what it serves with a
// fresh digest of `algorithm`; `rateLimiter` may be null (no limit).
std::shared_ptr<FilePartInputStream> filePart(DigestAlgorithm algorithm,
                                              std::shared_ptr<SharedFile> file, uint64_t partNumber,
                                              uint64_t offset, uint64_t length,
                                              std::shared_ptr<RateLimiter> rateLimiter);

// `length` bytes from the secure random source (empty for 0). A negative length is a fatal
// stop; a failing source throws PlatformError (kOSStatusErrorDomain).
std::vector<uint8_t> randomData(int64_t length);

}  // namespace pellorin
