#include "datapath/RoundHasher.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace pellorin {

namespace {

// A round waits this long at most for the parts in lane mode that are not free yet (their
// transfers still have a buffer to send), unless a free part's transfer already waits.
constexpr auto kGatherWindow = std::chrono::milliseconds(1);

std::atomic<bool>& enabledFlag() {
    static std::atomic<bool> flag = [] {
        const char* value = std::getenv("PELLORIN_MD5_LANES");
        return value != nullptr && std::strcmp(value, "1") == 0;
    }();
    return flag;
}

std::atomic<int64_t> bufferWaitMillis{50};

}  // namespace

Md5Stream PartReadAhead::servedDigestLocked() const {
    if (ready.empty()) {
        return md5;  // every published byte was served
    }
    const ReadAheadBuffer& front = ready.front();
    Md5Stream served = front.before;
    served.update({front.data.get(), front.served});
    return served;
}

void PartReadAhead::restartLocked() {
    ++generation;
    ready.clear();
    error.reset();
    waiting = false;
}

// One part's share of a round: its buffer, the range it reads, and a copy of its digest that
// the round advances (written back only if the part's generation is still the same).
struct RoundHasher::Job {
    std::shared_ptr<PartReadAhead> part;
    uint64_t generation;
    uint64_t offset;
    size_t count;
    std::unique_ptr<uint8_t[]> buffer;
    Md5Stream before;
    Md5Stream after;
    size_t got = 0;
    std::optional<SharedFileError> error;
};

std::shared_ptr<RoundHasher> RoundHasher::shared() {
    static const std::shared_ptr<RoundHasher> instance = std::make_shared<RoundHasher>();
    return instance;
}

bool RoundHasher::enabled() {
    return enabledFlag().load(std::memory_order_relaxed);
}

void RoundHasher::setEnabled(bool enabled) {
    enabledFlag().store(enabled, std::memory_order_relaxed);
}

std::chrono::milliseconds RoundHasher::bufferWait() {
    return std::chrono::milliseconds(bufferWaitMillis.load(std::memory_order_relaxed));
}

void RoundHasher::setBufferWait(std::chrono::milliseconds wait) {
    bufferWaitMillis.store(wait.count(), std::memory_order_relaxed);
}

RoundHasher::~RoundHasher() {
    std::thread thread;
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        thread = std::move(thread_);
    }
    wake_.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
    if (std::getenv("PELLORIN_MD5_LANES_STATS") != nullptr) {
        // A diagnostic for benchmarks: how full the lanes ran over the process's life.
        const Md5Lanes::Occupancy o = lanes_.occupancy();
        std::fprintf(stderr,
                     "md5 lanes: %llu rounds, %llu blocks in %llu lane slots (%.1f%%), %llu kernel "
                     "runs\n",
                     static_cast<unsigned long long>(rounds()),
                     static_cast<unsigned long long>(o.blocks),
                     static_cast<unsigned long long>(o.laneSlots),
                     o.laneSlots ? 100.0 * double(o.blocks) / double(o.laneSlots) : 0.0,
                     static_cast<unsigned long long>(o.kernelRuns));
    }
}

bool RoundHasher::join(std::shared_ptr<PartReadAhead> part) {
    {
        std::lock_guard lock(mutex_);
        if (!running_) {
            // A thread that ended when idle has already left run() or is about to; it takes
            // no lock on its way out.
            if (thread_.joinable()) {
                thread_.join();
            }
            try {
                thread_ = std::thread([this] { run(); });
            } catch (const std::system_error&) {
                return false;
            }
            running_ = true;
        }
        parts_.push_back(std::move(part));
        count_.store(parts_.size(), std::memory_order_release);
        ++changes_;
    }
    wake_.notify_one();
    return true;
}

void RoundHasher::leave(const PartReadAhead* part) {
    {
        std::lock_guard lock(mutex_);
        const auto it = std::find_if(parts_.begin(), parts_.end(),
                                     [part](const auto& p) { return p.get() == part; });
        if (it == parts_.end()) {
            return;
        }
        parts_.erase(it);
        count_.store(parts_.size(), std::memory_order_release);
        ++changes_;
    }
    wake_.notify_one();
}

void RoundHasher::poke() {
    {
        std::lock_guard lock(mutex_);
        ++changes_;
    }
    wake_.notify_one();
}

RoundHasher::Census RoundHasher::censusLocked() const {
    Census census;
    for (const auto& part : parts_) {
        std::lock_guard partLock(part->mutex);
        census.laneParts += part->laneMode ? 1 : 0;
        if (part->eligibleLocked()) {
            ++census.eligible;
            census.someoneWaits = census.someoneWaits || part->waiting;
        }
    }
    return census;
}

std::vector<RoundHasher::Job> RoundHasher::gatherLocked() {
    std::vector<Job> jobs;
    for (const auto& part : parts_) {
        std::lock_guard partLock(part->mutex);
        if (!part->eligibleLocked()) {
            continue;
        }
        part->inRound = true;
        Job job{.part = part,
                .generation = part->generation,
                .offset = part->nextOffset,
                .count = static_cast<size_t>(
                    std::min<uint64_t>(PartReadAhead::kBufferSize, part->end - part->nextOffset)),
                .buffer = std::move(part->spare),
                .before = part->md5,
                .after = part->md5,
                .got = 0,
                .error = std::nullopt};
        jobs.push_back(std::move(job));
    }
    return jobs;
}

void RoundHasher::fill(Job& job) {
    if (!job.buffer) {
        job.buffer = std::make_unique_for_overwrite<uint8_t[]>(PartReadAhead::kBufferSize);
    }
    SharedFile& file = *job.part->file;
    try {
        const int64_t got =
            file.read(job.buffer.get(), job.offset, static_cast<int64_t>(job.count));
        if (got == 0) {
            // The file ends before the range does: it was cut short since it was opened.
            file.checkUnchanged();
            throw SharedFileError{.kind = SharedFileError::Kind::ReadPastEnd,
                                  .offset = job.offset,
                                  .length = static_cast<int64_t>(job.count),
                                  .fileSize = file.fileSize()};
        }
        job.got = static_cast<size_t>(got);
    } catch (const SharedFileError& error) {
        job.error = error;
    }
}

void RoundHasher::publish(Job& job) {
    PartReadAhead& part = *job.part;
    {
        std::lock_guard lock(part.mutex);
        part.inRound = false;
        if (part.generation != job.generation || !part.laneMode) {
            // Restarted, closed or back on its own path meanwhile: the result is stale.
            if (part.laneMode && !part.spare) {
                part.spare = std::move(job.buffer);
            }
        } else if (job.error) {
            part.error = std::move(job.error);
            part.spare = std::move(job.buffer);
        } else {
            part.ready.push_back(ReadAheadBuffer{
                .data = std::move(job.buffer), .size = job.got, .served = 0, .before = job.before});
            part.md5 = job.after;
            part.nextOffset += job.got;
        }
    }
    part.published.notify_all();
}

void RoundHasher::run() {
    pthread_setname_np(pthread_self(), "Hash Round");
    std::unique_lock lock(mutex_);
    for (;;) {
        bool gathering = false;
        std::chrono::steady_clock::time_point gatherUntil{};
        for (;;) {
            if (stopping_ || parts_.empty()) {
                running_ = false;
                return;
            }
            const uint64_t seen = changes_;
            const Census census = censusLocked();
            if (census.eligible > 0) {
                if (census.eligible == census.laneParts || census.someoneWaits) {
                    break;
                }
                if (!gathering) {
                    gathering = true;
                    gatherUntil = std::chrono::steady_clock::now() + kGatherWindow;
                }
                if (!wake_.wait_until(lock, gatherUntil, [&] { return changes_ != seen; })) {
                    break;  // the window is over: go with the parts that are free
                }
            } else {
                gathering = false;
                wake_.wait(lock, [&] { return changes_ != seen || stopping_; });
            }
        }
        std::vector<Job> jobs = gatherLocked();
        lock.unlock();

        for (Job& job : jobs) {
            fill(job);
        }
        std::vector<Md5Lanes::Job> round;
        round.reserve(jobs.size());
        for (Job& job : jobs) {
            if (!job.error) {
                round.push_back({&job.after, {job.buffer.get(), job.got}});
            }
        }
        lanes_.hashRound(round);
        rounds_.fetch_add(1, std::memory_order_relaxed);
        for (Job& job : jobs) {
            publish(job);
        }
        jobs.clear();  // lets go of parts closed meanwhile outside the registry mutex

        lock.lock();
    }
}

}  // namespace pellorin
