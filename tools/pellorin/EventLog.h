// EventLog: the --events output. Every event of the transfer is written as the stock progress
// reporter's line (prefix and compact JSON) to a file or to standard output, flushed line by line.
//
// Made on the host thread before the transfer; the reporter runs on a queue of its own so that a
// slow reader never holds up the client. drain() after waitUntilFinished makes sure the last line
// (the metrics) is out.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include <pellorin/LoggingProgressReporter.h>
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

    // Registers the reporter with the client (which holds it weakly; this object keeps it).
    void attach(PellorinClient& client);
    // Waits until every event delivered so far has been written. Host thread.
    void drain();

  private:
    std::FILE* file_;  // owned unless it is stdout
    std::shared_ptr<SerialQueue> queue_;
    std::shared_ptr<LoggingProgressReporter> reporter_;
};

}  // namespace pellorin::host
