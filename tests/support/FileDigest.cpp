#include "support/FileDigest.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
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
    struct File {
        int fd;
        ~File() {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    } file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) {
        throw std::runtime_error("cannot open " + path.string() + ": " + std::strerror(errno));
    }
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context(EVP_MD_CTX_new(),
                                                                     EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), type, nullptr);
    std::vector<uint8_t> buffer(1 << 20);
    uint64_t position = offset;
    for (;;) {
        const uint64_t left = length ? offset + *length - position : buffer.size();
        if (left == 0) {
            break;
        }
        const ssize_t got = ::pread(file.fd, buffer.data(), std::min<uint64_t>(left, buffer.size()),
                                    static_cast<off_t>(position));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw std::runtime_error("cannot read " + path.string() + ": " + std::strerror(errno));
        }
        if (got == 0) {
            if (length) {
                throw std::runtime_error(path.string() + " ends before byte " +
                                         std::to_string(offset + *length));
            }
            break;
        }
        EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(got));
        position += static_cast<uint64_t>(got);
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
