// The logging functions of <pellorin/pellorin.h>. The first of them bootstraps the library's
// logging system with a factory of forwarding handlers; every handler reads the process-wide
// sink below on each line, so the destination, callback and level can change at any time after
// the once-per-process bootstrap.
#include <pellorin/pellorin.h>

#include <atomic>
#include <ctime>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>

#include <pellorin/Logging.h>

#include "Bindings/CSupport.h"

using namespace pellorin::bindings;

namespace {

using pellorin::Logger;

enum class Destination { standardOutput, standardError, nothing, callback };

// Where every forwarded line goes. Lines are delivered under the shared lock and changes take
// the exclusive one, so a replaced callback is never running once its replacement is in place.
struct Sink {
    std::shared_mutex mutex;
    Destination destination = Destination::standardOutput;
    PLNLogCallback callback = nullptr;
    void* context = nullptr;
    std::atomic<Logger::Level> level{Logger::Level::info};
};

Sink& sink() {
    static Sink instance;
    return instance;
}

// Set while this thread runs the host's log callback: changing the sink there would deadlock.
thread_local bool inLogCallback = false;

// "key=value" pairs joined by one blank, in key order.
std::string prettify(const Logger::Metadata& metadata) {
    std::string text;
    for (const auto& [key, value] : metadata) {
        text += text.empty() ? "" : " ";
        text += key + "=" + value.description();
    }
    return text;
}

std::string timestamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char buffer[64];
    if (localtime_r(&now, &local) == nullptr ||
        std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S%z", &local) == 0) {
        return "<unknown>";
    }
    return buffer;
}

// Formats each entry as the stream handler does ("<time> <level> <label> :[ <metadata>]
// <message>") and hands it to the sink. The level is the sink's unless set on this handler.
class ForwardingLogHandler final : public pellorin::LogHandler {
  public:
    explicit ForwardingLogHandler(std::string label) : label_(std::move(label)) {}

    void log(Logger::Level level, const Logger::Message& message, const Logger::Metadata* metadata,
             std::string_view, std::string_view, std::string_view, std::size_t) const override {
        Logger::Metadata merged = metadata != nullptr ? *metadata : Logger::Metadata{};
        merged.insert(metadata_.begin(), metadata_.end());  // the call's values win
        std::string line =
            timestamp() + " " + std::string(pellorin::toString(level)) + " " + label_ + " :";
        if (!merged.empty()) {
            line += " " + prettify(merged);
        }
        line += " " + message.value;

        Sink& target = sink();
        std::shared_lock lock(target.mutex);
        switch (target.destination) {
            case Destination::standardOutput:
                pellorin::StdioOutputStream::standardOutput().write(line + "\n");
                break;
            case Destination::standardError:
                pellorin::StdioOutputStream::standardError().write(line + "\n");
                break;
            case Destination::nothing:
                break;
            case Destination::callback:
                inLogCallback = true;
                target.callback(target.context, static_cast<int32_t>(level), line.c_str());
                inLogCallback = false;
                break;
        }
    }
    Logger::Metadata metadata() const override { return metadata_; }
    void setMetadata(Logger::Metadata metadata) override { metadata_ = std::move(metadata); }
    Logger::Level logLevel() const override { return ownLevel_.value_or(sink().level.load()); }
    void setLogLevel(Logger::Level level) override { ownLevel_ = level; }
    std::unique_ptr<LogHandler> clone() const override {
        return std::make_unique<ForwardingLogHandler>(*this);
    }

  private:
    std::string label_;
    Logger::Metadata metadata_;
    std::optional<Logger::Level> ownLevel_;
};

// Makes every logger made from now on a forwarding one. Once per process.
void bootstrapOnce() {
    static std::once_flag bootstrapped;
    std::call_once(bootstrapped, [] {
        pellorin::LoggingSystem::bootstrap(
            [](const std::string& label) { return std::make_unique<ForwardingLogHandler>(label); });
    });
}

// Bootstraps the logging system once, then applies `change` to the sink.
template <typename Change>
int32_t changeSink(Change change) {
    return guardedStatus([&] {
        if (inLogCallback) {
            wrongState("logging cannot be changed from inside a log callback");
        }
        bootstrapOnce();
        Sink& target = sink();
        std::unique_lock lock(target.mutex);
        change(target);
        return PLN_OK;
    });
}

}  // namespace

extern "C" {

int32_t PLNLogging_setLevel(int32_t level) {
    if (level < PLN_LOG_TRACE || level > PLN_LOG_CRITICAL) {
        return guardedStatus([&]() -> int32_t {
            invalidArgument("log level must be PLN_LOG_TRACE to PLN_LOG_CRITICAL, not " +
                            std::to_string(level));
        });
    }
    return changeSink([&](Sink& target) { target.level = static_cast<Logger::Level>(level); });
}

int32_t PLNLogging_setCallback(PLNLogCallback callback, void* context) {
    return changeSink([&](Sink& target) {
        target.destination = callback != nullptr ? Destination::callback : Destination::nothing;
        target.callback = callback;
        target.context = context;
    });
}

int32_t PLNLogging_setDestination(int32_t destination) {
    if (destination < PLN_LOG_TO_STANDARD_OUTPUT || destination > PLN_LOG_TO_NOTHING) {
        return guardedStatus([&]() -> int32_t {
            invalidArgument(
                "log destination must be PLN_LOG_TO_STANDARD_OUTPUT, "
                "PLN_LOG_TO_STANDARD_ERROR or PLN_LOG_TO_NOTHING, not " +
                std::to_string(destination));
        });
    }
    return changeSink([&](Sink& target) {
        target.destination = static_cast<Destination>(destination);
        target.callback = nullptr;
        target.context = nullptr;
    });
}

}  // extern "C"
