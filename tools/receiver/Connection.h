// One accepted connection as a byte stream, over plain TCP or TLS. The socket is non-blocking and
// every wait polls it together with the stop signal, so no read or write outlives stop().
// Owned and used by one connection thread; the TLS context and stop signal must outlive it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "receiver/StopSignal.h"
#include "receiver/UniqueFd.h"

struct ssl_st;
struct ssl_ctx_st;

namespace pellorin::receiver {

class Connection {
  public:
    // `tls` is null for plain TCP.
    Connection(UniqueFd socket, ssl_ctx_st* tls, const StopSignal& stop);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Runs the server side of the TLS handshake (nothing for plain TCP). False when it fails or
    // the receiver stops meanwhile.
    bool handshake();
    // Reads at most `size` bytes into `data`. Returns how many; 0 means the stream is over
    // (closed by the peer, failed, or the receiver is stopping).
    size_t readSome(uint8_t* data, size_t size);
    // Writes every byte; false when the stream failed or the receiver is stopping.
    bool writeAll(std::string_view bytes);
    // Ends the stream gently after an answer that left request bytes unread: stops sending, then
    // discards what the peer still sends for a short while, so that closing does not reset the
    // connection before the peer has read the answer.
    void drainAndClose();
    // From `when` on, any wait for the peer ends the stream as if it had closed (a server closing
    // an idle kept-alive connection). Replaces the previous time; none means never.
    void closeWhenIdleAt(std::optional<std::chrono::steady_clock::time_point> when) {
        idleCloseAt_ = when;
    }

    // Told when a wait for the peer starts (true) and ends (false), on the connection's thread:
    // the receiver's hasher does not hold a round for a connection that has nothing to read.
    void setWaitObserver(std::function<void(bool waiting)> observer) {
        waitObserver_ = std::move(observer);
    }

  private:
    // Waits until the socket is ready for `events` (POLLIN / POLLOUT); false on stop or error.
    bool waitFor(short events);
    bool pollFor(short events);  // waitFor without telling the observer
    void sendCloseNotify();

    UniqueFd socket_;
    std::unique_ptr<ssl_st, void (*)(ssl_st*)> ssl_;
    const StopSignal& stop_;
    std::optional<std::chrono::steady_clock::time_point> idleCloseAt_;
    std::function<void(bool)> waitObserver_;
};

}  // namespace pellorin::receiver
