// A seeded plan of server faults for long transfers against the receiver: which attempt of which
// part fails and how, drawn from a generator keyed by (seed, part, attempt) so that the plan does
// not depend on the order in which requests arrive. The plan also records what it injected, so a
// test can hold the client's report against it. Thread-safe: the receiver asks from its
// connection threads.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
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
    // Each of a part's first ten attempts fails with probability `percent`/100, spread evenly
    // over the five kinds. A stall holds the body for `stallSecs`; a drop comes after a random
    // number of body bytes below `partLength`.
    RandomFaults(uint64_t seed, unsigned percent, double stallSecs, uint64_t partLength)
        : plan_(std::make_shared<Plan>(seed, percent, stallSecs, partLength)) {}

    // The fault script for Receiver::setFaultScript. It shares the plan, so it may outlive this
    // object (connections still being served when a test ends ask it too).
    receiver::Receiver::FaultScript script() const {
        return [plan = plan_](const receiver::RequestInfo& info) { return plan->decide(info); };
    }

    // What the given attempt (0-based) of the given part was told to do; none when it was not
    // asked about or ran normally.
    InjectedFault injected(uint64_t part, uint32_t attempt) const {
        std::lock_guard lock(plan_->mutex);
        const auto found = plan_->injected.find({part, attempt});
        return found == plan_->injected.end() ? InjectedFault{} : found->second;
    }

    std::map<FaultKind, uint64_t> countsByKind() const {
        std::lock_guard lock(plan_->mutex);
        std::map<FaultKind, uint64_t> counts;
        for (const auto& [key, fault] : plan_->injected) {
            ++counts[fault.kind];
        }
        return counts;
    }

    uint64_t total() const {
        std::lock_guard lock(plan_->mutex);
        return plan_->injected.size();
    }

  private:
    struct Plan {
        std::optional<receiver::Fault> decide(const receiver::RequestInfo& info) {
            const uint64_t part = info.partNumber.value_or(0);
            if (info.attempt >= 10) {
                return std::nullopt;
            }
            std::mt19937_64 generator(seed ^ (part * 0x9e3779b97f4a7c15ULL) ^
                                      (uint64_t{info.attempt} * 0xc2b2ae3d27d4eb4fULL));
            const unsigned roll = std::uniform_int_distribution<unsigned>(0, 99)(generator);
            if (roll >= percent) {
                return std::nullopt;
            }
            InjectedFault chosen;
            receiver::Fault fault;
            switch (roll % 5) {
                case 0:
                    chosen.kind = FaultKind::serverError;
                    fault.status = 500;
                    break;
                case 1:
                    chosen.kind = FaultKind::tooManyRequests;
                    fault.status = 429;
                    fault.retryAfter = "0";
                    break;
                case 2:
                    chosen.kind = FaultKind::dropped;
                    chosen.dropAfter =
                        std::uniform_int_distribution<uint64_t>(0, partLength - 1)(generator);
                    fault.closeAfterBodyBytes = chosen.dropAfter;
                    break;
                case 3:
                    chosen.kind = FaultKind::stalled;
                    fault.stallSecs = stallSecs;
                    // Never answered: a body the client sent before giving up is not accepted late.
                    fault.closeAfterBodyBytes = 0;
                    break;
                default:
                    chosen.kind = FaultKind::wrongChecksum;
                    fault.wrongChecksum = true;
                    break;
            }
            std::lock_guard lock(mutex);
            injected[{part, info.attempt}] = chosen;
            return fault;
        }

        const uint64_t seed;
        const unsigned percent;
        const double stallSecs;
        const uint64_t partLength;
        std::mutex mutex;
        std::map<std::pair<uint64_t, uint32_t>, InjectedFault> injected;  // guarded by mutex
    };

    std::shared_ptr<Plan> plan_;
};

}  // namespace pellorin::testing
