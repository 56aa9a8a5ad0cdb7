#include "Platform/TaskMetrics.h"

#include <cstdio>

namespace pellorin {

std::string TaskMetrics::description() const {
    std::string text = "TaskMetrics(transactions: " + std::to_string(transactionMetrics.size());
    for (const TransactionMetrics& t : transactionMetrics) {
        char line[320];
        std::snprintf(line, sizeof line,
                      " [%s %d, bodyBytesSent: %lld, bodyBytesReceived: %lld, nameLookup: %.3f s, "
                      "connect: %.3f s, tls: %.3f s, firstByte: %.3f s, total: %.3f s]",
                      t.networkProtocolName.empty() ? "-" : t.networkProtocolName.c_str(),
                      t.statusCode, static_cast<long long>(t.countOfRequestBodyBytesSent),
                      static_cast<long long>(t.countOfResponseBodyBytesReceived), t.nameLookupSecs,
                      t.connectSecs, t.tlsSecs, t.firstByteSecs, t.totalSecs);
        text += line;
    }
    return text + ")";
}

}  // namespace pellorin
