// EventLog: the --events output, JSON Lines. Every event of the transfer becomes one object on a
// line of its own: {"event": "<kind>", ...the message's fields}, with kinds part-started,
// part-progress, part-retry, part-complete, part-failed, file-progress, transfer-metrics, plus
// the host's own round-started and transfer-finished. URLs in the fields lose their secrets
// (Redaction.h). Each line is flushed as it is written.
//
// Made on the host thread before the transfer; the delegate runs on a queue of its own so that a
// slow reader never holds up the client, and the host's own events go through the same queue, so
// lines never interleave. drain() after waitUntilFinished makes sure the last line is out.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include <pellorin/PellorinClient.h>
#include <pellorin/SerialQueue.h>

namespace pellorin::host {

class EventLog {
  public:
    // `destination`: a file path (created or replaced) or "-" for standard output. Throws
    // InputError when the file cannot be opened.
    explicit EventLog(const std::string& destination);
    ~EventLog();
    EventLog(const EventLog&) = delete;
    EventLog& operator=(const EventLog&) = delete;

    // Registers the event writer with the client (which holds it weakly; this object keeps it).
    void attach(PellorinClient& client);
    // Writes one event of the host's own: `fields` (an object) with "event": kind added. Any
    // thread.
    void write(const std::string& kind, nlohmann::ordered_json fields);
    // Waits until every event delivered so far has been written. Host thread.
    void drain();

    class Writer;

  private:
    std::FILE* file_;  // owned unless it is stdout
    std::shared_ptr<SerialQueue> queue_;
    std::shared_ptr<Writer> writer_;
};

// The line written for an event: `json` (a message's jsonString) with "event": kind first and
// every string value's URLs redacted.
std::string eventLine(const std::string& kind, const std::string& json);

}  // namespace pellorin::host
