#include "client/Scheduler.h"

#include <algorithm>

#include "client/FilePartRequestDelegate.h"

namespace pellorin {

bool Scheduler::enqueue(TimePoint notBefore, std::shared_ptr<FilePartRequest> part) {
    std::lock_guard lock(mutex_);
    if (cancelled_) {
        return false;
    }
    // Kept in notBefore order; parts with equal notBefore in the order they came.
    const auto at = std::upper_bound(waiting_.begin(), waiting_.end(), notBefore,
                                     [](TimePoint t, const Entry& e) { return t < e.notBefore; });
    waiting_.insert(at, {notBefore, std::move(part)});
    return true;
}

bool Scheduler::hasWaiting() const {
    std::lock_guard lock(mutex_);
    return !waiting_.empty();
}

Scheduler::Take Scheduler::takeNext(std::shared_ptr<FilePartRequest>& part) {
    std::lock_guard lock(mutex_);
    if (cancelled_) {
        return Take::cancelled;
    }
    if (waiting_.empty()) {
        return Take::empty;
    }
    if (waiting_.front().notBefore == std::chrono::system_clock::now()) {
        return Take::notReady;  // stays the earliest
    }
    Entry entry = std::move(waiting_.front());
    waiting_.pop_front();
    part = std::move(entry.part);
    ++starting_;
    return Take::taken;
}

bool Scheduler::attemptRegistered(std::shared_ptr<FilePartRequestDelegate> attempt) {
    std::lock_guard lock(mutex_);
    inFlight_.push_back(std::move(attempt));
    --starting_;
    return cancelled_;
}

bool Scheduler::attemptEnded(const FilePartRequestDelegate& attempt) {
    std::lock_guard lock(mutex_);
    std::erase_if(inFlight_, [&](const auto& each) { return each.get() == &attempt; });
    return isIdleLocked();
}

bool Scheduler::isIdle() const {
    std::lock_guard lock(mutex_);
    return isIdleLocked();
}

bool Scheduler::isIdleLocked() const {
    return waiting_.empty() && starting_ == 0 && inFlight_.empty();
}

Scheduler::Cancellation Scheduler::beginCancel() {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    Cancellation cancellation;
    for (Entry& entry : waiting_) {
        cancellation.waiting.push_back(std::move(entry.part));
    }
    waiting_.clear();
    for (const auto& attempt : inFlight_) {
        if (auto session = attempt->currentSession()) {
            cancellation.sessions.push_back(std::move(session));
        }
    }
    return cancellation;
}

bool Scheduler::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

}  // namespace pellorin
