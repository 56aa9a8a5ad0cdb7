#include "receiver/ConnectionHandler.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <span>
#include <string_view>

#include "Platform/Encoding.h"
#include "receiver/ReservationEndpoint.h"
#include "receiver/UniqueFd.h"

namespace pellorin::receiver {

namespace {

// One read buffer per connection: large enough that a fast sender fills it in one recv, so the
// per-chunk costs (system call, a round of the shared hasher, pwrite) vanish next to hashing the
// bytes.
constexpr size_t kBufferSize = size_t{1} << 20;
// The longest head accepted; longer ones are answered 431.
constexpr size_t kMaxHeadSize = 64 * 1024;
// Sent instead of an answer by the garbage fault: no status line, binary bytes, a blank line.
constexpr char kGarbageBytes[] = "\x16\x03\x01 GARBAGE \xff\xfe not an answer \x00\r\n\r\n";
constexpr std::string_view kGarbage(kGarbageBytes, sizeof kGarbageBytes - 1);

using Headers = std::vector<std::pair<std::string, std::string>>;

std::optional<uint64_t> decimalHeader(const RequestHead& head, std::string_view name) {
    const auto value = head.header(name);
    return value ? parseDecimal(*value) : std::nullopt;
}

// Opens `name` (one path component) for writing inside `directory`, never through a symbolic
// link and never outside: openat2 with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS where the kernel has
// it, else O_NOFOLLOW on the only component below the directory. -1 with errno on failure (ELOOP
// or EXDEV for a link).
int openBeneath(const std::filesystem::path& directory, const std::string& name) {
    UniqueFd folder(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        return -1;
    }
    open_how how{};
    how.flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    how.mode = 0644;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const long fd = ::syscall(SYS_openat2, folder.get(), name.c_str(), &how, sizeof how);
    if (fd >= 0 || errno != ENOSYS) {
        return static_cast<int>(fd);
    }
    return ::openat(folder.get(), name.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
}

bool validPartName(const std::string& name) {
    return !name.empty() && name.find('/') == std::string::npos &&
           name.find("..") == std::string::npos && name.find('\0') == std::string::npos;
}

// The checksum header of a successful answer, shaped by the fault.
std::optional<std::pair<std::string, std::string>> checksumHeader(BodySink::Digest digest,
                                                                  ChecksumMode mode,
                                                                  const Fault& fault) {
    if (fault.noChecksum) {
        return std::nullopt;
    }
    if (fault.wrongChecksum) {
        for (auto& byte : digest) {
            byte ^= 0x5a;
        }
    }
    if (mode == ChecksumMode::contentMD5 && !fault.quotedETag && !fault.upperCaseETag) {
        return std::pair{std::string("Content-MD5"), base64Encode(digest)};
    }
    std::string hex = hexString(digest);
    if (fault.upperCaseETag) {
        std::ranges::transform(hex, hex.begin(), [](char c) { return std::toupper(c); });
    }
    if (fault.quotedETag) {
        hex = '"' + hex + '"';
    }
    return std::pair{std::string("ETag"), hex};
}

}  // namespace

ConnectionHandler::ConnectionHandler(Connection& connection, uint64_t number, RequestLog& log,
                                     const StopSignal& stop, const ReceiverOptions& options,
                                     std::string baseUrl, LaneHasher& hasher)
    : connection_(connection),
      number_(number),
      log_(log),
      stop_(stop),
      options_(options),
      baseUrl_(std::move(baseUrl)),
      sink_(hasher),
      buffer_(std::make_unique_for_overwrite<uint8_t[]>(kBufferSize)) {
    connection_.setWaitObserver([this](bool waiting) { sink_.setIdle(waiting); });
}

ConnectionHandler::~ConnectionHandler() {
    connection_.setWaitObserver(nullptr);
}

void ConnectionHandler::run() {
    if (!connection_.handshake()) {
        return;
    }
    for (;;) {
        std::string text;
        const HeadOutcome outcome = readHead(text);
        if (outcome == HeadOutcome::closed) {
            return;
        }
        if (outcome == HeadOutcome::tooLarge) {
            answer(431, {}, "request head too large\n", true);
            connection_.drainAndClose();
            return;
        }
        const auto head = parseRequestHead(text);
        if (!head) {
            answer(400, {}, "malformed request head\n", true);
            connection_.drainAndClose();
            return;
        }
        switch (serve(*head)) {
            case Next::keepAlive:
                continue;
            case Next::drainAndClose:
                connection_.drainAndClose();
                return;
            case Next::close:
            case Next::drop:
                return;
        }
    }
}

ConnectionHandler::HeadOutcome ConnectionHandler::readHead(std::string& text) {
    size_t searched = begin_;  // where the search for the blank line resumes
    for (;;) {
        // Blank lines before a request line are ignored.
        while (end_ - begin_ >= 2 && buffer_[begin_] == '\r' && buffer_[begin_ + 1] == '\n') {
            begin_ += 2;
            searched = std::max(searched, begin_);
        }
        const std::string_view window(reinterpret_cast<const char*>(buffer_.get()) + begin_,
                                      end_ - begin_);
        const auto blank = window.find("\r\n\r\n", searched - begin_);
        if (blank != std::string_view::npos) {
            text.assign(window.substr(0, blank));
            begin_ += blank + 4;
            return HeadOutcome::ok;
        }
        if (window.size() > kMaxHeadSize) {
            return HeadOutcome::tooLarge;
        }
        searched = std::max(begin_, end_ >= 3 ? end_ - 3 : 0);
        if (end_ == kBufferSize) {
            std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
            searched -= begin_;
            end_ -= begin_;
            begin_ = 0;
        }
        const size_t got = connection_.readSome(buffer_.get() + end_, kBufferSize - end_);
        if (got == 0) {
            return HeadOutcome::closed;
        }
        end_ += got;
    }
}

ConnectionHandler::Route ConnectionHandler::route(const RequestHead& head) const {
    Route route;
    if (head.header("Transfer-Encoding")) {
        route.status = 411;
        route.message = "chunked request bodies are not accepted; send Content-Length\n";
        route.framed = false;
        return route;
    }
    if (const auto length = head.header("Content-Length")) {
        const auto value = parseDecimal(*length);
        if (!value) {
            route.status = 400;
            route.message = "bad Content-Length\n";
            route.framed = false;
            return route;
        }
        route.bodyLength = *value;
    }
    constexpr std::string_view prefix = "/upload/";
    const std::string_view path = head.path();
    if (path == kReservationPath) {
        return reservationRoute(head, std::move(route));
    }
    if (!path.starts_with(prefix)) {
        route.status = 404;
        route.message = "no such resource\n";
        return route;
    }
    if (head.method != "PUT" && head.method != "POST") {
        route.status = 405;
        route.message = "uploads take PUT or POST\n";
        return route;
    }
    if (!head.header("Content-Length")) {
        route.status = 411;
        route.message = "uploads need Content-Length\n";
        return route;
    }
    const auto name = percentDecode(path.substr(prefix.size()));
    if (!name || !validPartName(*name)) {
        route.status = 400;
        route.message = "bad part name\n";
        return route;
    }
    const auto offsetText = queryParameter(head.query(), "offset");
    const auto offset = offsetText ? parseDecimal(*offsetText) : std::optional<uint64_t>(0);
    constexpr auto kMaxOffset = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
    if (!offset || *offset > kMaxOffset || route.bodyLength > kMaxOffset - *offset) {
        route.status = 400;
        route.message = "bad offset\n";
        return route;
    }
    route.offset = *offset;
    if (options_.directory) {
        const auto file = *options_.directory / *name;
        route.file.reset(openBeneath(*options_.directory, *name));
        if (!route.file && (errno == ELOOP || errno == EXDEV)) {
            route.status = 403;
            route.message = "refusing to write through a symbolic link: " + *name + "\n";
        } else if (!route.file) {
            route.status = 500;
            route.message = "cannot open " + file.string() + ": " + std::strerror(errno) + "\n";
        }
    }
    return route;
}

ConnectionHandler::Route ConnectionHandler::reservationRoute(const RequestHead& head, Route route) {
    route.reservation = true;
    if (head.method != "POST") {
        route.status = 405;
        route.message = "reservation calls take POST\n";
    } else if (head.header("x-tx-method") != kReservationMethod) {
        route.status = 400;
        route.message = "x-tx-method must be " + std::string(kReservationMethod) + "\n";
    } else if (!head.header("Content-Length")) {
        route.status = 411;
        route.message = "reservation calls need Content-Length\n";
    } else if (route.bodyLength > kMaxReservationCallSize) {
        // Not read at all: the connection is closed after the answer.
        route.status = 413;
        route.message =
            "reservation call larger than " + std::to_string(kMaxReservationCallSize) + " bytes\n";
        route.framed = false;
    }
    return route;
}

ConnectionHandler::Next ConnectionHandler::serve(const RequestHead& head) {
    RequestRecord record;
    record.method = head.method;
    record.path = head.target;
    record.contentLength = decimalHeader(head, "Content-Length");
    record.partNumber = decimalHeader(head, "X-PLNX-Part-Number");
    record.retryCount = decimalHeader(head, "X-PLNX-Retry-Count");
    record.headers = head.headers;
    record.connection = number_;
    record.started = std::chrono::steady_clock::now();
    RequestLog::Visit visit = log_.arrive(record);

    Fault fault;
    if (const auto script = log_.faultScript()) {
        fault = script(RequestInfo{head.method, head.target, record.partNumber, visit.attempt(),
                                   record.retryCount})
                    .value_or(Fault{});
    }
    Route route = this->route(head);
    // Ends the request without an answer, keeping what was read in the record.
    auto unanswered = [&] {
        record.finished = std::chrono::steady_clock::now();
        visit.complete(record);
        return Next::drop;
    };

    if (fault.stallSecs && stop_.waitFor(*fault.stallSecs)) {
        return unanswered();
    }
    if (route.framed && route.bodyLength > 0 && head.version == "HTTP/1.1" &&
        head.hasToken("Expect", "100-continue") &&
        !connection_.writeAll("HTTP/1.1 100 Continue\r\n\r\n")) {
        return unanswered();
    }

    const uint64_t toRead = route.framed ? route.bodyLength : 0;
    uint64_t limit =
        fault.closeAfterBodyBytes ? std::min(toRead, *fault.closeAfterBodyBytes) : toRead;
    if (fault.answerAfterBodyBytes) {
        limit = std::min(limit, *fault.answerAfterBodyBytes);
    }
    const bool early = limit < toRead && !fault.closeAfterBodyBytes;
    sink_.begin(std::move(route.file), route.offset, route.reservation && route.status == 200);
    const bool complete = readBody(limit);
    const BodySink::Digest digest = sink_.finish();
    record.bytesReceived = sink_.bytes();
    record.md5Hex = hexString(digest);
    if (!complete || fault.closeAfterBodyBytes) {
        return unanswered();
    }
    if (fault.delayBeforeAnswerSecs && stop_.waitFor(*fault.delayBeforeAnswerSecs)) {
        return unanswered();
    }
    if (fault.garbageResponse || fault.rawAnswer) {
        unanswered();  // what goes out next is not an answer: the record keeps status 0
        connection_.writeAll(fault.rawAnswer ? std::string_view(*fault.rawAnswer) : kGarbage);
        return Next::close;
    }

    if (route.status == 200 && !sink_.writeError().empty()) {
        route.status = 500;
        route.message = "cannot write the part: " + sink_.writeError() + "\n";
    }
    std::string body = route.message;
    std::string contentType = "text/plain; charset=utf-8";
    if (route.reservation && route.status == 200) {
        EndpointReply reply = answerReservationCall(sink_.kept(), options_, baseUrl_);
        route.status = reply.status;
        body = std::move(reply.body);
        contentType = std::move(reply.contentType);
    }
    const int status = route.status == 200 ? fault.status.value_or(200) : route.status;
    Headers headers;
    if (status / 100 == 2 && !route.reservation) {
        if (auto checksum = checksumHeader(digest, options_.checksumMode, fault)) {
            headers.push_back(std::move(*checksum));
        }
    }
    if (fault.retryAfter) {
        headers.emplace_back("Retry-After", *fault.retryAfter);
    }
    const bool closing =
        !route.framed || head.hasToken("Connection", "close") ||
        (head.version == "HTTP/1.0" && !head.hasToken("Connection", "keep-alive")) ||
        (early && !fault.readRestAfterAnswer);

    record.status = status;
    record.accepted = status == 200 && !route.reservation && !fault.noChecksum &&
                      !fault.wrongChecksum && !fault.quotedETag && !early;
    record.finished = std::chrono::steady_clock::now();
    visit.complete(record);

    if (!answer(status, std::move(headers), status == 200 && !route.reservation ? "" : body,
                closing, contentType, fault.trickleAnswerSecs)) {
        return Next::drop;
    }
    if (early && fault.readRestAfterAnswer && !skipBody(toRead - limit)) {
        return Next::drop;
    }
    if (early && !fault.readRestAfterAnswer) {
        return Next::drainAndClose;
    }
    if (!closing) {
        std::optional<std::chrono::steady_clock::time_point> closeAt;
        if (fault.closeAfterAnswerSecs) {
            closeAt = std::chrono::steady_clock::now() +
                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                          std::chrono::duration<double>(*fault.closeAfterAnswerSecs));
        }
        connection_.closeWhenIdleAt(closeAt);
        return Next::keepAlive;
    }
    return route.framed ? Next::close : Next::drainAndClose;
}

bool ConnectionHandler::readBody(uint64_t length) {
    return takeBody(length, true);
}

bool ConnectionHandler::skipBody(uint64_t length) {
    return takeBody(length, false);
}

bool ConnectionHandler::takeBody(uint64_t length, bool consume) {
    uint64_t remaining = length;
    while (remaining > 0) {
        if (begin_ == end_) {
            begin_ = end_ = 0;
            const size_t want = static_cast<size_t>(std::min<uint64_t>(kBufferSize, remaining));
            end_ = connection_.readSome(buffer_.get(), want);
            if (end_ == 0) {
                return false;
            }
        }
        const size_t take = static_cast<size_t>(std::min<uint64_t>(end_ - begin_, remaining));
        if (consume) {
            sink_.consume(buffer_.get() + begin_, take);
        }
        begin_ += take;
        remaining -= take;
    }
    return true;
}

bool ConnectionHandler::answer(int status, Headers headers, const std::string& body, bool closing,
                               std::string_view contentType, std::optional<double> trickleSecs) {
    headers.emplace_back("Content-Length", std::to_string(body.size()));
    if (!body.empty()) {
        headers.emplace_back("Content-Type", contentType);
    }
    if (closing) {
        headers.emplace_back("Connection", "close");
    }
    const std::string bytes = responseHead(status, headers) + body;
    if (!trickleSecs) {
        return connection_.writeAll(bytes);
    }
    constexpr size_t kTrickle = 16;
    for (size_t at = 0; at < bytes.size(); at += kTrickle) {
        if ((at > 0 && stop_.waitFor(*trickleSecs)) ||
            !connection_.writeAll(std::string_view(bytes).substr(at, kTrickle))) {
            return false;
        }
    }
    return true;
}

}  // namespace pellorin::receiver
