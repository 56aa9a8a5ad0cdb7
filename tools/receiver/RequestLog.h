// What the receiver remembers about its requests: the records in arrival order, the attempt count
// per (path, part number), the number of requests being served and its high-water mark, and the
// fault script and observer. Every function takes one mutex and may be called from any thread; the
// script and the observer are copied out under the mutex and run outside it.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "receiver/Receiver.h"

namespace pellorin::receiver {

class RequestLog {
  public:
    // One request from arrival to answer. Holds the request's slot in the log (shared with the
    // log, which drops it on reset) and counts the request as being served until it completes
    // (or is destroyed). A request stops counting before its answer goes out: a client that
    // starts its next request on receiving the answer must not be seen as exceeding its limit.
    class Visit {
      public:
        ~Visit();
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        uint32_t attempt() const { return attempt_; }
        // Replaces the request's record with its final state, ends its count as being served and
        // tells the observer. Call before answering, so that a client holding its answer finds
        // the record complete.
        void complete(RequestRecord record);

      private:
        friend class RequestLog;
        Visit(RequestLog& log, std::shared_ptr<RequestRecord> slot, uint32_t attempt)
            : log_(log), slot_(std::move(slot)), attempt_(attempt) {}

        RequestLog& log_;
        std::shared_ptr<RequestRecord> slot_;
        uint32_t attempt_;
        bool serving_ = true;  // guarded by log_.mutex_
    };

    // Records a request whose head has been read; `record` holds what is known so far.
    Visit arrive(RequestRecord record);

    void setFaultScript(Receiver::FaultScript script);
    Receiver::FaultScript faultScript() const;
    void setObserver(Receiver::RequestObserver observer);

    std::vector<RequestRecord> snapshot() const;
    int maxConcurrent() const;
    void reset();

  private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<RequestRecord>> records_;  // guarded by mutex_
    std::map<std::pair<std::string, std::optional<uint64_t>>, uint32_t> attempts_;  // mutex_
    int serving_ = 0;                     // guarded by mutex_
    int maxServing_ = 0;                  // guarded by mutex_
    Receiver::FaultScript script_;        // guarded by mutex_
    Receiver::RequestObserver observer_;  // guarded by mutex_
};

}  // namespace pellorin::receiver
