#include "EventLog.h"

#include <cerrno>
#include <cstring>

#include "HostError.h"
#include "Redaction.h"

namespace pellorin::host {

namespace {

void redactStrings(nlohmann::ordered_json& value) {
    if (value.is_string()) {
        value = redactUrls(value.get<std::string>());
    } else if (value.is_structured()) {
        for (auto& item : value) {
            redactStrings(item);
        }
    }
}

std::string lineOf(const std::string& kind, nlohmann::ordered_json fields) {
    nlohmann::ordered_json line = {{"event", kind}};
    if (fields.is_object()) {
        for (auto& [key, value] : fields.items()) {
            line[key] = std::move(value);
        }
    }
    redactStrings(line);
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string eventLine(const std::string& kind, const std::string& json) {
    return lineOf(kind, nlohmann::ordered_json::parse(json, nullptr, false));
}

// The delegate: every event as a line, written on the event queue.
class EventLog::Writer final : public PellorinClientDelegate {
  public:
    explicit Writer(std::FILE* file) : file_(file) {}

    void put(const std::string& line) {
        std::fputs(line.c_str(), file_);
        std::fflush(file_);
    }

    void pellorinClientLogMessage(PellorinClient&,
                                  const std::shared_ptr<const LoggingMessage>&) override {}
    void pellorinClientDidStartPart(PellorinClient&,
                                    const std::shared_ptr<const PartStartedMessage>& m) override {
        put(eventLine("part-started", m->jsonString()));
    }
    void pellorinClientDidReceivePartProgress(
        PellorinClient&, const std::shared_ptr<const PartProgressMessage>& m) override {
        put(eventLine("part-progress", m->jsonString()));
    }
    void pellorinClientWillRetryPart(PellorinClient&,
                                     const std::shared_ptr<const PartRetryMessage>& m) override {
        put(eventLine("part-retry", m->jsonString()));
    }
    void pellorinClientPartDidComplete(
        PellorinClient&, const std::shared_ptr<const PartCompleteMessage>& m) override {
        put(eventLine("part-complete", m->jsonString()));
    }
    void pellorinClientPartDidFail(PellorinClient&,
                                   const std::shared_ptr<const PartFailureMessage>& m) override {
        put(eventLine("part-failed", m->jsonString()));
    }
    void pellorinClientDidReceiveFileProgress(
        PellorinClient&, const std::shared_ptr<const FileProgressMessage>& m) override {
        put(eventLine("file-progress", m->jsonString()));
    }
    void pellorinClientDidFinishWithStatus(
        PellorinClient&, int32_t, const std::shared_ptr<const MetricsMessage>& m) override {
        if (m) {
            put(eventLine("transfer-metrics", m->jsonString()));
        }
    }

  private:
    std::FILE* file_;
};

EventLog::EventLog(const std::string& destination)
    : file_(destination == "-" ? stdout : std::fopen(destination.c_str(), "we")) {
    if (file_ == nullptr) {
        throw InputError("cannot write events to " + destination + ": " + std::strerror(errno));
    }
    writer_ = std::make_shared<Writer>(file_);
    queue_ = SerialQueue::make("Event Log Queue");
}

EventLog::~EventLog() {
    drain();
    writer_.reset();
    if (file_ != stdout) {
        std::fclose(file_);
    }
}

void EventLog::attach(PellorinClient& client) {
    client.addDelegate(writer_, queue_);
}

void EventLog::write(const std::string& kind, nlohmann::ordered_json fields) {
    std::string line = lineOf(kind, std::move(fields));
    auto writer = writer_;
    queue_->async([writer, line = std::move(line)] { writer->put(line); });
}

void EventLog::drain() {
    queue_->sync([] {});
}

}  // namespace pellorin::host
