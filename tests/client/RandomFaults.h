// A seeded plan of server faults for long transfers against the receiver: which attempt of which
// part fails and how, drawn from a generator keyed by (seed, part, attempt) so that the plan does
// not depend on the order in which requests arrive. The plan also records what it injected, so a
// test can hold the client's report against it. Thread-safe: the receiver asks from its
// connection threads.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <utility>

#include "receiver/Receiver.h"

namespace pellorin::testing {

enum class FaultKind { none, serverError, tooManyRequests, dropped, stalled, wrongChecksum };

struct InjectedFault {
    FaultKind kind = FaultKind::none;
    uint64_t dropAfter = 0;  // body bytes the receiver read before dropping (dropped only)
};

class RandomFaults {
  public:
    // Each attempt below `faultyAttempts` fails with probability `percent`/100, spread evenly
    // over the five kinds. A stall holds the body for `stallSecs`; a drop comes after a random
    // number of body bytes below `partLength`.
    RandomFaults(uint64_t seed, unsigned percent, double stallSecs, uint64_t partLength,
                 uint32_t faultyAttempts = 10)
        : seed_(seed),
          percent_(percent),
          stallSecs_(stallSecs),
          partLength_(partLength),
          faultyAttempts_(faultyAttempts) {}

    // The fault script for Receiver::setFaultScript. The RandomFaults must outlive the receiver.
    receiver::Receiver::FaultScript script() {
        return [this](const receiver::RequestInfo& info) { return decide(info); };
    }

    // What the given attempt (0-based) of the given part was told to do; none when it was not
    // asked about or ran normally.
    InjectedFault injected(uint64_t part, uint32_t attempt) const {
        std::lock_guard lock(mutex_);
        const auto found = injected_.find({part, attempt});
        return found == injected_.end() ? InjectedFault{} : found->second;
    }

    std::map<FaultKind, uint64_t> countsByKind() const {
        std::lock_guard lock(mutex_);
        std::map<FaultKind, uint64_t> counts;
        for (const auto& [key, fault] : injected_) {
            ++counts[fault.kind];
        }
        return counts;
    }

    uint64_t total() const {
        std::lock_guard lock(mutex_);
        return injected_.size();
    }

  private:
    std::optional<receiver::Fault> decide(const receiver::RequestInfo& info) {
        const uint64_t part = info.partNumber.value_or(0);
        if (info.attempt >= faultyAttempts_) {
            return std::nullopt;
        }
        std::mt19937_64 generator(seed_ ^ (part * 0x9e3779b97f4a7c15ULL) ^
                                  (uint64_t{info.attempt} * 0xc2b2ae3d27d4eb4fULL));
        const unsigned roll = std::uniform_int_distribution<unsigned>(0, 99)(generator);
        if (roll >= percent_) {
            return std::nullopt;
        }
        InjectedFault injected;
        receiver::Fault fault;
        switch (roll % 5) {
            case 0:
                injected.kind = FaultKind::serverError;
                fault.status = 500;
                break;
            case 1:
                injected.kind = FaultKind::tooManyRequests;
                fault.status = 429;
                fault.retryAfter = "0";
                break;
            case 2:
                injected.kind = FaultKind::dropped;
                injected.dropAfter =
                    std::uniform_int_distribution<uint64_t>(0, partLength_ - 1)(generator);
                fault.closeAfterBodyBytes = injected.dropAfter;
                break;
            case 3:
                injected.kind = FaultKind::stalled;
                fault.stallSecs = stallSecs_;
                // Never answered: a body the client sent before giving up is not accepted late.
                fault.closeAfterBodyBytes = 0;
                break;
            default:
                injected.kind = FaultKind::wrongChecksum;
                fault.wrongChecksum = true;
                break;
        }
        std::lock_guard lock(mutex_);
        injected_[{part, info.attempt}] = injected;
        return fault;
    }

    const uint64_t seed_;
    const unsigned percent_;
    const double stallSecs_;
    const uint64_t partLength_;
    const uint32_t faultyAttempts_;
    mutable std::mutex mutex_;
    std::map<std::pair<uint64_t, uint32_t>, InjectedFault> injected_;  // guarded by mutex_
};

}  // namespace pellorin::testing
