// A one-way stop flag that blocked threads can wait on: an eventfd that becomes readable, and stays
// readable, once raised. Connection threads poll it beside their socket, so raising it wakes every
// read, write, stall and delay at once. Any thread; the owner must outlive every waiter.
#pragma once

#include <atomic>

#include "receiver/UniqueFd.h"

namespace pellorin::receiver {

class StopSignal {
  public:
    StopSignal();  // throws std::runtime_error when no eventfd can be made
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    void raise();
    bool raised() const { return raised_.load(std::memory_order_acquire); }
    // Sleeps for up to `seconds`; returns true when the signal was raised before or meanwhile.
    bool waitFor(double seconds) const;
    // Readable once raised; for poll() beside other descriptors.
    int fd() const { return fd_.get(); }

  private:
    UniqueFd fd_;
    std::atomic<bool> raised_{false};  // the cheap check for loops that never wait
};

}  // namespace pellorin::receiver
