#include "support/FileDigest.h"

#include <openssl/evp.h>

#include <fstream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

#include "Platform/Encoding.h"

namespace pellorin::testing {

namespace {

// Digest of `length` bytes from `offset`, or of everything from `offset` when no length is given.
std::string digestHex(const EVP_MD* type, const std::filesystem::path& path, uint64_t offset,
                      std::optional<uint64_t> length) {
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    if (!in) {
        throw std::runtime_error("cannot read " + path.string());
    }
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                     EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), type, nullptr);
    std::vector<char> buffer(1 << 20);
    uint64_t left = length.value_or(UINT64_MAX);
    while (left > 0 && in.read(buffer.data(), std::min<uint64_t>(left, buffer.size())).gcount()) {
        EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(in.gcount()));
        left -= static_cast<uint64_t>(in.gcount());
    }
    if (length && left > 0) {
        throw std::runtime_error(path.string() + " ends before byte " +
                                 std::to_string(offset + *length));
    }
    std::vector<uint8_t> digest(EVP_MD_get_size(type));
    EVP_DigestFinal_ex(context.get(), digest.data(), nullptr);
    return hexString(digest);
}

}  // namespace

std::string md5HexOfFile(const std::filesystem::path& path) {
    return digestHex(EVP_md5(), path, 0, std::nullopt);
}

std::string md5HexOfRange(const std::filesystem::path& path, uint64_t offset, uint64_t length) {
    return digestHex(EVP_md5(), path, offset, length);
}

std::string sha256HexOfFile(const std::filesystem::path& path) {
    return digestHex(EVP_sha256(), path, 0, std::nullopt);
}

}  // namespace pellorin::testing
