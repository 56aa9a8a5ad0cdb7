// RecordingLogHandler: a log handler for tests that keeps every entry it lets through in a shared
// LogRecord, so that a test can assert the exact lines a component logged. All clones and copies
// of a handler append to the same record, so copies of the logger made inside the code under test
// are recorded too. A LogRecord may be read and written from any thread. The handler's level
// (trace unless given) and metadata are its own and are not shared with clones made earlier.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <pellorin/Logging.h>

namespace pellorin::testing {

struct LogEntry {
    Logger::Level level;
    std::string label;  // the label the handler was made for (empty when made directly)
    std::string message;
    Logger::Metadata metadata;  // the handler's metadata merged with the call's (the call wins)
    std::string source, file, function;
    std::size_t line = 0;
};

// The shared, thread-safe list of entries, in the order they were logged.
class LogRecord {
  public:
    void append(LogEntry entry) {
        std::lock_guard lock(mutex_);
        entries_.push_back(std::move(entry));
    }
    std::vector<LogEntry> entries() const {
        std::lock_guard lock(mutex_);
        return entries_;
    }
    std::vector<std::string> messages() const {
        std::vector<std::string> messages;
        for (const auto& entry : entries()) {
            messages.push_back(entry.message);
        }
        return messages;
    }
    std::size_t count() const { return entries().size(); }

  private:
    mutable std::mutex mutex_;
    std::vector<LogEntry> entries_;  // guarded by mutex_
};

class RecordingLogHandler final : public LogHandler {
  public:
    explicit RecordingLogHandler(std::shared_ptr<LogRecord> record, std::string label = {},
                                 Logger::Level level = Logger::Level::trace)
        : record_(std::move(record)), label_(std::move(label)), level_(level) {}

    // A factory for Logger(label, factory) or LoggingSystem::bootstrap that records into
    // `record` at `level`.
    static Logger::HandlerFactory factory(std::shared_ptr<LogRecord> record,
                                          Logger::Level level = Logger::Level::trace) {
        return [record, level](const std::string& label) {
            return std::make_unique<RecordingLogHandler>(record, label, level);
        };
    }

    void log(Logger::Level level, const Logger::Message& message, const Logger::Metadata* metadata,
             std::string_view source, std::string_view file, std::string_view function,
             std::size_t line) const override {
        Logger::Metadata merged = metadata ? *metadata : Logger::Metadata{};
        merged.insert(metadata_.begin(), metadata_.end());
        record_->append({level, label_, message.value, std::move(merged), std::string(source),
                         std::string(file), std::string(function), line});
    }
    Logger::Metadata metadata() const override { return metadata_; }
    void setMetadata(Logger::Metadata metadata) override { metadata_ = std::move(metadata); }
    Logger::Level logLevel() const override { return level_; }
    void setLogLevel(Logger::Level level) override { level_ = level; }
    std::unique_ptr<LogHandler> clone() const override {
        return std::make_unique<RecordingLogHandler>(*this);
    }

  private:
    std::shared_ptr<LogRecord> record_;
    std::string label_;
    Logger::Level level_;
    Logger::Metadata metadata_;
};

}  // namespace pellorin::testing
