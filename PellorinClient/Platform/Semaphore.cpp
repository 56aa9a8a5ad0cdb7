#include "Platform/Semaphore.h"

namespace pellorin {

long Semaphore::signal() {
    std::lock_guard lock(mutex_);
    ++value_;
    if (waiters_ > 0) {
        available_.notify_one();
        return 1;
    }
    return 0;
}

void Semaphore::wait() {
    std::unique_lock lock(mutex_);
    ++waiters_;
    available_.wait(lock, [&] { return value_ > 0; });
    --waiters_;
    --value_;
}

bool Semaphore::waitUntil(std::chrono::system_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    ++waiters_;
    const bool got = available_.wait_until(lock, deadline, [&] { return value_ > 0; });
    --waiters_;
    if (got) {
        --value_;
    }
    return got;
}

}  // namespace pellorin
