#include "receiver/LaneHasher.h"

#include <cstdio>
#include <cstdlib>

namespace pellorin::receiver {

using Clock = std::chrono::steady_clock;

LaneHasher::~LaneHasher() {
    if (std::getenv("PELLORIN_MD5_LANES_STATS") == nullptr) {
        return;
    }
    const Stats s = stats();
    std::fprintf(
        stderr,
        "receiver md5 lanes: %llu rounds of %llu chunks (%llu late), %llu chunks alone, "
        "%llu blocks in %llu lane slots (%.1f%%), %llu kernel runs\n",
        static_cast<unsigned long long>(s.rounds), static_cast<unsigned long long>(s.roundChunks),
        static_cast<unsigned long long>(s.lateRounds),
        static_cast<unsigned long long>(s.aloneChunks),
        static_cast<unsigned long long>(s.lanes.blocks),
        static_cast<unsigned long long>(s.lanes.laneSlots),
        s.lanes.laneSlots ? 100.0 * double(s.lanes.blocks) / double(s.lanes.laneSlots) : 0.0,
        static_cast<unsigned long long>(s.lanes.kernelRuns));
}

LaneHasher::Stats LaneHasher::stats() const {
    std::lock_guard lock(mutex_);
    Stats s = stats_;
    s.lanes = lanes_.occupancy();
    return s;
}

bool LaneHasher::dueLocked(Clock::time_point now) const {
    return !combining_ && !pending_.empty() &&
           (coming_ == 0 || pending_.size() >= kFullRound || now >= pending_.front()->deadline);
}

void LaneHasher::combineWhileDue(std::unique_lock<std::mutex>& lock) {
    while (dueLocked(Clock::now())) {
        const bool late = coming_ != 0 && pending_.size() < kFullRound;
        combining_ = true;
        std::vector<Job*> round;
        round.swap(pending_);
        lock.unlock();
        // The round's chunks are only read by this thread while their owners wait, so they are
        // hashed outside the lock; members arriving meanwhile queue for the next round.
        bool failed = false;
        try {
            std::vector<Md5Lanes::Job> jobs;
            jobs.reserve(round.size());
            for (const Job* job : round) {
                jobs.push_back({job->stream, job->bytes});
            }
            lanes_.hashRound(jobs);
        } catch (const std::exception&) {
            failed = true;  // out of memory: the owners answer an error rather than a digest
        }
        lock.lock();
        for (Job* job : round) {
            job->done = true;
            job->failed = failed;
        }
        coming_ += round.size();  // their owners go on reading
        ++stats_.rounds;
        stats_.roundChunks += round.size();
        stats_.lateRounds += late ? 1 : 0;
        combining_ = false;
        roundDone_.notify_all();
    }
}

void LaneHasher::Member::join() {
    if (joined_) {
        return;
    }
    std::lock_guard lock(hasher_.mutex_);
    ++hasher_.active_;
    ++hasher_.coming_;
    joined_ = true;
    idle_ = false;
}

bool LaneHasher::Member::submit(Md5Stream& stream, std::span<const uint8_t> bytes) {
    if (!joined_) {
        stream.update(bytes);
        return true;
    }
    LaneHasher& h = hasher_;
    std::unique_lock lock(h.mutex_);
    if (h.active_ == 1) {
        // Alone: nobody to share lanes with, so no waiting and no round.
        ++h.stats_.aloneChunks;
        lock.unlock();
        stream.update(bytes);
        return true;
    }
    Job job{&stream, bytes, Clock::now() + kMaxWait};
    h.pending_.push_back(&job);
    --h.coming_;
    for (;;) {
        h.combineWhileDue(lock);
        if (job.done) {
            return !job.failed;
        }
        // Not done: pending (a round becomes due by the deadline at the latest) or in a round
        // another thread is hashing (which wakes everyone when it ends).
        if (h.combining_) {
            h.roundDone_.wait(lock);
        } else {
            h.roundDone_.wait_until(lock, job.deadline);
        }
    }
}

void LaneHasher::Member::setIdle(bool idle) {
    if (!joined_ || idle == idle_) {
        return;
    }
    std::unique_lock lock(hasher_.mutex_);
    idle_ = idle;
    if (idle) {
        --hasher_.coming_;
        hasher_.combineWhileDue(lock);  // the others may have been waiting for this member only
    } else {
        ++hasher_.coming_;
    }
}

void LaneHasher::Member::leave() {
    if (!joined_) {
        return;
    }
    std::unique_lock lock(hasher_.mutex_);
    --hasher_.active_;
    if (!idle_) {
        --hasher_.coming_;
    }
    joined_ = false;
    idle_ = false;
    hasher_.combineWhileDue(lock);
}

}  // namespace pellorin::receiver
