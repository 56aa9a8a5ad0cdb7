#include "support/RecordingLogHandler.h"

namespace pellorin::testing {

void LogRecord::append(LogEntry entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
}

std::vector<LogEntry> LogRecord::entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
}

std::vector<std::string> LogRecord::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> messages;
    for (const auto& entry : entries_) {
        messages.push_back(entry.message);
    }
    return messages;
}

std::size_t LogRecord::count() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

RecordingLogHandler::RecordingLogHandler(std::shared_ptr<LogRecord> record, std::string label,
                                         Logger::Level level)
    : record_(std::move(record)), label_(std::move(label)), level_(level) {}

Logger::HandlerFactory RecordingLogHandler::factory(std::shared_ptr<LogRecord> record,
                                                    Logger::Level level) {
    return [record, level](const std::string& label) {
        return std::make_unique<RecordingLogHandler>(record, label, level);
    };
}

void RecordingLogHandler::log(Logger::Level level, const Logger::Message& message,
                              const Logger::Metadata* metadata, std::string_view source,
                              std::string_view file, std::string_view function,
                              std::size_t line) const {
    Logger::Metadata merged = metadata ? *metadata : Logger::Metadata{};
    merged.insert(metadata_.begin(), metadata_.end());
    record_->append(LogEntry{level, label_, message.value, std::move(merged), std::string(source),
                             std::string(file), std::string(function), line});
}

std::unique_ptr<LogHandler> RecordingLogHandler::clone() const {
    return std::make_unique<RecordingLogHandler>(*this);
}

}  // namespace pellorin::testing
