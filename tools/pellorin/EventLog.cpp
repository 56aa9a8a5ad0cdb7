#include "EventLog.h"

#include <cerrno>
#include <cstring>

#include "HostError.h"

namespace pellorin::host {

namespace {
constexpr const char* kLabel = "pellorin.events";
}  // namespace

EventLog::EventLog(const std::string& destination)
    : file_(destination == "-" ? stdout : std::fopen(destination.c_str(), "we")) {
    if (file_ == nullptr) {
        throw InputError("cannot write events to " + destination + ": " + std::strerror(errno));
    }
    auto handler = std::make_unique<StreamLogHandler>(
        kLabel, StdioOutputStream(file_, StdioOutputStream::FlushMode::always));
    handler->setLogLevel(Logger::Level::notice);
    reporter_ = std::make_shared<LoggingProgressReporter>(Logger(kLabel, std::move(handler)));
    queue_ = SerialQueue::make("Event Log Queue");
}

EventLog::~EventLog() {
    drain();
    reporter_.reset();
    if (file_ != stdout) {
        std::fclose(file_);
    }
}

void EventLog::attach(PellorinClient& client) {
    client.addDelegate(reporter_, queue_);
}

void EventLog::drain() {
    queue_->sync([] {});
}

}  // namespace pellorin::host
