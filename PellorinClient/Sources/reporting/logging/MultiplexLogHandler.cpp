#include <algorithm>
#include <ranges>

#include <pellorin/Logging.h>

#include "Platform/Fatal.h"

namespace pellorin {

namespace {

std::vector<std::unique_ptr<LogHandler>> cloneAll(
    const std::vector<std::unique_ptr<LogHandler>>& handlers) {
    std::vector<std::unique_ptr<LogHandler>> clones;
    clones.reserve(handlers.size());
    for (const auto& handler : handlers) {
        clones.push_back(handler->clone());
    }
    return clones;
}

}  // namespace

MultiplexLogHandler::MultiplexLogHandler(std::vector<std::unique_ptr<LogHandler>> handlers)
    : handlers_(std::move(handlers)) {
    if (handlers_.empty()) {
        fatalError("MultiplexLogHandler needs at least one handler");
    }
    if (std::ranges::any_of(handlers_, [](const auto& handler) { return handler == nullptr; })) {
        fatalError("MultiplexLogHandler was given a null handler");
    }
    effectiveLogLevel_ = std::ranges::min(
        handlers_ | std::views::transform([](const auto& handler) { return handler->logLevel(); }));
}

MultiplexLogHandler::MultiplexLogHandler(const MultiplexLogHandler& other)
    : handlers_(cloneAll(other.handlers_)), effectiveLogLevel_(other.effectiveLogLevel_) {}

MultiplexLogHandler& MultiplexLogHandler::operator=(const MultiplexLogHandler& other) {
    if (this != &other) {
        handlers_ = cloneAll(other.handlers_);
        effectiveLogLevel_ = other.effectiveLogLevel_;
    }
    return *this;
}

void MultiplexLogHandler::log(Logger::Level level, const Logger::Message& message,
                              const Logger::Metadata* metadata, std::string_view source,
                              std::string_view file, std::string_view function,
                              std::size_t line) const {
    for (const auto& handler : handlers_) {
        if (handler->logLevel() <= level) {
            handler->log(level, message, metadata, source, file, function, line);
        }
    }
}

std::optional<Logger::MetadataValue> MultiplexLogHandler::metadataValue(
    const std::string& key) const {
    for (const auto& handler : handlers_) {
        if (auto value = handler->metadataValue(key)) {
            return value;
        }
    }
    return std::nullopt;
}

void MultiplexLogHandler::setMetadataValue(const std::string& key,
                                           std::optional<Logger::MetadataValue> value) {
    for (const auto& handler : handlers_) {
        handler->setMetadataValue(key, value);
    }
}

Logger::Metadata MultiplexLogHandler::metadata() const {
    // insert() keeps an existing key, so the earliest handler's value wins.
    Logger::Metadata merged;
    for (const auto& handler : handlers_) {
        const Logger::Metadata own = handler->metadata();
        merged.insert(own.begin(), own.end());
    }
    return merged;
}

void MultiplexLogHandler::setMetadata(Logger::Metadata metadata) {
    for (const auto& handler : handlers_) {
        handler->setMetadata(metadata);
    }
}

void MultiplexLogHandler::setLogLevel(Logger::Level level) {
    for (const auto& handler : handlers_) {
        handler->setLogLevel(level);
    }
    effectiveLogLevel_ = level;
}

std::unique_ptr<LogHandler> MultiplexLogHandler::clone() const {
    return std::make_unique<MultiplexLogHandler>(*this);
}

}  // namespace pellorin
