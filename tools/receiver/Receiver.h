// The local receiver: a small HTTP/1.1 upload server on 127.0.0.1 that tests, benchmarks and
// the command-line host upload parts to. It hashes every body with MD5 while reading it, can write
// the bodies into files at their offsets, answers with the checksum header the client verifies,
// records every request, and misbehaves on demand through a fault script. It also stands in for the
// reservation service: a JSON-RPC call "createTestReservation" is answered with operations that
// upload to the receiver itself.
//
// Why hand-written sockets rather than an HTTP server library: most of what this server exists
// for is below the level such libraries expose. Dropping a connection after N body bytes, stalling
// before the body, answering bytes that are not HTTP, and streaming a multi-gigabyte body through
// one fixed buffer while hashing it are each either impossible or a work-around in cpp-httplib
// (which reads bodies through its own small buffer and always answers) or Boost.Beast (not
// installed, and heavy for this). The protocol subset needed here (request line, headers,
// Content-Length bodies, keep-alive) is small, and owning the read loop keeps the hot path to one
// recv into a 1 MiB buffer, its MD5 and an optional pwrite per chunk. The chunks of all connections
// are hashed together in SIMD lanes (the library's LaneHasher), so that the receiver hashes many
// bodies for the CPU cost of a few and stays out of the way of the clients measured against it.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pellorin::receiver {

// Which header a successful answer carries the body's MD5 in.
enum class ChecksumMode {
    contentMD5,  // "Content-MD5": base64 of the raw 16-byte digest
    eTag,        // "ETag": lower-case hexadecimal digest, unquoted
};

// What to do to one request. A default-constructed Fault means "behave normally".
struct Fault {
    std::optional<int> status;                    // answer this status (after the whole body)
    std::optional<std::string> retryAfter;        // add "Retry-After: <text>" to the answer
    bool wrongChecksum = false;                   // checksum header of some other digest
    bool quotedETag = false;                      // "ETag: \"<hex>\"" (forces ETag)
    bool upperCaseETag = false;                   // ETag hex in upper case (forces ETag)
    bool noChecksum = false;                      // neither checksum header
    std::optional<uint64_t> closeAfterBodyBytes;  // read N body bytes, then close unanswered
    std::optional<double> stallSecs;              // read nothing of the body for T seconds first
    bool garbageResponse = false;                 // read the body, answer non-HTTP bytes, close
    std::optional<double> delayBeforeAnswerSecs;  // read the body, wait T seconds, then answer
    // Answer (status, checksum) after reading only N body bytes, with the MD5 of those bytes;
    // then read and discard the rest and keep the connection when readRestAfterAnswer, else
    // close it. Never recorded as accepted.
    std::optional<uint64_t> answerAfterBodyBytes;
    bool readRestAfterAnswer = false;
    // Close the kept-alive connection this long after answering unless the peer is sending
    // meanwhile (no "Connection: close" is announced).
    std::optional<double> closeAfterAnswerSecs;
    // Send the answer 16 bytes at a time, this many seconds apart.
    std::optional<double> trickleAnswerSecs;
    // Read the body, then send these bytes verbatim instead of an answer and close.
    std::optional<std::string> rawAnswer;
};

// What the fault script is told about a request, before its body is read.
struct RequestInfo {
    std::string method;
    std::string path;  // includes the query
    std::optional<uint64_t> partNumber;
    uint32_t attempt = 0;  // 0-based count of earlier requests with the same (path, partNumber)
    // From "X-PLNX-Retry-Count": the client's attempt, which a request sent again by the
    // transport on a new connection shares with the one that failed.
    std::optional<uint64_t> retryCount;
};

// One request as the receiver saw it. Completed before the answer goes out, so a client that has
// its answer also finds the full record in requests().
struct RequestRecord {
    std::string method;
    std::string path;  // includes the query
    // From "Content-Length", "X-PLNX-Part-Number" and "X-PLNX-Retry-Count"; no value when the
    // header is absent or not a decimal number.
    std::optional<uint64_t> contentLength, partNumber, retryCount;
    // Every header as received, in order, duplicates kept.
    std::vector<std::pair<std::string, std::string>> headers;
    uint64_t bytesReceived = 0;  // body bytes actually read
    std::string md5Hex;          // MD5 of the bytes read, lower-case hexadecimal
    int status = 0;              // status answered; 0 when none was (dropped, garbage, stopped)
    bool accepted = false;       // answered 200 with the body's checksum in a form clients accept
    uint64_t connection = 0;     // which accepted connection carried it, numbered from 1
    std::chrono::steady_clock::time_point started, finished;
};

// What the reservation endpoint answers to a well-formed call.
enum class ReservationAnswer {
    reservations,    // one reservation per described file, Success true
    noReservations,  // Success false with one error text, no "Reservations" key
    undecodable,     // 200 with a UTF-8 body that is not a JSON-RPC answer
};

struct ReceiverOptions {
    ChecksumMode checksumMode = ChecksumMode::contentMD5;
    // When set, the body of PUT/POST /upload/<name>?offset=N is written into <directory>/<name>
    // starting at byte N. The directory must exist.
    std::optional<std::filesystem::path> directory;
    // Serve HTTPS with a self-signed certificate for 127.0.0.1 and localhost made at start().
    bool tls = false;
    // Highest TLS version served (an OpenSSL constant such as TLS1_1_VERSION). Below TLS 1.2 the
    // server also lowers its security level so that the old protocol can be negotiated at all.
    std::optional<int> tlsMaxVersion;
    uint16_t port = 0;  // 0: an ephemeral port
    // The reservation endpoint (POST <kReservationPath> with "x-tx-method: createTestReservation")
    // cuts each described file into operations of this many bytes (the last one shorter; 0 is
    // taken as 1), each a PUT to partUrl(<file name>, offset).
    uint64_t reservationPartSize = uint64_t{8} << 20;
    ReservationAnswer reservationAnswer = ReservationAnswer::reservations;
};

// The server. One accept thread and one thread per connection, all owned and joined by the
// Receiver. Public functions may be called from any thread; the fault script runs on the
// connection's thread.
class Receiver {
  public:
    using FaultScript = std::function<std::optional<Fault>(const RequestInfo&)>;
    // Told about every request once its record is final, on the connection's thread, before the
    // answer goes out (or after the connection was dropped). Keep it short: the answer waits.
    using RequestObserver = std::function<void(const RequestRecord&)>;

    explicit Receiver(ReceiverOptions options = {});
    ~Receiver();  // stops
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    // Binds 127.0.0.1:port and starts accepting. Throws std::runtime_error with a readable text
    // when the port cannot be bound or the certificate cannot be made, or when called twice.
    void start();
    // Closes the listener and every connection, interrupting stalls and delays, and joins every
    // thread. Prompt even with clients connected; idempotent.
    void stop();

    uint16_t port() const;
    std::string baseUrl() const;  // "http://127.0.0.1:<port>" or "https://127.0.0.1:<port>"
    // baseUrl() + "/upload/<name>?offset=<offset>", the name percent-encoded.
    std::string partUrl(const std::string& name, uint64_t offset) const;
    // Path of the PEM certificate (TLS mode, after start()); empty otherwise. The file lives in a
    // temporary directory that is removed when the Receiver goes away.
    std::string certificateFile() const;

    // Replaces the fault script; called once per request. Requests already being served keep the
    // fault they were given.
    void setFaultScript(FaultScript script);
    // Replaces the observer; requests completing afterwards are reported to the new one.
    void setRequestObserver(RequestObserver observer);

    std::vector<RequestRecord> requests() const;  // snapshot, in arrival order
    // High-water mark of requests being served at once: from the end of a request's head to the
    // moment its answer is about to be sent (or the connection dropped).
    int maxConcurrentRequests() const;
    // Forgets the records and attempt counts, and lowers the high-water mark to the number of
    // requests being served now.
    void resetRecords();

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace pellorin::receiver
