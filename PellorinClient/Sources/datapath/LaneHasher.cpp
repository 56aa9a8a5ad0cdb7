#include "datapath/LaneHasher.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace pellorin {

namespace {

std::atomic<int>& enabledFlag() {
    // -1: not decided yet; then 0 or 1.
    static std::atomic<int> flag{-1};
    return flag;
}

std::atomic<int64_t>& windowMicros() {
    // The transfer threads come back with their next chunks when their sockets have taken the
    // last ones, at times their receivers set: 1 ms caught rounds of two or three chunks at 8
    // connections, 5 ms most of them. A waiting part's socket still holds the data it was
    // sent, so a wait this short rarely leaves a connection idle.
    static std::atomic<int64_t> micros{5000};
    return micros;
}

}  // namespace

struct LaneHasher::Chunk {
    Member* member;
    Md5Stream* stream;
    std::span<const uint8_t> bytes;
    bool done = false;  // guarded by the hasher's mutex
};

std::shared_ptr<LaneHasher> LaneHasher::shared() {
    static const std::shared_ptr<LaneHasher> hasher = std::make_shared<LaneHasher>();
    return hasher;
}

bool LaneHasher::enabled() {
    int flag = enabledFlag().load();
    if (flag < 0) {
        const char* value = std::getenv("PELLORIN_MD5_LANES");
        const int fromEnvironment = value != nullptr && std::strcmp(value, "0") == 0 ? 0 : 1;
        enabledFlag().compare_exchange_strong(flag, fromEnvironment);
        flag = enabledFlag().load();
    }
    return flag == 1;
}

void LaneHasher::setEnabled(bool enabled) {
    enabledFlag().store(enabled ? 1 : 0);
}

std::chrono::microseconds LaneHasher::gatherWindow() {
    return std::chrono::microseconds(windowMicros().load());
}

void LaneHasher::setGatherWindow(std::chrono::microseconds window) {
    windowMicros().store(window.count());
}

LaneHasher::~LaneHasher() {
    if (std::getenv("PELLORIN_MD5_LANES_STATS") != nullptr) {
        // A diagnostic for benchmarks: how full the lanes ran over the process's life.
        const Md5Lanes::Occupancy o = lanes_.occupancy();
        std::fprintf(
            stderr,
            "md5 lanes: %llu rounds of %llu chunks, %llu blocks in %llu lane slots "
            "(%.1f%%), %llu kernel runs\n",
            static_cast<unsigned long long>(rounds_), static_cast<unsigned long long>(chunks_),
            static_cast<unsigned long long>(o.blocks), static_cast<unsigned long long>(o.laneSlots),
            o.laneSlots ? 100.0 * double(o.blocks) / double(o.laneSlots) : 0.0,
            static_cast<unsigned long long>(o.kernelRuns));
    }
}

void LaneHasher::join(Member& member) {
    std::lock_guard lock(mutex_);
    if (!member.joined) {
        member.joined = true;
        member.late = false;
        members_.push_back(&member);
    }
}

void LaneHasher::leave(Member& member) {
    {
        std::lock_guard lock(mutex_);
        if (!member.joined) {
            return;
        }
        member.joined = false;
        if (member.late) {
            member.late = false;
            --late_;
        }
        std::erase(members_, &member);
    }
    // The round under way may be complete without this part now.
    done_.notify_all();
}

size_t LaneHasher::parts() const {
    std::lock_guard lock(mutex_);
    return members_.size();
}

uint64_t LaneHasher::rounds() const {
    std::lock_guard lock(mutex_);
    return rounds_;
}

uint64_t LaneHasher::chunks() const {
    std::lock_guard lock(mutex_);
    return chunks_;
}

void LaneHasher::hash(Member& member, Md5Stream& stream, std::span<const uint8_t> bytes) {
    if (bytes.size() < kSmallestShared) {
        stream.update(bytes);
        return;
    }
    std::unique_lock lock(mutex_);
    if (!member.joined || members_.size() < 2) {
        lock.unlock();
        stream.update(bytes);
        return;
    }
    if (member.late) {
        member.late = false;  // back in step: rounds wait for it again
        --late_;
    }
    Chunk chunk{&member, &stream, bytes};
    if (pending_.empty()) {
        roundDeadline_ = std::chrono::steady_clock::now() + gatherWindow();
    }
    pending_.push_back(&chunk);
    member.pending = true;
    while (!chunk.done) {
        if (combining_) {
            // The combining thread always finishes its round and then wakes everyone.
            done_.wait(lock);
        } else if (pending_.size() + late_ >= members_.size()) {
            combineLocked(lock, false);
        } else if (std::chrono::steady_clock::now() >= roundDeadline_) {
            combineLocked(lock, true);
        } else {
            done_.wait_until(lock, roundDeadline_);
        }
    }
}

void LaneHasher::combineLocked(std::unique_lock<std::mutex>& lock, bool windowClosed) {
    combining_ = true;
    if (windowClosed) {
        for (Member* member : members_) {
            if (!member->late && !member->pending) {
                member->late = true;
                ++late_;
            }
        }
    }
    // round_ and jobs_ keep their capacity from round to round: no allocation in steady state.
    round_.swap(pending_);
    for (Chunk* chunk : round_) {
        chunk->member->pending = false;
    }
    lock.unlock();
    bool hashed = false;
    if (round_.size() > 1) {
        try {
            jobs_.clear();
            for (const Chunk* chunk : round_) {
                jobs_.push_back({chunk->stream, chunk->bytes});
            }
            lanes_.hashRound(jobs_);
            hashed = true;
        } catch (const std::bad_alloc&) {
            // hashRound allocates before it touches a stream, so every stream is as it was:
            // each is hashed alone below, and no waiting thread is left behind.
        }
    }
    if (!hashed) {
        for (const Chunk* chunk : round_) {
            chunk->stream->update(chunk->bytes);
        }
    }
    lock.lock();
    for (Chunk* chunk : round_) {
        chunk->done = true;
    }
    chunks_ += round_.size();
    round_.clear();
    ++rounds_;
    combining_ = false;
    done_.notify_all();
}

}  // namespace pellorin
