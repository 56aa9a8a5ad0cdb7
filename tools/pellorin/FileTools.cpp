#include "FileTools.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <vector>

namespace pellorin::host {

namespace {

constexpr size_t kChunk = 1 << 20;

std::runtime_error fileError(const std::string& what, const std::filesystem::path& path) {
    return std::runtime_error("cannot " + what + " " + path.string() + ": " + std::strerror(errno));
}

// Closes a descriptor when it goes out of scope.
struct Descriptor {
    explicit Descriptor(int fd) : fd(fd) {}
    ~Descriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int fd;
};

// splitmix64's output function: a good 64-bit mix of a counter.
uint64_t mix(uint64_t x) {
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

}  // namespace

FileCheck checkReadableFile(const std::string& path) {
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (file.fd < 0 || ::fstat(file.fd, &status) != 0) {
        return {std::nullopt, "cannot read " + path + ": " + std::strerror(errno)};
    }
    if (!S_ISREG(status.st_mode)) {
        return {std::nullopt, "cannot read " + path + ": not a regular file"};
    }
    return {static_cast<uint64_t>(status.st_size), {}};
}

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = std::filesystem::temp_directory_path() / "pellorin-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw fileError("create a temporary directory", pattern);
    }
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string sha256HexOfFile(const std::filesystem::path& path, const std::atomic<bool>& stop) {
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd < 0) {
        throw fileError("open", path);
    }
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    EVP_MD_CTX_free);
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("cannot compute SHA-256 digests");
    }
    std::vector<unsigned char> buffer(kChunk);
    for (;;) {
        if (stop) {
            throw Interrupted();
        }
        const ssize_t n = ::read(file.fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throw fileError("read", path);
        }
        if (n == 0) {
            break;
        }
        EVP_DigestUpdate(context.get(), buffer.data(), static_cast<size_t>(n));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 0xf];
    }
    return hex;
}

void writeGeneratedFile(const std::filesystem::path& path, uint64_t size,
                        const std::atomic<bool>& stop) {
    Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (file.fd < 0) {
        throw fileError("create", path);
    }
    std::vector<uint64_t> words(kChunk / sizeof(uint64_t));
    for (uint64_t offset = 0; offset < size; offset += kChunk) {
        if (stop) {
            throw Interrupted();
        }
        for (size_t i = 0; i < words.size(); ++i) {
            words[i] = mix(offset / sizeof(uint64_t) + i);
        }
        const auto* bytes = reinterpret_cast<const char*>(words.data());
        size_t count = static_cast<size_t>(std::min<uint64_t>(size - offset, kChunk));
        while (count > 0) {
            const ssize_t n = ::write(file.fd, bytes, count);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                throw fileError("write", path);
            }
            bytes += n;
            count -= static_cast<size_t>(n);
        }
    }
}

}  // namespace pellorin::host
