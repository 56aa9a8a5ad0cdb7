#include "datapath/RateLimiter.h"

#include <cmath>
#include <string>

#include "Platform/Fatal.h"

namespace pellorin {

namespace {

constexpr uint64_t kRefillsPerSecond = 100;
constexpr double kTimerLeewaySecs = 200e-9;

std::chrono::system_clock::time_point afterDelay(double seconds) {
    if (!std::isfinite(seconds)) {
        return std::chrono::system_clock::time_point::max();
    }
    return std::chrono::system_clock::now() +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(
               std::chrono::duration<double>(seconds));
}

}  // namespace

std::shared_ptr<RateLimiter> RateLimiter::make(uint64_t permitsPerSecond) {
    auto limiter = makeManual(permitsPerSecond);
    limiter->startTimer();
    return limiter;
}

std::shared_ptr<RateLimiter> RateLimiter::makeManual(uint64_t permitsPerSecond) {
    return std::make_shared<RateLimiter>(Token{}, permitsPerSecond);
}

RateLimiter::RateLimiter(Token, uint64_t permitsPerSecond)
    : permitsPerSecond_(permitsPerSecond),
      permitsPerAllocation_(
          permitsPerSecond < kRefillsPerSecond ? 1 : permitsPerSecond / kRefillsPerSecond),
      // 1.0 / 0 is infinite: a limiter of rate 0 has one permit and never refills.
      delayConstant_(permitsPerSecond < kRefillsPerSecond
                         ? 1.0 / static_cast<double>(permitsPerSecond)
                         : 1.0 / static_cast<double>(kRefillsPerSecond)),
      availablePermits_(permitsPerAllocation_),
      nextRefresh_(afterDelay(delayConstant_)) {}

RateLimiter::~RateLimiter() {
    if (refreshTimer_) {
        refreshTimer_->cancel();
    }
}

void RateLimiter::startTimer() {
    std::weak_ptr<RateLimiter> weakSelf = weak_from_this();
    refreshTimer_ = std::make_unique<RepeatingTimer>(nextRefresh(), delayConstant_,
                                                     kTimerLeewaySecs, [weakSelf] {
                                                         if (auto self = weakSelf.lock()) {
                                                             self->refresh();
                                                         }
                                                     });
}

RateLimiter::Grant RateLimiter::acquire(int64_t upTo) {
    if (upTo < 0) {
        fatalError("RateLimiter::acquire: negative count " + std::to_string(upTo));
    }
    const auto wanted = static_cast<uint64_t>(upTo);
    std::lock_guard lock(mutex_);
    if (availablePermits_ <= wanted) {
        const uint64_t granted = availablePermits_;
        availablePermits_ = 0;
        return {granted, true};
    }
    availablePermits_ -= wanted;
    return {wanted, false};
}

void RateLimiter::refresh() {
    const auto next = afterDelay(delayConstant_);
    std::lock_guard lock(mutex_);
    availablePermits_ = permitsPerAllocation_;
    nextRefresh_ = next;
}

uint64_t RateLimiter::availablePermits() const {
    std::lock_guard lock(mutex_);
    return availablePermits_;
}

std::chrono::system_clock::time_point RateLimiter::nextRefresh() const {
    std::lock_guard lock(mutex_);
    return nextRefresh_;
}

}  // namespace pellorin
