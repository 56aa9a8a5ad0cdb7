#include "receiver/Connection.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

namespace pellorin::receiver {

namespace {

void freeSsl(ssl_st* ssl) {
    SSL_free(ssl);
}

}  // namespace

Connection::Connection(UniqueFd socket, ssl_ctx_st* tls, const StopSignal& stop)
    : socket_(std::move(socket)), ssl_(nullptr, freeSsl), stop_(stop) {
    if (tls != nullptr) {
        ssl_.reset(SSL_new(tls));
        if (ssl_) {
            SSL_set_fd(ssl_.get(), socket_.get());
        }
    }
}

Connection::~Connection() {
    sendCloseNotify();
}

void Connection::sendCloseNotify() {
    // Best effort; the socket is non-blocking, so this never waits.
    if (ssl_ && SSL_is_init_finished(ssl_.get())) {
        SSL_shutdown(ssl_.get());
        ERR_clear_error();
    }
}

bool Connection::waitFor(short events) {
    if (waitObserver_) {
        waitObserver_(true);
    }
    const bool ready = pollFor(events);
    if (waitObserver_) {
        waitObserver_(false);
    }
    return ready;
}

bool Connection::pollFor(short events) {
    std::array<pollfd, 2> entries{{{socket_.get(), events, 0}, {stop_.fd(), POLLIN, 0}}};
    for (;;) {
        int timeoutMs = -1;
        if (idleCloseAt_) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                *idleCloseAt_ - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            timeoutMs = static_cast<int>(std::min<int64_t>(left.count() + 1, 60000));
        }
        const int ready = ::poll(entries.data(), entries.size(), timeoutMs);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || entries[1].revents != 0) {
            return false;
        }
        if (ready == 0) {
            continue;  // the idle deadline is checked above
        }
        // POLLHUP/POLLERR: let the following read or write report the end of the stream.
        return true;
    }
}

bool Connection::handshake() {
    if (!socket_) {
        return false;
    }
    if (!ssl_) {
        return true;
    }
    for (;;) {
        ERR_clear_error();
        const int result = SSL_accept(ssl_.get());
        if (result == 1) {
            return true;
        }
        const int error = SSL_get_error(ssl_.get(), result);
        if (error == SSL_ERROR_WANT_READ && waitFor(POLLIN)) {
            continue;
        }
        if (error == SSL_ERROR_WANT_WRITE && waitFor(POLLOUT)) {
            continue;
        }
        ERR_clear_error();
        return false;
    }
}

size_t Connection::readSome(uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    for (;;) {
        if (stop_.raised()) {
            return 0;
        }
        if (ssl_) {
            ERR_clear_error();
            size_t got = 0;
            if (SSL_read_ex(ssl_.get(), data, size, &got) == 1) {
                return got;
            }
            const int error = SSL_get_error(ssl_.get(), 0);
            if ((error == SSL_ERROR_WANT_READ && waitFor(POLLIN)) ||
                (error == SSL_ERROR_WANT_WRITE && waitFor(POLLOUT))) {
                continue;
            }
            ERR_clear_error();
            return 0;
        }
        const ssize_t got = ::recv(socket_.get(), data, size, 0);
        if (got > 0) {
            return static_cast<size_t>(got);
        }
        if (got == 0) {
            return 0;
        }
        if (errno == EINTR || ((errno == EAGAIN || errno == EWOULDBLOCK) && waitFor(POLLIN))) {
            continue;
        }
        return 0;
    }
}

bool Connection::writeAll(std::string_view bytes) {
    while (!bytes.empty()) {
        if (stop_.raised()) {
            return false;
        }
        if (ssl_) {
            ERR_clear_error();
            size_t sent = 0;
            if (SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &sent) == 1) {
                bytes.remove_prefix(sent);
                continue;
            }
            const int error = SSL_get_error(ssl_.get(), 0);
            if ((error == SSL_ERROR_WANT_WRITE && waitFor(POLLOUT)) ||
                (error == SSL_ERROR_WANT_READ && waitFor(POLLIN))) {
                continue;
            }
            ERR_clear_error();
            return false;
        }
        const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
            continue;
        }
        if (errno == EINTR || ((errno == EAGAIN || errno == EWOULDBLOCK) && waitFor(POLLOUT))) {
            continue;
        }
        return false;
    }
    return true;
}

void Connection::drainAndClose() {
    sendCloseNotify();
    ::shutdown(socket_.get(), SHUT_WR);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    std::array<uint8_t, 16384> scratch{};
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entries[2] = {{socket_.get(), POLLIN, 0}, {stop_.fd(), POLLIN, 0}};
        if (::poll(entries, 2, 50) < 0 && errno != EINTR) {
            break;
        }
        if (entries[1].revents != 0) {
            break;
        }
        if (entries[0].revents == 0) {
            continue;
        }
        const ssize_t got = ::recv(socket_.get(), scratch.data(), scratch.size(), 0);
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EINTR)) {
            break;
        }
    }
    ssl_.reset();
    socket_.reset();
}

}  // namespace pellorin::receiver
