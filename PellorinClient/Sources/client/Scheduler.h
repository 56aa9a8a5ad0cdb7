// Scheduler: the scheduling state the host's thread, the scheduling loop and the delegate queue
// share (waiting parts, parts being started, attempts in flight, cancellation), behind one mutex.
// Every question that spans these ("is anything left?") is answered inside one critical section,
// so no part can slip between two reads. Every member function may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include <pellorin/FilePartRequest.h>

namespace pellorin {

class FilePartRequestDelegate;
class HttpSession;

class Scheduler {
  public:
    using TimePoint = std::chrono::system_clock::time_point;

    // Adds a part to the wait queue. Retried parts carry a later notBefore, which orders the
    // queue but does not hold the part back. Refused (false) once cancellation has begun.
    bool enqueue(TimePoint notBefore, std::shared_ptr<FilePartRequest> part);
    bool hasWaiting() const;

    enum class Take { taken, notReady, empty, cancelled };
    // Takes the waiting part with the earliest notBefore and counts it as starting (`taken`).
    // Only the magnitude of the distance to now counts: a part whose notBefore is exactly now
    // stays at the front of the queue (`notReady`), every other one starts.
    Take takeNext(std::shared_ptr<FilePartRequest>& part);
    // The attempt of a part from takeNext is in flight. True when cancellation has begun
    // meanwhile: its session was not among those cancelled, so the caller cancels it.
    bool attemptRegistered(std::shared_ptr<FilePartRequestDelegate> attempt);
    // The attempt's session has ended. True when the client is now idle.
    bool attemptEnded(const FilePartRequestDelegate& attempt);
    // No part waiting, starting or in flight.
    bool isIdle() const;

    struct Cancellation {
        std::vector<std::shared_ptr<FilePartRequest>> waiting;  // in queue order, never started
        std::vector<std::shared_ptr<HttpSession>> sessions;     // of the attempts in flight
    };
    // Marks the client cancelled and empties the wait queue in one step, so a part is either
    // failed by the canceller or started by the loop, never both.
    Cancellation beginCancel();
    bool isCancelled() const;

  private:
    struct Entry {
        TimePoint notBefore;
        std::shared_ptr<FilePartRequest> part;
    };
    bool isIdleLocked() const;

    mutable std::mutex mutex_;
    std::deque<Entry> waiting_;  // guarded by mutex_; taken from the front, in constant time
    int64_t starting_ = 0;       // guarded by mutex_
    std::vector<std::shared_ptr<FilePartRequestDelegate>> inFlight_;  // guarded by mutex_
    bool cancelled_ = false;                                          // guarded by mutex_
};

}  // namespace pellorin
