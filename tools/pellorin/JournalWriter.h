// JournalWriter: records completed parts in the journal from a thread of its own, so that the
// client's delegate queue, which reports every part, never waits for the disk. Whatever was
// handed over while the previous flush ran is appended and then flushed with one fdatasync: a
// flush costs a disk round trip whether it covers one line or many, and with one per part the
// journal, not the network, set the pace of small parts.
//
// A part counts as done only once the flush that covers its line has returned: `durable` is told
// then, never before. When the journal cannot be written, `failed` is told once, and from then on
// parts count as done without being recorded (they are on the server all the same; only the
// ability to resume them is lost).
//
// Threads: submit and flush from any thread; durable and failed run on the writer's thread. The
// journal must not be used elsewhere while the writer exists; the destructor flushes first.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Journal.h"
#include "PartPlan.h"

namespace pellorin::host {

class JournalWriter {
  public:
    using Durable = std::function<void(const PlannedPart& part)>;
    using Failed = std::function<void(const std::system_error& error)>;

    JournalWriter(Journal& journal, Durable durable, Failed failed);
    ~JournalWriter();
    JournalWriter(const JournalWriter&) = delete;
    JournalWriter& operator=(const JournalWriter&) = delete;

    // Hands over a part the server accepted, with the server's eTag.
    void submit(const PlannedPart& part, std::string eTag);
    // Returns once every part handed over so far is durable (or the journal has failed).
    void flush();

  private:
    struct Entry {
        PlannedPart part;
        std::string eTag;
    };
    void run();

    Journal& journal_;
    const Durable durable_;
    const Failed failed_;
    bool journalFailed_ = false;  // the writer's thread only

    std::mutex mutex_;
    std::condition_variable work_;     // entries were handed over, or stopping
    std::condition_variable flushed_;  // a batch is done
    std::vector<Entry> queue_;         // guarded by mutex_
    bool writing_ = false;             // guarded by mutex_; a batch is being written
    bool stopping_ = false;            // guarded by mutex_
    std::thread thread_;               // last: started once everything above exists
};

}  // namespace pellorin::host
