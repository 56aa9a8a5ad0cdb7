#include "Platform/RepeatingTimer.h"

#include <cmath>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Platform/WorkerThreads.h"

namespace pellorin {

struct RepeatingTimer::State {
    std::mutex mutex;
    std::condition_variable wake;
    bool cancelled = false;  // guarded by mutex
    std::thread thread;
    std::thread::id threadId;
};

RepeatingTimer::RepeatingTimer(std::chrono::system_clock::time_point firstDeadline,
                               double intervalSecs, double /*leewaySecs*/,
                               std::function<void()> handler)
    : state_(std::make_shared<State>()) {
    if (!(intervalSecs > 0.0) || !std::isfinite(intervalSecs)) {
        return;  // never fires
    }
    // Ticks are scheduled on the steady clock, so that a change of the wall clock neither
    // bunches nor stops them; the first deadline is converted once.
    const auto interval = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(intervalSecs));
    const auto first = std::chrono::steady_clock::now() +
                       std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           firstDeadline - std::chrono::system_clock::now());
    std::shared_ptr<State> state = state_;
    state_->thread = std::thread([state, first, interval, handler = std::move(handler)] {
        auto next = first;
        std::unique_lock lock(state->mutex);
        for (;;) {
            if (state->wake.wait_until(lock, next, [&] { return state->cancelled; })) {
                break;
            }
            lock.unlock();
            handler();
            lock.lock();
            next += interval;
            const auto now = std::chrono::steady_clock::now();
            if (next < now) {
                next = now;  // fell behind (a slow handler): tick once now, do not burst
            }
        }
        lock.unlock();
        workerThreads::workerThreadFinishing();
    });
    state_->threadId = state_->thread.get_id();
}

RepeatingTimer::~RepeatingTimer() {
    cancel();
    if (!state_->thread.joinable()) {
        return;
    }
    if (std::this_thread::get_id() == state_->threadId) {
        state_->thread.detach();
        workerThreads::markCurrentThreadDetached();
    } else {
        state_->thread.join();
    }
}

void RepeatingTimer::cancel() {
    {
        std::lock_guard lock(state_->mutex);
        state_->cancelled = true;
    }
    state_->wake.notify_all();
}

}  // namespace pellorin
