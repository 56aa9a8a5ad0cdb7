// The logging facade: every diagnostic line of the library goes through a Logger.
//
// A Logger is a value made of a label and a LogHandler that it owns alone: copying a logger
// clones its handler, so two copies share only what the handler itself shares (a FILE*, a
// recording list). Which handler a new Logger(label) gets is decided once per process by
// LoggingSystem::bootstrap; until then it is a StreamLogHandler on standard output.
//
// Messages and metadata are passed as callables and evaluated only when the handler's level lets
// the entry through:
//
//     logger.debug([&] { return "sent " + std::to_string(bytes) + " bytes"; });
//     logger.notice([&] { return text; }, [&] { return Logger::Metadata{{"part", "3"}}; });
//     logger.info("a string literal costs nothing and is accepted as is");
//
// Threads: a logger or handler may log from several threads at once; changing its handler, level
// or metadata while another thread uses it is not allowed. LoggingSystem is safe from any thread.
// The stock handlers (StreamLogHandler, MultiplexLogHandler, NoOpLogHandler) are declared in
// <pellorin/LogHandlers.h>, which this header includes.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#if __has_include(<source_location>)
#include <source_location>
#endif
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <pellorin/Export.h>

namespace pellorin {

// Where a log call was written, filled in by the compiler at the call site. C++20 code gets
// std::source_location; C++17 code gets the same four accessors from the compiler's builtins
// (g++ and clang have them), which name the function without its signature.
#if defined(__cpp_lib_source_location)
using SourceLocation = std::source_location;
#else
class SourceLocation {
  public:
    static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                            const char* function = __builtin_FUNCTION(),
                                            unsigned line = __builtin_LINE()) noexcept {
        return SourceLocation(file, function, line);
    }
    constexpr SourceLocation() noexcept = default;

    constexpr const char* file_name() const noexcept { return file_; }
    constexpr const char* function_name() const noexcept { return function_; }
    constexpr unsigned line() const noexcept { return line_; }
    constexpr unsigned column() const noexcept { return 0; }

  private:
    constexpr SourceLocation(const char* file, const char* function, unsigned line) noexcept
        : file_(file), function_(function), line_(line) {}

    const char* file_ = "";
    const char* function_ = "";
    unsigned line_ = 0;
};
#endif

namespace detail {
// True when `T` has a description() member returning something a std::string can be made from.
template <typename T, typename = void>
struct HasDescription : std::false_type {};
template <typename T>
struct HasDescription<T, std::enable_if_t<std::is_convertible_v<
                             decltype(std::declval<const T&>().description()), std::string>>>
    : std::true_type {};
}  // namespace detail

class LogHandler;

class PELLORIN_EXPORT Logger {
  public:
    // Ordered lowest first: a handler at level L lets through every entry at L or above.
    enum class Level { trace, debug, info, notice, warning, error, critical };

    // One log message: a string, built from a literal, a std::string or a string_view.
    struct Message {
        Message(std::string text) : value(std::move(text)) {}
        Message(const char* text) : value(text) {}
        Message(std::string_view text) : value(text) {}
        const std::string& description() const { return value; }
        bool operator==(const Message& other) const { return value == other.value; }

        std::string value;
    };

    // Anything that can describe itself as text, kept inside a MetadataValue.
    class StringConvertible {
      public:
        virtual ~StringConvertible() = default;
        virtual std::string description() const = 0;
    };

    // A structured metadata value: a string, a describable value, a dictionary or an array.
    // Immutable once made; copies share the (immutable) payload.
    class PELLORIN_EXPORT MetadataValue {
      public:
        enum class Kind { string, stringConvertible, dictionary, array };
        using Dictionary = std::map<std::string, MetadataValue>;
        using Array = std::vector<MetadataValue>;

        MetadataValue(std::string value);
        MetadataValue(const char* value);
        MetadataValue(Dictionary value);
        MetadataValue(Array value);
        explicit MetadataValue(std::shared_ptr<const StringConvertible> value);

        // Wraps any value that has a description() member or an operator<<; it is described
        // when the text form is asked for.
        template <typename T>
        static MetadataValue stringConvertible(T value);

        Kind kind() const { return kind_; }
        // The text form: the string itself, the value's description, ["key": "text", ...] for a
        // dictionary (keys in order) and ["text", ...] for an array, where each "text" is the
        // element's own text form in quotes.
        std::string description() const;

        // The payload of the matching kind, or nullptr for another kind.
        const std::string* string() const;
        const StringConvertible* convertible() const;
        const Dictionary* dictionary() const;
        const Array* array() const;

        // Same kind and same payload; describable values compare by their descriptions.
        bool operator==(const MetadataValue& other) const;

      private:
        Kind kind_;
        std::string string_;
        std::shared_ptr<const StringConvertible> convertible_;
        std::shared_ptr<const Dictionary> dictionary_;
        std::shared_ptr<const Array> array_;
    };

    using Metadata = std::map<std::string, MetadataValue>;

    // Makes the handler for a logger with the given label. Must return a handler (not null).
    using HandlerFactory = std::function<std::unique_ptr<LogHandler>(const std::string& label)>;

    // A deferred message: a callable returning something a Message can be built from, or a
    // string literal.
    template <typename M>
    static constexpr bool isMessageSource =
        std::is_invocable_r_v<Message, M&> ||
        (std::is_array_v<std::remove_reference_t<M>> &&
         std::is_same_v<std::remove_extent_t<std::remove_reference_t<M>>, const char>);
    // A deferred metadata map: a callable returning Metadata.
    template <typename D>
    static constexpr bool isMetadataSource = std::is_invocable_r_v<Metadata, D&>;

    // The handler comes from the factory given to LoggingSystem::bootstrap (read under its lock).
    explicit Logger(std::string label);
    // The handler comes from `factory`; the logging system is not consulted.
    Logger(std::string label, const HandlerFactory& factory);
    // Takes `handler` (not null) as this logger's handler.
    Logger(std::string label, std::unique_ptr<LogHandler> handler);

    // A copy gets a clone of the handler. A moved-from logger may only be assigned or destroyed.
    Logger(const Logger& other);
    Logger& operator=(const Logger& other);
    Logger(Logger&&) noexcept;
    Logger& operator=(Logger&&) noexcept;
    ~Logger();

    const std::string& label() const { return label_; }
    LogHandler& handler() { return *handler_; }
    const LogHandler& handler() const { return *handler_; }
    void setHandler(std::unique_ptr<LogHandler> handler);  // not null

    Level logLevel() const;
    void setLogLevel(Level level);
    // True when an entry at `level` would reach the handler.
    bool isEnabled(Level level) const;

    // The handler's metadata, by key and as a whole. Setting no value removes the key.
    std::optional<MetadataValue> metadataValue(const std::string& key) const;
    void setMetadataValue(const std::string& key, std::optional<MetadataValue> value);

    // Logs at `level`. The entry's file, function and line are the call site's; its source is the
    // module of the call site's file (currentModule). Message and metadata are evaluated only when
    // the level is enabled.
    template <typename M, std::enable_if_t<isMessageSource<M>, int> = 0>
    void log(Level level, M&& message, SourceLocation location = SourceLocation::current()) const {
        NoMetadata none;
        log(level, message, none, location);
    }
    template <typename M, typename D,
              std::enable_if_t<isMessageSource<M> && isMetadataSource<D>, int> = 0>
    void log(Level level, M&& message, D&& metadata,
             SourceLocation location = SourceLocation::current()) const {
        if (isEnabled(level)) {
            emit(level, message, metadata, currentModule(location.file_name()),
                 location.file_name(), location.function_name(), location.line());
        }
    }

    // Logs with an explicitly given source, file, function and line.
    template <typename M, std::enable_if_t<isMessageSource<M>, int> = 0>
    void log(Level level, M&& message, std::string_view source, std::string_view file,
             std::string_view function, std::size_t line) const {
        NoMetadata none;
        log(level, message, none, source, file, function, line);
    }
    template <typename M, typename D,
              std::enable_if_t<isMessageSource<M> && isMetadataSource<D>, int> = 0>
    void log(Level level, M&& message, D&& metadata, std::string_view source, std::string_view file,
             std::string_view function, std::size_t line) const {
        if (isEnabled(level)) {
            emit(level, message, metadata, source, file, function, line);
        }
    }

#define PELLORIN_LOGGER_LEVEL_FUNCTION(name)                                                  \
    template <typename M, std::enable_if_t<isMessageSource<M>, int> = 0>                      \
    void name(M&& message, SourceLocation location = SourceLocation::current()) const {       \
        log(Level::name, std::forward<M>(message), location);                                 \
    }                                                                                         \
    template <typename M, typename D,                                                         \
              std::enable_if_t<isMessageSource<M> && isMetadataSource<D>, int> = 0>           \
    void name(M&& message, D&& metadata, SourceLocation location = SourceLocation::current()) \
        const {                                                                               \
        log(Level::name, std::forward<M>(message), std::forward<D>(metadata), location);      \
    }
    PELLORIN_LOGGER_LEVEL_FUNCTION(trace)
    PELLORIN_LOGGER_LEVEL_FUNCTION(debug)
    PELLORIN_LOGGER_LEVEL_FUNCTION(info)
    PELLORIN_LOGGER_LEVEL_FUNCTION(notice)
    PELLORIN_LOGGER_LEVEL_FUNCTION(warning)
    PELLORIN_LOGGER_LEVEL_FUNCTION(error)
    PELLORIN_LOGGER_LEVEL_FUNCTION(critical)
#undef PELLORIN_LOGGER_LEVEL_FUNCTION

    // The module of a source file: the name of the directory that holds it, i.e. the text between
    // the last and the next-to-last "/"; "n/a" when the path has fewer than two "/". The result
    // views into `filePath` (or a static text), so it lives as long as `filePath` does.
    static std::string_view currentModule(std::string_view filePath);

  private:
    // Stands for "no metadata" in the forms of log() that take none; the handler gets nullptr.
    struct NoMetadata {
        Metadata operator()() const { return {}; }
    };
    template <typename M>
    static Message evaluate(M& message);
    template <typename M, typename D>
    void emit(Level level, M& message, D& metadata, std::string_view source, std::string_view file,
              std::string_view function, std::size_t line) const;

    std::string label_;
    std::unique_ptr<LogHandler> handler_;  // never null, except in a moved-from logger
};

// The raw text of a level: "trace", "debug", "info", "notice", "warning", "error", "critical".
PELLORIN_EXPORT std::string_view toString(Logger::Level level);
// The level whose raw text is `text` exactly, or no value.
PELLORIN_EXPORT std::optional<Logger::Level> parseLevel(std::string_view text);

// Where a logger's entries go. Implementations are values: clone() returns an independent copy
// that shares only what the handler is meant to share (an output stream, a recording list).
// log() may run on several threads at once; the setters must not race with other calls.
class PELLORIN_EXPORT LogHandler {
  public:
    virtual ~LogHandler() = default;

    // Emits one entry. `metadata` is the call's own metadata, or nullptr when it brought none.
    virtual void log(Logger::Level level, const Logger::Message& message,
                     const Logger::Metadata* metadata, std::string_view source,
                     std::string_view file, std::string_view function, std::size_t line) const = 0;
    // As log(), with the source taken from the file path by Logger::currentModule.
    void logDerivingSource(Logger::Level level, const Logger::Message& message,
                           const Logger::Metadata* metadata, std::string_view file,
                           std::string_view function, std::size_t line) const {
        log(level, message, metadata, Logger::currentModule(file), file, function, line);
    }

    // The metadata subscript: the value for a key, or none; setting none removes the key. By
    // default both go through metadata() and setMetadata().
    virtual std::optional<Logger::MetadataValue> metadataValue(const std::string& key) const;
    virtual void setMetadataValue(const std::string& key,
                                  std::optional<Logger::MetadataValue> value);

    virtual Logger::Metadata metadata() const = 0;
    virtual void setMetadata(Logger::Metadata metadata) = 0;

    virtual Logger::Level logLevel() const = 0;
    virtual void setLogLevel(Logger::Level level) = 0;

    virtual std::unique_ptr<LogHandler> clone() const = 0;

  protected:
    LogHandler() = default;
    LogHandler(const LogHandler&) = default;
    LogHandler& operator=(const LogHandler&) = default;
};

// The process-wide choice of handler for Logger(label). Any thread.
class PELLORIN_EXPORT LoggingSystem {
  public:
    LoggingSystem() = delete;

    // Sets the factory every later Logger(label) uses. Allowed once per process: a second call
    // is a fatal stop, and so is an empty factory. Loggers made earlier keep their handlers.
    static void bootstrap(Logger::HandlerFactory factory);
    // The current factory: StreamLogHandler::standardOutput until bootstrap is called.
    static Logger::HandlerFactory factory();
};

// ---------------------------------------------------------------------------------------------
// Template definitions.

template <typename T>
Logger::MetadataValue Logger::MetadataValue::stringConvertible(T value) {
    class Described final : public StringConvertible {
      public:
        explicit Described(T value) : value_(std::move(value)) {}
        std::string description() const override {
            if constexpr (detail::HasDescription<T>::value) {
                return value_.description();
            } else {
                std::ostringstream text;
                text << value_;
                return text.str();
            }
        }

      private:
        T value_;
    };
    return MetadataValue(std::make_shared<const Described>(std::move(value)));
}

template <typename M>
Logger::Message Logger::evaluate(M& message) {
    if constexpr (std::is_invocable_r_v<Message, M&>) {
        return Message(message());
    } else {
        return Message(std::string_view(message));
    }
}

template <typename M, typename D>
void Logger::emit(Level level, M& message, D& metadata, std::string_view source,
                  std::string_view file, std::string_view function, std::size_t line) const {
    if constexpr (std::is_same_v<D, NoMetadata>) {
        handler_->log(level, evaluate(message), nullptr, source, file, function, line);
    } else {
        const Metadata evaluated = metadata();
        handler_->log(level, evaluate(message), &evaluated, source, file, function, line);
    }
}

}  // namespace pellorin

#include <pellorin/LogHandlers.h>
