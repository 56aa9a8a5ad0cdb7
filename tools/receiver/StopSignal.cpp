#include "receiver/StopSignal.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace pellorin::receiver {

StopSignal::StopSignal() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!fd_) {
        throw std::runtime_error(std::string("Receiver cannot create its stop signal: ") +
                                 std::strerror(errno));
    }
}

void StopSignal::raise() {
    // The counter is never read back, so the descriptor stays readable from now on.
    raised_.store(true, std::memory_order_release);
    const uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(fd_.get(), &one, sizeof one);
}

bool StopSignal::waitFor(double seconds) const {
    using Clock = std::chrono::steady_clock;
    // Capped at a day so that the conversion cannot overflow; nothing here waits that long.
    const auto wait = std::chrono::duration<double>(std::clamp(seconds, 0.0, 86400.0));
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(wait);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry{fd_.get(), POLLIN, 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
        if (ready > 0) {
            return true;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (ready == 0 && Clock::now() >= deadline) {
            return false;
        }
    }
}

}  // namespace pellorin::receiver
