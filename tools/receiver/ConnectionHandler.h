// Serves the requests of one connection, one after another (keep-alive), applying each request's
// fault: uploads, and calls of the reservation endpoint. Created and run by the connection's
// thread, which owns it; the connection, log, stop signal, options and hasher must outlive it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "datapath/LaneHasher.h"
#include "receiver/BodySink.h"
#include "receiver/Connection.h"
#include "receiver/HttpHead.h"
#include "receiver/Receiver.h"
#include "receiver/RequestLog.h"
#include "receiver/StopSignal.h"

namespace pellorin::receiver {

class ConnectionHandler {
  public:
    // `number` tells the connection apart in the request records. `baseUrl` is the receiver's
    // own ("http://127.0.0.1:<port>"), for the reservation answers.
    // `hasher` hashes the bodies' MD5 together with the other connections'.
    ConnectionHandler(Connection& connection, uint64_t number, RequestLog& log,
                      const StopSignal& stop, const ReceiverOptions& options, std::string baseUrl,
                      LaneHasher& hasher);
    ~ConnectionHandler();
    ConnectionHandler(const ConnectionHandler&) = delete;
    ConnectionHandler& operator=(const ConnectionHandler&) = delete;

    // Returns when the peer closes, a request or answer ends the connection, a fault drops it,
    // or the receiver stops.
    void run();

  private:
    // What becomes of the connection after a request.
    enum class Next {
        keepAlive,      // read the next request
        close,          // answered; close now
        drainAndClose,  // answered, but request bytes are left unread: close gently
        drop,           // close without (further) answer
    };
    // How a request is to be answered, as far as its head tells.
    struct Route {
        int status = 200;     // 200: a valid upload
        std::string message;  // the short text body of any other status
        bool framed = true;   // false: the body's length is unknown, so it cannot be read
        uint64_t bodyLength = 0;
        UniqueFd file;  // where an upload's body is written, when a directory is set
        uint64_t offset = 0;
        bool reservation = false;  // a call of the reservation endpoint, not an upload
    };
    enum class HeadOutcome { ok, closed, tooLarge };

    // Reads up to the blank line that ends a head; leaves any bytes after it in the buffer.
    HeadOutcome readHead(std::string& text);
    Route route(const RequestHead& head) const;
    // The reservation endpoint's checks of a head; `route` holds what route() found so far.
    static Route reservationRoute(const RequestHead& head, Route route);
    Next serve(const RequestHead& head);
    // Feeds up to `length` body bytes (buffered ones first) to the sink; false when the stream
    // ended first.
    bool readBody(uint64_t length);
    // Reads and discards up to `length` body bytes; false when the stream ended first.
    bool skipBody(uint64_t length);
    // Both: reads `length` body bytes, handing them to the sink when `consume`.
    bool takeBody(uint64_t length, bool consume);
    // Writes a complete answer; false when the stream failed.
    bool answer(int status, std::vector<std::pair<std::string, std::string>> headers,
                const std::string& body, bool closing,
                std::string_view contentType = "text/plain; charset=utf-8",
                std::optional<double> trickleSecs = std::nullopt);

    Connection& connection_;
    const uint64_t number_;
    RequestLog& log_;
    const StopSignal& stop_;
    const ReceiverOptions& options_;
    const std::string baseUrl_;
    BodySink sink_;
    std::unique_ptr<uint8_t[]> buffer_;  // holds bytes read but not yet used in [begin_, end_)
    size_t begin_ = 0;
    size_t end_ = 0;
};

}  // namespace pellorin::receiver
