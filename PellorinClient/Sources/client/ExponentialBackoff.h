// ExponentialBackoff: the wait before retrying a part after a network error.
#pragma once

#include <cmath>
#include <cstddef>

namespace pellorin {

struct ExponentialBackoff {
    double base;
    double scale;

    // scale × base^retryCount seconds: no jitter, no bounds (the retry budget is the limit).
    double delayTimeForRetryCount(size_t retryCount) const {
        return scale * std::pow(base, static_cast<double>(retryCount));
    }
};

}  // namespace pellorin
