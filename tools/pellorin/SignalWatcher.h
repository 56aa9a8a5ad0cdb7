// SignalWatcher: turns SIGINT and SIGTERM into a call on a thread of its own, so that the host can
// cancel a transfer cleanly (no work in a signal handler). A second signal ends the process at
// once with status 130.
//
// blockTerminationSignals() must run on the main thread before any other thread starts: every
// thread inherits the blocked mask, so the signals stay pending until the watcher's signalfd
// reads them. The watcher is made and destroyed on the host thread; `onSignal` runs on the
// watcher's thread.
#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace pellorin::host {

// Blocks SIGINT and SIGTERM in the calling thread (and so in every thread it starts later).
void blockTerminationSignals();

class SignalWatcher {
  public:
    // Starts watching. `onSignal` gets the signal number of the first signal.
    explicit SignalWatcher(std::function<void(int signal)> onSignal);
    // Stops watching and joins the thread; a signal that arrives later stays pending and blocked.
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    bool signalled() const { return signalled_; }

  private:
    void run();

    std::function<void(int)> onSignal_;
    int signalFd_ = -1;  // reads SIGINT and SIGTERM; owned
    int stopFd_ = -1;    // eventfd written by the destructor; owned
    std::atomic<bool> signalled_{false};
    std::thread thread_;
};

}  // namespace pellorin::host
