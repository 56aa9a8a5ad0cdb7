// LaneHasher: hashes the chunks that the MD5 parts in flight read at about the same time
// together, in Md5Lanes, on the threads that read them. MD5 is serial within a part, so one
// part alone leaves most of a core's SIMD width idle; the parts in flight are independent, and
// their transfer threads each read a chunk of their range into libcurl's buffer at a steady
// pace. Each thread hands its chunk in and waits; the one that completes the round (every
// joined part that is not late has a chunk in) or finds the round's gather window over hashes
// all of the chunks in one Md5Lanes::hashRound, then wakes the others. A part missing from a
// round closed by its window is late: rounds stop waiting for it until its next chunk comes,
// so a part held up by its server costs the others one window per chunk it sends, not one per
// round. No extra thread, no copy and no read-ahead: a chunk is hashed in the very buffer that
// is sent, before it is sent.
//
// Ownership: LaneHasher::shared() is created on first use and held by a static and by every
// body stream that may join it. A chunk handed in belongs to the thread that handed it in,
// which does not return until the chunk is hashed (by itself or by another thread), so the
// hasher never holds a chunk or a stream beyond one call.
//
// Threads: every function from any thread. A call to hash() waits at most the gather window
// plus one round's hashing (a round is at most one upload buffer per part): it never depends
// on another part's progress beyond that.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "datapath/Md5Lanes.h"

namespace pellorin {

class LaneHasher {
  public:
    // The process's hasher, created on first call.
    static std::shared_ptr<LaneHasher> shared();
    // Whether MD5 body streams made from now on hash with the others: on unless the
    // environment variable PELLORIN_MD5_LANES is "0" at the first call, or setEnabled says
    // otherwise.
    static bool enabled();
    static void setEnabled(bool enabled);
    // How long a chunk waits at most for the other parts' chunks before its round is hashed
    // with whatever has come: a part held up by its server, its disk or the rate limiter costs
    // the others at most this per round, never their progress.
    static std::chrono::microseconds gatherWindow();
    static void setGatherWindow(std::chrono::microseconds window);
    // Chunks shorter than this are hashed at once by their own thread: too little to be worth
    // a wait (a rate-limited read, the head of a small part).
    static constexpr size_t kSmallestShared = 16 * 1024;

    LaneHasher() = default;
    // With PELLORIN_MD5_LANES_STATS set, writes the round and occupancy counts to stderr.
    ~LaneHasher();
    LaneHasher(const LaneHasher&) = delete;
    LaneHasher& operator=(const LaneHasher&) = delete;

    // One part's place in the rounds, owned by its body stream. Fields are the hasher's
    // (guarded by its mutex).
    class Member {
      private:
        friend class LaneHasher;
        bool joined = false;
        bool late = false;     // missed the last round closed by its window
        bool pending = false;  // has a chunk in the round being gathered
    };

    // A part that will read more of its range joins; it leaves when it has read the last byte,
    // closes or goes away. A round is complete when every joined part has a chunk in, so a part
    // that will read no more must leave, or rounds wait out the window for it. Joining twice or
    // leaving when not joined does nothing.
    void join(Member& member);
    void leave(Member& member);
    size_t parts() const;

    // Advances `stream` by `bytes`: with the chunks the other parts hand in meanwhile, or alone
    // (Md5Stream::update) when no other part is joined or the chunk is small.
    void hash(Member& member, Md5Stream& stream, std::span<const uint8_t> bytes);

    Md5Lanes::Occupancy occupancy() const { return lanes_.occupancy(); }
    // Rounds hashed together so far, and the chunks in them.
    uint64_t rounds() const;
    uint64_t chunks() const;

  private:
    struct Chunk;
    // Hashes every pending chunk (the caller's among them) and marks them done; when the
    // window closed the round, the joined parts without a chunk in it become late. Called with
    // `lock` held and combining_ false; returns with it held.
    void combineLocked(std::unique_lock<std::mutex>& lock, bool windowClosed);

    mutable std::mutex mutex_;
    std::condition_variable done_;
    std::vector<Chunk*> pending_;   // guarded by mutex_
    std::vector<Member*> members_;  // guarded by mutex_: the joined parts
    size_t late_ = 0;               // guarded by mutex_: joined parts that are late
    bool combining_ = false;        // guarded by mutex_
    std::chrono::steady_clock::time_point roundDeadline_;  // guarded by mutex_
    uint64_t rounds_ = 0;                                  // guarded by mutex_
    uint64_t chunks_ = 0;                                  // guarded by mutex_
    // The combining thread only (occupancy from any thread): the round being hashed, its jobs,
    // and the engine.
    std::vector<Chunk*> round_;
    std::vector<Md5Lanes::Job> jobs_;
    Md5Lanes lanes_;
};

}  // namespace pellorin
