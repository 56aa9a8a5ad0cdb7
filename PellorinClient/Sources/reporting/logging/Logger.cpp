#include <array>

#include <pellorin/Logging.h>

#include "Platform/Fatal.h"

namespace pellorin {

namespace {

constexpr std::array<std::string_view, 7> kLevelTexts = {
    "trace", "debug", "info", "notice", "warning", "error", "critical",
};

std::unique_ptr<LogHandler> checkedHandler(std::unique_ptr<LogHandler> handler) {
    if (!handler) {
        fatalError("a Logger needs a log handler, but none was given");
    }
    return handler;
}

}  // namespace

std::string_view toString(Logger::Level level) {
    return kLevelTexts.at(static_cast<std::size_t>(level));
}

std::optional<Logger::Level> parseLevel(std::string_view text) {
    for (std::size_t i = 0; i < kLevelTexts.size(); ++i) {
        if (kLevelTexts[i] == text) {
            return static_cast<Logger::Level>(i);
        }
    }
    return std::nullopt;
}

Logger::Logger(std::string label) : Logger(label, LoggingSystem::factory()) {}

Logger::Logger(std::string label, const HandlerFactory& factory)
    : label_(std::move(label)), handler_(checkedHandler(factory(label_))) {}

Logger::Logger(std::string label, std::unique_ptr<LogHandler> handler)
    : label_(std::move(label)), handler_(checkedHandler(std::move(handler))) {}

Logger::Logger(const Logger& other) : label_(other.label_), handler_(other.handler_->clone()) {}

Logger& Logger::operator=(const Logger& other) {
    if (this != &other) {
        handler_ = other.handler_->clone();
        label_ = other.label_;
    }
    return *this;
}

Logger::Logger(Logger&&) noexcept = default;
Logger& Logger::operator=(Logger&&) noexcept = default;
Logger::~Logger() = default;

void Logger::setHandler(std::unique_ptr<LogHandler> handler) {
    handler_ = checkedHandler(std::move(handler));
}

Logger::Level Logger::logLevel() const {
    return handler_->logLevel();
}

void Logger::setLogLevel(Level level) {
    handler_->setLogLevel(level);
}

bool Logger::isEnabled(Level level) const {
    return handler_->logLevel() <= level;
}

std::optional<Logger::MetadataValue> Logger::metadataValue(const std::string& key) const {
    return handler_->metadataValue(key);
}

void Logger::setMetadataValue(const std::string& key, std::optional<MetadataValue> value) {
    handler_->setMetadataValue(key, std::move(value));
}

std::string_view Logger::currentModule(std::string_view filePath) {
    const auto last = filePath.rfind('/');
    if (last == std::string_view::npos || last == 0) {
        return "n/a";
    }
    const auto previous = filePath.rfind('/', last - 1);
    if (previous == std::string_view::npos) {
        return "n/a";
    }
    return filePath.substr(previous + 1, last - previous - 1);
}

}  // namespace pellorin
