// Timings and byte counts of an upload task, delivered once per task through the session
// delegate's didFinishCollectingMetrics callback. Plain values, copied freely.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace pellorin {

// One request/response exchange. Times are seconds from the start of the transfer.
struct TransactionMetrics {
    // Request body bytes that went out on the connection (not merely read from the stream).
    int64_t countOfRequestBodyBytesSent = 0;
    int64_t countOfResponseBodyBytesReceived = 0;
    double nameLookupSecs = 0.0;      // host name resolved
    double connectSecs = 0.0;         // TCP connection made
    double tlsSecs = 0.0;             // TLS handshake done (0 without TLS)
    double firstByteSecs = 0.0;       // first response byte about to arrive
    double totalSecs = 0.0;           // transfer ended
    int statusCode = 0;               // final HTTP status, 0 when no response arrived
    std::string networkProtocolName;  // "http/1.1", "h2", or empty when nothing was sent
};

struct TaskMetrics {
    // One entry per exchange; empty when the task ended before a transfer began.
    std::vector<TransactionMetrics> transactionMetrics;

    // "TaskMetrics(transactions: 1 [h2 200, bodyBytesSent: 10, ...])", for log lines.
    std::string description() const;
};

}  // namespace pellorin
