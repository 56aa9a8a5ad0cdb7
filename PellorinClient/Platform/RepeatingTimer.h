// RepeatingTimer: calls a handler at a first wall-clock deadline and then every interval, on a
// thread of its own, until it is cancelled or destroyed.
//
// The handler must not keep its target alive: hold the target weakly and do nothing when it is
// gone. Destroying the timer stops it and waits for a running handler, except when the timer is
// destroyed from its own handler (then the thread finishes on its own).
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace pellorin {

class RepeatingTimer {
  public:
    // interval and leeway in seconds. An interval that is not a positive finite number makes a
    // timer that never fires. The leeway is accepted for the record; ticks are as punctual as
    // the thread scheduler allows.
    RepeatingTimer(std::chrono::system_clock::time_point firstDeadline, double intervalSecs,
                   double leewaySecs, std::function<void()> handler);
    ~RepeatingTimer();
    RepeatingTimer(const RepeatingTimer&) = delete;
    RepeatingTimer& operator=(const RepeatingTimer&) = delete;

    // Stops future ticks. Any thread.
    void cancel();

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace pellorin
