#include <pellorin/Messages.h>

#include "Platform/Fatal.h"
#include "reporting/MessageJson.h"

namespace pellorin {

namespace {

template <typename Message>
std::string encode(const Message& message) {
    return compactJson(toJson(message));
}

}  // namespace

LoggingMessage::LoggingMessage(std::string level, std::string message)
    : level_(std::move(level)), message_(std::move(message)) {}

std::string LoggingMessage::jsonString() const {
    return encode(*this);
}

ErrorMessage::ErrorMessage(std::string domain, int64_t code, std::string message,
                           std::optional<std::map<std::string, std::string>> userInfo)
    : domain_(std::move(domain)),
      code_(code),
      message_(std::move(message)),
      userInfo_(std::move(userInfo)) {}

std::string ErrorMessage::jsonString() const {
    return encode(*this);
}

FileProgressMessage::FileProgressMessage(std::string path, int64_t fileSize, int64_t bytesSent)
    : path_(std::move(path)), fileSize_(fileSize), bytesSent_(bytesSent) {}

std::string FileProgressMessage::jsonString() const {
    return encode(*this);
}

PartStartedMessage::PartStartedMessage(std::string path, uint64_t partNumber, uint64_t retryCount)
    : path_(std::move(path)), partNumber_(partNumber), retryCount_(retryCount) {}

std::string PartStartedMessage::jsonString() const {
    return encode(*this);
}

PartProgressMessage::PartProgressMessage(std::string path, uint64_t partNumber, uint64_t partSize,
                                         int64_t bytesSent, int64_t totalBytesSent)
    : path_(std::move(path)),
      partNumber_(partNumber),
      partSize_(partSize),
      bytesSent_(bytesSent),
      totalBytesSent_(totalBytesSent) {}

std::string PartProgressMessage::jsonString() const {
    return encode(*this);
}

PartRetryMessage::PartRetryMessage(std::string path, uint64_t partNumber, uint64_t lostBytes,
                                   uint64_t retryCount, double waitSecs,
                                   std::shared_ptr<const ErrorMessage> error)
    : path_(std::move(path)),
      partNumber_(partNumber),
      lostBytes_(lostBytes),
      retryCount_(retryCount),
      waitSecs_(waitSecs),
      error_(std::move(error)) {
    if (!error_) {
        fatalError("PartRetryMessage built without an error");
    }
}

std::string PartRetryMessage::jsonString() const {
    return encode(*this);
}

PartCompleteMessage::PartCompleteMessage(std::string path, uint64_t partNumber, std::string eTag)
    : path_(std::move(path)), partNumber_(partNumber), eTag_(std::move(eTag)) {}

std::string PartCompleteMessage::jsonString() const {
    return encode(*this);
}

PartFailureMessage::PartFailureMessage(std::string path, uint64_t partNumber, Url url,
                                       std::vector<std::shared_ptr<const ErrorMessage>> errors)
    : path_(std::move(path)),
      partNumber_(partNumber),
      url_(std::move(url)),
      errors_(std::move(errors)) {
    for (const auto& error : errors_) {
        if (!error) {
            fatalError("PartFailureMessage built with a null error");
        }
    }
}

std::string PartFailureMessage::jsonString() const {
    return encode(*this);
}

MetricsMessage::MetricsMessage(int64_t totalPartsRequested, uint64_t bytesSent, uint64_t bytesLost,
                               uint64_t partsSent, uint64_t retryCount, uint64_t failureCount,
                               double elapsedTimeSecs, double throughput, std::string throughputUOM,
                               std::optional<std::map<std::string, std::string>> otherInfo)
    : totalPartsRequested_(totalPartsRequested),
      bytesSent_(bytesSent),
      bytesLost_(bytesLost),
      partsSent_(partsSent),
      retryCount_(retryCount),
      failureCount_(failureCount),
      elapsedTimeSecs_(elapsedTimeSecs),
      throughput_(throughput),
      throughputUOM_(std::move(throughputUOM)),
      otherInfo_(std::move(otherInfo)) {}

std::string MetricsMessage::jsonString() const {
    return encode(*this);
}

}  // namespace pellorin
