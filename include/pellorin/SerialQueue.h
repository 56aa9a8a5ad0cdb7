// SerialQueue: one named worker thread running submitted blocks one at a time, in FIFO order.
//
// Used for every "queue of width 1" of the library (the client's delegate queue and scheduling
// queue, run loops of streams) and by hosts that want their delegates called on a queue of their
// own. Share it with std::shared_ptr. Destroying the queue runs the blocks already submitted and
// then ends the worker; dropping the last reference from inside one of its own blocks is allowed.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <pellorin/Export.h>

namespace pellorin {

class PELLORIN_EXPORT SerialQueue {
  public:
    // Starts the queue's thread; throws std::system_error when the system refuses one (out of
    // threads), so that whoever makes the queue can fail cleanly instead of the process aborting.
    explicit SerialQueue(std::string label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    static std::shared_ptr<SerialQueue> make(std::string label) {
        return std::make_shared<SerialQueue>(std::move(label));
    }

    // Submits a block and returns at once. Any thread.
    void async(std::function<void()> block);
    // Submits a block and waits until it has run. Calling it from the queue's own thread would
    // wait on itself: that is a fatal stop.
    void sync(const std::function<void()>& block);
    // True when called from a block running on this queue.
    bool isCurrent() const;
    const std::string& label() const { return label_; }

  private:
    struct State;
    std::string label_;
    std::shared_ptr<State> state_;
};

}  // namespace pellorin
