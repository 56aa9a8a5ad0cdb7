// The stock log handlers: StreamLogHandler writes one text line per entry to a standard-I/O
// stream, MultiplexLogHandler fans entries out to several handlers, NoOpLogHandler drops them.
// All are values (copying copies, cloning clones); see <pellorin/Logging.h> for the threading
// rules every handler follows.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/Export.h>
#include <pellorin/Logging.h>

namespace pellorin {

// A standard-I/O stream that writes each text in one locked step. Does not own the FILE*, which
// must outlive every copy.
class PELLORIN_EXPORT StdioOutputStream {
  public:
    enum class FlushMode { undefined, always };

    StdioOutputStream(std::FILE* file, FlushMode flushMode) : file_(file), flushMode_(flushMode) {}
    // The shared instances on standard output and standard error; both flush every write.
    static StdioOutputStream standardOutput() { return {stdout, FlushMode::always}; }
    static StdioOutputStream standardError() { return {stderr, FlushMode::always}; }

    // Locks the stream, writes `text` (up to its first NUL), flushes when the mode is `always`,
    // unlocks. Texts written by different threads are therefore never interleaved. Any thread.
    void write(const std::string& text) const;

    std::FILE* file() const { return file_; }
    FlushMode flushMode() const { return flushMode_; }

  private:
    std::FILE* file_;
    FlushMode flushMode_;
};

// One line per entry: "<timestamp> <level> <label> :[ <metadata>] <message>\n", with the local
// time formatted as "%Y-%m-%dT%H:%M:%S%z" and metadata as "key=value" pairs joined by a blank.
// The handler's metadata is merged with the call's (the call wins on a shared key).
class PELLORIN_EXPORT StreamLogHandler final : public LogHandler {
  public:
    // Handlers at level info with no metadata, on standard output or standard error.
    static StreamLogHandler standardOutput(std::string label);
    static StreamLogHandler standardError(std::string label);
    StreamLogHandler(std::string label, StdioOutputStream stream);

    void log(Logger::Level level, const Logger::Message& message, const Logger::Metadata* metadata,
             std::string_view source, std::string_view file, std::string_view function,
             std::size_t line) const override;
    Logger::Metadata metadata() const override { return metadata_; }
    void setMetadata(Logger::Metadata metadata) override;
    Logger::Level logLevel() const override { return logLevel_; }
    void setLogLevel(Logger::Level level) override { logLevel_ = level; }
    std::unique_ptr<LogHandler> clone() const override;

    const std::string& label() const { return label_; }
    const StdioOutputStream& stream() const { return stream_; }
    // The handler's own metadata as printed, kept ready; absent when there is none.
    const std::optional<std::string>& prettyMetadata() const { return prettyMetadata_; }

  private:
    StdioOutputStream stream_;
    std::string label_;
    Logger::Level logLevel_ = Logger::Level::info;
    std::optional<std::string> prettyMetadata_;
    Logger::Metadata metadata_;
};

// Sends each entry to every handler whose own level lets it through. Its level is the lowest of
// its handlers' levels; setting it sets every handler's. Reading metadata merges the handlers'
// maps in order (the earliest handler wins a key); setting metadata sets it on every handler.
class PELLORIN_EXPORT MultiplexLogHandler final : public LogHandler {
  public:
    // Takes the handlers (none null). An empty list is a fatal stop.
    explicit MultiplexLogHandler(std::vector<std::unique_ptr<LogHandler>> handlers);
    // Copies clone every handler.
    MultiplexLogHandler(const MultiplexLogHandler& other);
    MultiplexLogHandler& operator=(const MultiplexLogHandler& other);
    MultiplexLogHandler(MultiplexLogHandler&&) noexcept = default;
    MultiplexLogHandler& operator=(MultiplexLogHandler&&) noexcept = default;

    void log(Logger::Level level, const Logger::Message& message, const Logger::Metadata* metadata,
             std::string_view source, std::string_view file, std::string_view function,
             std::size_t line) const override;
    std::optional<Logger::MetadataValue> metadataValue(const std::string& key) const override;
    void setMetadataValue(const std::string& key,
                          std::optional<Logger::MetadataValue> value) override;
    Logger::Metadata metadata() const override;
    void setMetadata(Logger::Metadata metadata) override;
    Logger::Level logLevel() const override { return effectiveLogLevel_; }
    void setLogLevel(Logger::Level level) override;
    std::unique_ptr<LogHandler> clone() const override;

    Logger::Level effectiveLogLevel() const { return effectiveLogLevel_; }
    const std::vector<std::unique_ptr<LogHandler>>& handlers() const { return handlers_; }

  private:
    std::vector<std::unique_ptr<LogHandler>> handlers_;  // owned, never empty
    Logger::Level effectiveLogLevel_;
};

// Drops everything: its level always reads critical and its metadata always reads empty; writes
// to either are ignored.
class PELLORIN_EXPORT NoOpLogHandler final : public LogHandler {
  public:
    NoOpLogHandler() = default;

    void log(Logger::Level, const Logger::Message&, const Logger::Metadata*, std::string_view,
             std::string_view, std::string_view, std::size_t) const override {}
    Logger::Metadata metadata() const override { return {}; }
    void setMetadata(Logger::Metadata) override {}
    Logger::Level logLevel() const override { return Logger::Level::critical; }
    void setLogLevel(Logger::Level) override {}
    std::unique_ptr<LogHandler> clone() const override {
        return std::make_unique<NoOpLogHandler>();
    }
};

}  // namespace pellorin
