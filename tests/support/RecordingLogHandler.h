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

// One recorded entry.
struct LogEntry {
    Logger::Level level;
    std::string label;  // the label the handler was made for (empty when made directly)
    std::string message;
    Logger::Metadata metadata;  // the handler's metadata merged with the call's (the call wins)
    std::string source;
    std::string file;
    std::string function;
    std::size_t line = 0;
};

// The shared, thread-safe list of entries, in the order they were logged.
class LogRecord {
  public:
    void append(LogEntry entry);
    std::vector<LogEntry> entries() const;      // a copy
    std::vector<std::string> messages() const;  // just the messages, in order
    std::size_t count() const;

  private:
    mutable std::mutex mutex_;
    std::vector<LogEntry> entries_;  // guarded by mutex_
};

class RecordingLogHandler final : public LogHandler {
  public:
    explicit RecordingLogHandler(std::shared_ptr<LogRecord> record, std::string label = {},
                                 Logger::Level level = Logger::Level::trace);

    // A factory for Logger(label, factory) or LoggingSystem::bootstrap that records into
    // `record` at `level`.
    static Logger::HandlerFactory factory(std::shared_ptr<LogRecord> record,
                                          Logger::Level level = Logger::Level::trace);

    void log(Logger::Level level, const Logger::Message& message, const Logger::Metadata* metadata,
             std::string_view source, std::string_view file, std::string_view function,
             std::size_t line) const override;
    Logger::Metadata metadata() const override { return metadata_; }
    void setMetadata(Logger::Metadata metadata) override { metadata_ = std::move(metadata); }
    Logger::Level logLevel() const override { return level_; }
    void setLogLevel(Logger::Level level) override { level_ = level; }
    std::unique_ptr<LogHandler> clone() const override;

  private:
    std::shared_ptr<LogRecord> record_;
    std::string label_;
    Logger::Level level_;
    Logger::Metadata metadata_;
};

}  // namespace pellorin::testing
