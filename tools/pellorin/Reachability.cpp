#include "Reachability.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace pellorin::host {

namespace {

// Connects one address; no value on success, the reason otherwise.
std::optional<std::string> tryConnect(const addrinfo& address, std::chrono::milliseconds timeout) {
    const int fd = ::socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                            address.ai_protocol);
    if (fd < 0) {
        return std::strerror(errno);
    }
    std::optional<std::string> reason;
    if (::connect(fd, address.ai_addr, address.ai_addrlen) != 0) {
        if (errno != EINPROGRESS) {
            reason = std::strerror(errno);
        } else {
            pollfd entry{fd, POLLOUT, 0};
            int ready;
            do {
                ready = ::poll(&entry, 1, static_cast<int>(timeout.count()));
            } while (ready < 0 && errno == EINTR);
            int error = 0;
            socklen_t length = sizeof error;
            if (ready == 0) {
                reason = "timed out after " + std::to_string(timeout.count()) + " ms";
            } else if (ready < 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
                reason = std::strerror(errno);
            } else if (error != 0) {
                reason = std::strerror(error);
            }
        }
    }
    ::close(fd);
    return reason;
}

}  // namespace

std::optional<std::string> unreachableReason(const std::string& host, int port,
                                             std::chrono::milliseconds timeout) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int status = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (status != 0) {
        return std::string(gai_strerror(status));
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
    std::optional<std::string> reason = "no address";
    for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
        reason = tryConnect(*address, timeout);
        if (!reason) {
            break;
        }
    }
    return reason;
}

}  // namespace pellorin::host
