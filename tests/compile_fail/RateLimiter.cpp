// Only RateLimiter's factories make a limiter. Built twice: with CONTROL the factory call must
// compile, without it the direct construction must not.
#include <memory>

#include "datapath/RateLimiter.h"

int main() {
#ifdef CONTROL
    auto limiter = pellorin::RateLimiter::makeManual(1000);
#else
    pellorin::RateLimiter direct({}, 1000);
    auto limiter = &direct;
#endif
    return limiter ? 0 : 1;
}
