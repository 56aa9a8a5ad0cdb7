// StatusLine: the one live line at the bottom of a terminal (standard error) and everything else
// that is written there. Text printed through it appears above the live line, which is redrawn
// under it, so progress and messages never share a line.
//
// Off a terminal the live line is never drawn; messages are still printed. One instance per
// process, shared (std::shared_ptr) by the progress display, the host's messages and the log
// handler. Any thread: every write happens under one mutex.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include <pellorin/Logging.h>

namespace pellorin::host {

class StatusLine {
  public:
    // `live`: whether the live line is drawn (standard error is a terminal). `quiet`: notes are
    // dropped (errors are still printed) and no progress is shown.
    StatusLine(std::FILE* stream, bool live, bool quiet = false)
        : stream_(stream), live_(live && !quiet), quiet_(quiet) {}

    bool live() const { return live_; }
    bool quiet() const { return quiet_; }
    // Replaces the live line's text and redraws it (only when live).
    void show(const std::string& text);
    // Ends the live line: leaves its last text on screen followed by a newline.
    void finish();
    // Prints one line above the live line, made safe for a terminal (Redaction.h).
    void print(const std::string& line);
    // print, unless quiet: for what is informative rather than a fault.
    void note(const std::string& line);
    // Runs `write`, which writes whole lines to the stream, with the live line cleared first and
    // redrawn afterwards.
    void interrupt(const std::function<void()>& write);

  private:
    void clearLocked();
    void drawLocked();

    std::FILE* stream_;
    const bool live_;
    const bool quiet_;
    std::mutex mutex_;
    std::string text_;    // guarded by mutex_
    bool shown_ = false;  // guarded by mutex_: the live line is on screen
};

// A log handler that writes through a StatusLine: the wrapped handler's lines appear above the
// live line, made safe for a terminal. Level and metadata are the wrapped handler's.
class StatusLineLogHandler final : public LogHandler {
  public:
    StatusLineLogHandler(std::unique_ptr<LogHandler> inner, std::shared_ptr<StatusLine> line)
        : inner_(std::move(inner)), line_(std::move(line)) {}

    void log(Logger::Level level, const Logger::Message& message, const Logger::Metadata* metadata,
             std::string_view source, std::string_view file, std::string_view function,
             std::size_t line) const override;
    Logger::Metadata metadata() const override { return inner_->metadata(); }
    void setMetadata(Logger::Metadata metadata) override { inner_->setMetadata(metadata); }
    Logger::Level logLevel() const override { return inner_->logLevel(); }
    void setLogLevel(Logger::Level level) override { inner_->setLogLevel(level); }
    std::unique_ptr<LogHandler> clone() const override {
        return std::make_unique<StatusLineLogHandler>(inner_->clone(), line_);
    }

  private:
    std::unique_ptr<LogHandler> inner_;
    std::shared_ptr<StatusLine> line_;
};

}  // namespace pellorin::host
