#include "receiver/Receiver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "datapath/LaneHasher.h"
#include "receiver/Connection.h"
#include "receiver/ConnectionHandler.h"
#include "receiver/RequestLog.h"
#include "receiver/ReservationEndpoint.h"
#include "receiver/StopSignal.h"
#include "receiver/TlsIdentity.h"
#include "receiver/UniqueFd.h"

namespace pellorin::receiver {

namespace {

std::runtime_error systemError(const std::string& what) {
    return std::runtime_error("Receiver cannot " + what + ": " + std::strerror(errno));
}

UniqueFd listenOnLoopback(uint16_t port) {
    UniqueFd listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!listener) {
        throw systemError("create a socket");
    }
    const int on = 1;
    ::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw systemError("bind 127.0.0.1:" + std::to_string(port));
    }
    if (::listen(listener.get(), SOMAXCONN) != 0) {
        throw systemError("listen on 127.0.0.1:" + std::to_string(port));
    }
    return listener;
}

uint16_t boundPort(const UniqueFd& listener) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw systemError("read the bound port");
    }
    return ntohs(address.sin_port);
}

// A peer that resets the connection must not kill the process through SIGPIPE on the next write.
// Plain sockets send with MSG_NOSIGNAL; OpenSSL writes with write(2), so connection threads block
// the signal instead: it then stays pending on the thread and the write fails with EPIPE.
void blockSigpipeOnThisThread() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

}  // namespace

class Receiver::Impl {
  public:
    explicit Impl(ReceiverOptions options) : options_(std::move(options)) {}

    void start() {
        std::lock_guard lock(lifecycleMutex_);
        if (started_ || stop_.raised()) {
            throw std::runtime_error("Receiver cannot start twice or after stop()");
        }
        if (options_.tls) {
            tls_ = std::make_unique<TlsIdentity>(options_.tlsMaxVersion);
        }
        listener_ = listenOnLoopback(options_.port);
        port_ = boundPort(listener_);
        started_ = true;
        acceptThread_ = std::thread([this] { acceptLoop(); });
    }

    void stop() {
        std::lock_guard lock(lifecycleMutex_);
        stop_.raise();
        if (acceptThread_.joinable()) {
            acceptThread_.join();
        }
        // The accept thread is gone, so the worker list is this thread's alone now.
        for (auto& worker : workers_) {
            worker.thread.join();
        }
        workers_.clear();
        listener_.reset();
    }

    uint16_t port() const { return port_.load(); }
    std::string baseUrl() const {
        return std::string(options_.tls ? "https" : "http") +
               "://127.0.0.1:" + std::to_string(port());
    }
    std::string certificateFile() const {
        return tls_ ? tls_->certificateFile().string() : std::string();
    }
    RequestLog& log() { return log_; }

  private:
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> finished;
    };

    // Runs on the accept thread until stop().
    void acceptLoop() {
        std::array<pollfd, 2> entries{{{listener_.get(), POLLIN, 0}, {stop_.fd(), POLLIN, 0}}};
        while (!stop_.raised()) {
            if (::poll(entries.data(), entries.size(), -1) < 0 && errno != EINTR) {
                return;
            }
            if (entries[1].revents != 0) {
                return;
            }
            if (entries[0].revents == 0) {
                continue;
            }
            UniqueFd socket(
                ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            if (!socket) {
                // Out of descriptors or a connection that went away before it was accepted:
                // pause briefly rather than spin, then carry on.
                if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
                    stop_.waitFor(0.01);
                }
                continue;
            }
            const int on = 1;
            ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            reapFinishedWorkers();
            // Out of threads or memory: the connection is refused (closed unserved; the socket
            // moved into a thread's function is closed with it) and the receiver carries on.
            try {
                Worker& worker =
                    workers_.emplace_back(Worker{{}, std::make_shared<std::atomic<bool>>(false)});
                const uint64_t number = connectionsAccepted_ + 1;
                try {
                    worker.thread = std::thread([this, finished = worker.finished, number,
                                                 socket = std::move(socket)]() mutable {
                        serveConnection(std::move(socket), number);
                        finished->store(true);
                    });
                    connectionsAccepted_ = number;
                } catch (const std::exception&) {
                    workers_.pop_back();
                }
            } catch (const std::exception&) {
                socket.reset();
            }
        }
    }

    // Runs on the connection's own thread.
    void serveConnection(UniqueFd socket, uint64_t number) {
        blockSigpipeOnThisThread();
        try {
            Connection connection(std::move(socket), tls_ ? tls_->context() : nullptr, stop_);
            ConnectionHandler(connection, number, log_, stop_, options_, baseUrl(), hasher_).run();
        } catch (const std::exception&) {
            // Out of memory or resources for this connection: closing it is all that can be done.
        }
    }

    // Accept thread: joins the threads of connections that have ended.
    void reapFinishedWorkers() {
        for (auto it = workers_.begin(); it != workers_.end();) {
            if (it->finished->load()) {
                it->thread.join();
                it = workers_.erase(it);
            } else {
                ++it;
            }
        }
    }

    const ReceiverOptions options_;
    RequestLog log_;
    // Every connection's body digests, in lanes: this receiver's own, not the process's shared
    // one, so that a client uploading to it from the same process keeps its rounds to itself.
    LaneHasher hasher_;
    StopSignal stop_;
    mutable std::mutex lifecycleMutex_;  // serialises start() and stop()
    bool started_ = false;               // guarded by lifecycleMutex_
    std::unique_ptr<TlsIdentity> tls_;   // set by start() before any other thread reads it
    UniqueFd listener_;                  // set by start(), closed by stop()
    std::atomic<uint16_t> port_{0};
    std::thread acceptThread_;
    std::list<Worker> workers_;         // accept thread only, until stop() has joined it
    uint64_t connectionsAccepted_ = 0;  // accept thread only
};

Receiver::Receiver(ReceiverOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Receiver::~Receiver() {
    stop();
}

void Receiver::start() {
    impl_->start();
}

void Receiver::stop() {
    impl_->stop();
}

uint16_t Receiver::port() const {
    return impl_->port();
}

std::string Receiver::baseUrl() const {
    return impl_->baseUrl();
}

std::string Receiver::partUrl(const std::string& name, uint64_t offset) const {
    return receiver::partUrl(baseUrl(), name, offset);
}

std::string Receiver::certificateFile() const {
    return impl_->certificateFile();
}

void Receiver::setFaultScript(FaultScript script) {
    impl_->log().setFaultScript(std::move(script));
}

void Receiver::setRequestObserver(RequestObserver observer) {
    impl_->log().setObserver(std::move(observer));
}

std::vector<RequestRecord> Receiver::requests() const {
    return impl_->log().snapshot();
}

int Receiver::maxConcurrentRequests() const {
    return impl_->log().maxConcurrent();
}

void Receiver::resetRecords() {
    impl_->log().reset();
}

}  // namespace pellorin::receiver
