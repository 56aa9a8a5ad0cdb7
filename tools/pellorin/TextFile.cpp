#include "TextFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "HostError.h"

namespace pellorin::host {

std::string readTextFile(const std::filesystem::path& path, const std::string& what, size_t limit) {
    auto failure = [&](const std::string& reason) {
        return InputError("cannot read " + what + " " + path.string() + ": " + reason);
    };
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw failure(std::strerror(errno));
    }
    std::string text;
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        ::close(fd);
        throw failure("is a directory");
    }
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int error = errno;
            ::close(fd);
            throw failure(std::strerror(error));
        }
        if (n == 0) {
            break;
        }
        if (text.size() + static_cast<size_t>(n) > limit) {
            ::close(fd);
            throw failure("larger than " + std::to_string(limit) + " bytes");
        }
        text.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return text;
}

}  // namespace pellorin::host
