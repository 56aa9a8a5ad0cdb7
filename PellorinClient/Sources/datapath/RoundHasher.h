// RoundHasher: the process's one "Hash Round" thread, which reads ahead for the MD5 parts in
// flight and hashes them a round at a time in Md5Lanes, so that the lanes have data from every
// part at once. PartReadAhead is one part's side of it: the buffers read ahead and published
// to the part's body stream, which serves the transfer from them.
//
// A round: the thread takes every registered part in lane mode that has a buffer free and bytes
// left, preads up to one buffer of the part's range into it (file to memory, not metered: the
// body stream meters bytes as it hands them to the transfer), hashes all of them in one
// Md5Lanes::hashRound, and only then publishes each buffer. A byte is hashed before it is
// served, from the very memory that is served: the file is read once.
//
// Ownership: RoundHasher::shared() is created on first use and held by a static and by every
// body stream that may join it; its thread runs while parts are registered, ends when none are
// left (it is started again by the next one) and is joined when the hasher goes away. The
// registry holds PartReadAhead by shared_ptr; a round holds the parts it works on until it
// publishes, so a part closed or destroyed mid-round is simply discarded then. A PartReadAhead
// holds its SharedFile, so the descriptor outlives any round reading it.
//
// Threads: join/leave/poke/parts/occupancy from any thread. Lock order: the registry mutex,
// then a part's mutex; a body stream never takes the registry mutex while holding its part's.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "datapath/Md5Lanes.h"
#include "datapath/SharedFile.h"

namespace pellorin {

// One buffer read ahead for a part, published once hashed.
struct ReadAheadBuffer {
    std::unique_ptr<uint8_t[]> data;
    size_t size = 0;    // bytes read into it
    size_t served = 0;  // bytes handed to the transfer so far
    Md5Stream before;   // the part's digest before these bytes (the digest of what was served
                        // is `before` plus data[0, served))
};

// One part's read-ahead. Every field below `mutex` is guarded by it. Filled by the round
// thread; served, rewound and closed by the part's body stream on its transfer thread.
struct PartReadAhead {
    // The most bytes one buffer holds, and the buffers a part may hold at once (published plus
    // one being filled): memory is bounded by parts in flight, never by part size.
    static constexpr size_t kBufferSize = 512 * 1024;
    static constexpr size_t kBuffersPerPart = 2;

    PartReadAhead(std::shared_ptr<SharedFile> file, uint64_t end)
        : file(std::move(file)), end(end) {}

    const std::shared_ptr<SharedFile> file;
    const uint64_t end;  // one past the part's last byte in the file

    std::mutex mutex;
    std::condition_variable published;  // a buffer or an error was published

    bool laneMode = false;    // the round thread reads ahead for this part
    uint64_t generation = 0;  // bumped by every restart: a round's result for an older one is
                              // dropped
    uint64_t nextOffset = 0;  // where read-ahead goes on
    Md5Stream md5;            // the digest of every byte published in this generation
    std::deque<ReadAheadBuffer> ready;     // published, oldest (the one being served) first
    std::unique_ptr<uint8_t[]> spare;      // a drained buffer kept for the next round
    bool inRound = false;                  // a round is filling a buffer for this part
    bool waiting = false;                  // the body stream waits for a buffer
    std::optional<SharedFileError> error;  // the read-ahead at nextOffset failed

    // True when the next round should read ahead for this part.
    bool eligibleLocked() const {
        return laneMode && !inRound && !error && ready.size() < kBuffersPerPart && nextOffset < end;
    }
    // The digest of exactly the bytes served in this generation.
    Md5Stream servedDigestLocked() const;
    // Drops every buffer and any round's result to come (generation bumped).
    void restartLocked();
};

class RoundHasher {
  public:
    // The process's hasher, created on first call.
    static std::shared_ptr<RoundHasher> shared();
    // Whether MD5 body streams made from now on join the hasher: off unless the environment
    // variable PELLORIN_MD5_LANES is "1" at the first call, or setEnabled says otherwise.
    static bool enabled();
    static void setEnabled(bool enabled);
    // How long a body stream waits at most for its next buffer before it reads by itself: a
    // late round (a slow disk, a loaded machine) costs the part its lanes, never its progress,
    // and a cancelled transfer is never held longer than this by a body read. 50 ms unless set
    // (tests under sanitizers, where rounds are slow, set more).
    static std::chrono::milliseconds bufferWait();
    static void setBufferWait(std::chrono::milliseconds wait);

    RoundHasher() = default;
    // Stops and joins the thread (no part is registered by then: streams hold the hasher).
    // With PELLORIN_MD5_LANES_STATS set, writes the round and occupancy counts to stderr.
    ~RoundHasher();
    RoundHasher(const RoundHasher&) = delete;
    RoundHasher& operator=(const RoundHasher&) = delete;

    // Registers a part, starting the thread if it is not running; false (nothing registered)
    // when no thread can be started: the part then reads by itself. / Unregisters a part.
    bool join(std::shared_ptr<PartReadAhead> part);
    void leave(const PartReadAhead* part);
    // The parts registered now.
    size_t parts() const { return count_.load(std::memory_order_acquire); }
    // A part's state changed (a buffer freed, a stream waiting): the thread looks again.
    void poke();

    Md5Lanes::Occupancy occupancy() const { return lanes_.occupancy(); }
    // Rounds hashed so far.
    uint64_t rounds() const { return rounds_.load(std::memory_order_relaxed); }

  private:
    struct Job;
    void run();
    // Under mutex_: how many parts are in lane mode, eligible, and eligible with a waiting
    // stream.
    struct Census {
        size_t laneParts = 0;
        size_t eligible = 0;
        bool someoneWaits = false;
    };
    Census censusLocked() const;
    std::vector<Job> gatherLocked();
    static void fill(Job& job);
    static void publish(Job& job);

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<std::shared_ptr<PartReadAhead>> parts_;  // guarded by mutex_
    uint64_t changes_ = 0;                               // guarded by mutex_
    bool running_ = false;                               // guarded by mutex_
    bool stopping_ = false;                              // guarded by mutex_
    std::thread thread_;                                 // guarded by mutex_
    std::atomic<size_t> count_{0};
    std::atomic<uint64_t> rounds_{0};
    Md5Lanes lanes_;  // the round thread only (occupancy from any thread)
};

}  // namespace pellorin
