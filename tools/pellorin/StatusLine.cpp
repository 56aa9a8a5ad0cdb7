#include "StatusLine.h"

#include "Redaction.h"

namespace pellorin::host {

namespace {
// Carriage return, then erase to the end of the line.
constexpr const char* kClearLine = "\r\033[K";
}  // namespace

void StatusLine::show(const std::string& text) {
    if (!live_) {
        return;
    }
    std::lock_guard lock(mutex_);
    text_ = text;
    drawLocked();
}

void StatusLine::finish() {
    std::lock_guard lock(mutex_);
    if (shown_) {
        std::fputs("\n", stream_);
        std::fflush(stream_);
    }
    shown_ = false;
    text_.clear();
}

void StatusLine::note(const std::string& line) {
    if (!quiet_) {
        print(line);
    }
}

void StatusLine::print(const std::string& line) {
    const std::string safe = forTerminal(line);
    interrupt([&] {
        std::fputs(safe.c_str(), stream_);
        std::fputs("\n", stream_);
    });
}

void StatusLine::interrupt(const std::function<void()>& write) {
    std::lock_guard lock(mutex_);
    clearLocked();
    write();
    std::fflush(stream_);
    drawLocked();
}

void StatusLine::clearLocked() {
    if (shown_) {
        std::fputs(kClearLine, stream_);
        shown_ = false;
    }
}

void StatusLine::drawLocked() {
    if (!live_ || text_.empty()) {
        return;
    }
    std::fputs(kClearLine, stream_);
    std::fputs(text_.c_str(), stream_);
    std::fflush(stream_);
    shown_ = true;
}

void StatusLineLogHandler::log(Logger::Level level, const Logger::Message& message,
                               const Logger::Metadata* metadata, std::string_view source,
                               std::string_view file, std::string_view function,
                               std::size_t line) const {
    const Logger::Message safe(forTerminal(message.value));
    line_->interrupt([&] { inner_->log(level, safe, metadata, source, file, function, line); });
}

}  // namespace pellorin::host
