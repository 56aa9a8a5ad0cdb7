#include "SignalWatcher.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "HostError.h"

namespace pellorin::host {

namespace {

sigset_t terminationSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void blockTerminationSignals() {
    const sigset_t set = terminationSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalWatcher::SignalWatcher(std::function<void(int signal)> onSignal)
    : onSignal_(std::move(onSignal)) {
    const sigset_t set = terminationSignals();
    signalFd_ = ::signalfd(-1, &set, SFD_CLOEXEC);
    stopFd_ = ::eventfd(0, EFD_CLOEXEC);
    if (signalFd_ < 0 || stopFd_ < 0) {
        const std::string reason = std::strerror(errno);
        if (signalFd_ >= 0) {
            ::close(signalFd_);
        }
        if (stopFd_ >= 0) {
            ::close(stopFd_);
        }
        throw std::runtime_error("cannot watch for signals: " + reason);
    }
    thread_ = std::thread([this] { run(); });
}

SignalWatcher::~SignalWatcher() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(stopFd_, &one, sizeof one);
    thread_.join();
    ::close(signalFd_);
    ::close(stopFd_);
}

void SignalWatcher::run() {
    pollfd entries[2] = {{signalFd_, POLLIN, 0}, {stopFd_, POLLIN, 0}};
    for (;;) {
        if (::poll(entries, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (entries[1].revents != 0) {
            return;
        }
        signalfd_siginfo info{};
        if (::read(signalFd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) {
            continue;
        }
        if (signalled_.exchange(true)) {
            static constexpr char kText[] = "\npellorin: interrupted again; stopping now\n";
            [[maybe_unused]] const ssize_t written =
                ::write(STDERR_FILENO, kText, sizeof kText - 1);
            ::_exit(kExitInterrupted);
        }
        onSignal_(static_cast<int>(info.ssi_signo));
    }
}

}  // namespace pellorin::host
