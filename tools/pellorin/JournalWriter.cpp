#include "JournalWriter.h"

#include <pthread.h>

namespace pellorin::host {

JournalWriter::JournalWriter(Journal& journal, Durable durable, Failed failed)
    : journal_(journal),
      durable_(std::move(durable)),
      failed_(std::move(failed)),
      thread_([this] { run(); }) {}

JournalWriter::~JournalWriter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    work_.notify_one();
    thread_.join();  // the thread writes whatever is still queued before it ends
}

void JournalWriter::submit(const PlannedPart& part, std::string eTag) {
    {
        std::lock_guard lock(mutex_);
        queue_.push_back({part, std::move(eTag)});
    }
    work_.notify_one();
}

void JournalWriter::flush() {
    std::unique_lock lock(mutex_);
    flushed_.wait(lock, [this] { return queue_.empty() && !writing_; });
}

void JournalWriter::run() {
    pthread_setname_np(pthread_self(), "Journal Writer");
    std::unique_lock lock(mutex_);
    for (;;) {
        work_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) {
            return;  // stopping, and everything handed over is written
        }
        std::vector<Entry> batch;
        batch.swap(queue_);
        writing_ = true;
        lock.unlock();
        if (!journalFailed_) {
            try {
                for (const Entry& entry : batch) {
                    journal_.append(entry.part, entry.eTag);
                }
                journal_.sync();
            } catch (const std::system_error& error) {
                journalFailed_ = true;
                failed_(error);
            }
        }
        for (const Entry& entry : batch) {
            durable_(entry.part);
        }
        lock.lock();
        writing_ = false;
        flushed_.notify_all();
    }
}

}  // namespace pellorin::host
