// The receiver's MD5 for every connection at once: connections reading bodies hand their chunks to
// one shared hasher, which advances all the chunks waiting at that moment in one Md5Lanes round,
// so that one core hashes several bodies side by side in SIMD lanes instead of one after another.
//
// Flat combining: a connection thread that has read a chunk submits it and waits; when a round is
// due and no thread is hashing, the thread that notices (the submitter, or a thread going idle or
// leaving) takes every waiting chunk, hashes them together, and wakes their owners. A round is due
// when no member is still on its way to submitting (every other body's thread is waiting for a
// round, waiting for its socket, or gone), when the widest lanes are full, or when the oldest
// chunk has waited kMaxWait (a thread busy elsewhere holds nobody up for long). A body alone in
// the hasher is hashed on its own thread at once, on the one-stream path.
//
// Ownership: one LaneHasher per Receiver, outliving every connection thread. A Member is one
// connection's place in it, owned and used by that connection's thread only; a submitted chunk
// and its stream belong to the round until submit() returns, which it always does (a combiner
// finishes every round it took). Memory: one waiting chunk per connection, never copied.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "datapath/Md5Lanes.h"

namespace pellorin::receiver {

class LaneHasher {
  public:
    // The longest a chunk waits for others to join its round.
    static constexpr std::chrono::milliseconds kMaxWait{4};
    // A round this large starts at once: the widest kernel's lanes are full.
    static constexpr size_t kFullRound = 16;

    struct Stats {
        uint64_t rounds = 0;       // rounds hashed
        uint64_t roundChunks = 0;  // chunks hashed in rounds
        uint64_t aloneChunks = 0;  // chunks hashed on the one-stream path (a body alone)
        uint64_t lateRounds = 0;   // rounds started because a chunk had waited kMaxWait
        Md5Lanes::Occupancy lanes;
    };

    LaneHasher() = default;
    // With PELLORIN_MD5_LANES_STATS set, writes stats() to stderr (a benchmark diagnostic).
    ~LaneHasher();
    LaneHasher(const LaneHasher&) = delete;
    LaneHasher& operator=(const LaneHasher&) = delete;

    // Any thread.
    Stats stats() const;

    class Member {
      public:
        explicit Member(LaneHasher& hasher) : hasher_(hasher) {}
        ~Member() { leave(); }  // a thread ending mid-body leaves too
        Member(const Member&) = delete;
        Member& operator=(const Member&) = delete;

        // A body starts: from now on the hasher counts on this member's chunks.
        void join();
        // Advances `stream` by `bytes`, in a round with other members' chunks or alone; returns
        // once done. False when the round failed (out of memory): the stream is then unusable.
        bool submit(Md5Stream& stream, std::span<const uint8_t> bytes);
        // The member's thread starts (true) or stops (false) waiting for its socket: no round
        // waits for an idle member. No effect outside a body.
        void setIdle(bool idle);
        // The body is over (read, dropped or failed). Idempotent.
        void leave();

      private:
        LaneHasher& hasher_;
        bool joined_ = false;
        bool idle_ = false;
    };

  private:
    struct Job {
        Md5Stream* stream;
        std::span<const uint8_t> bytes;
        std::chrono::steady_clock::time_point deadline;
        bool done = false;
        bool failed = false;
    };

    // Under the lock: whether a round should start now.
    bool dueLocked(std::chrono::steady_clock::time_point now) const;
    // Under the lock, held again on return: runs rounds while one is due and nobody else hashes.
    void combineWhileDue(std::unique_lock<std::mutex>& lock);

    mutable std::mutex mutex_;
    std::condition_variable roundDone_;
    // Guarded by mutex_. Every joined member is in exactly one state: coming (reading or about to
    // submit), idle, or owning a pending or in-round job; active counts them all.
    size_t active_ = 0;
    size_t coming_ = 0;
    std::vector<Job*> pending_;  // oldest first
    bool combining_ = false;
    Stats stats_;
    Md5Lanes lanes_;  // the combiner only (occupancy from any thread)
};

}  // namespace pellorin::receiver
