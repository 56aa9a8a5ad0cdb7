#include <ctime>

#include <pellorin/Logging.h>

namespace pellorin {

namespace {

// "key=value" pairs joined by one blank, in key order; no value for an empty map.
std::optional<std::string> prettify(const Logger::Metadata& metadata) {
    if (metadata.empty()) {
        return std::nullopt;
    }
    std::string text;
    for (const auto& [key, value] : metadata) {
        if (!text.empty()) {
            text += ' ';
        }
        text += key;
        text += '=';
        text += value.description();
    }
    return text;
}

// The current local time, e.g. "2024-02-01T10:20:30+0100".
std::string timestamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char buffer[255];
    if (localtime_r(&now, &local) == nullptr ||
        std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S%z", &local) == 0) {
        return "<unknown>";
    }
    return buffer;
}

}  // namespace

void StdioOutputStream::write(const std::string& text) const {
    flockfile(file_);
    std::fputs(text.c_str(), file_);
    if (flushMode_ == FlushMode::always) {
        std::fflush(file_);
    }
    funlockfile(file_);
}

StreamLogHandler StreamLogHandler::standardOutput(std::string label) {
    return StreamLogHandler(std::move(label), StdioOutputStream::standardOutput());
}

StreamLogHandler StreamLogHandler::standardError(std::string label) {
    return StreamLogHandler(std::move(label), StdioOutputStream::standardError());
}

StreamLogHandler::StreamLogHandler(std::string label, StdioOutputStream stream)
    : stream_(stream), label_(std::move(label)) {}

void StreamLogHandler::log(Logger::Level level, const Logger::Message& message,
                           const Logger::Metadata* metadata, std::string_view, std::string_view,
                           std::string_view, std::size_t) const {
    std::optional<std::string> metadataText;
    if (metadata == nullptr || metadata->empty()) {
        metadataText = prettyMetadata_;
    } else {
        // The call's values win over the handler's for a shared key.
        Logger::Metadata merged = *metadata;
        merged.insert(metadata_.begin(), metadata_.end());
        metadataText = prettify(merged);
    }

    std::string line = timestamp();
    line += ' ';
    line += toString(level);
    line += ' ';
    line += label_;
    line += " :";
    if (metadataText) {
        line += ' ';
        line += *metadataText;
    }
    line += ' ';
    line += message.value;
    line += '\n';
    stream_.write(line);
}

void StreamLogHandler::setMetadata(Logger::Metadata metadata) {
    metadata_ = std::move(metadata);
    prettyMetadata_ = prettify(metadata_);
}

std::unique_ptr<LogHandler> StreamLogHandler::clone() const {
    return std::make_unique<StreamLogHandler>(*this);
}

}  // namespace pellorin
