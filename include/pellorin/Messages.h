// The nine event records the client hands to its delegates: a log line, an error, file progress,
// part started / progress / retry / complete / failure, and the final metrics of a transfer.
//
// Every record is immutable once built and is shared as std::shared_ptr<const X>: the same object
// may go to several delegates on several threads at once. There is no default constructor; every
// field is set by the one constructor, whose parameters are the fields in order. jsonString()
// gives the record as one compact JSON object whose keys are exactly the field names.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/Export.h>
#include <pellorin/Url.h>

namespace pellorin {

// A free-form log line for the host; `level` is the facade's level name ("notice", ...).
class PELLORIN_EXPORT LoggingMessage {
  public:
    LoggingMessage() = delete;
    LoggingMessage(std::string level, std::string message);

    const std::string& level() const { return level_; }
    const std::string& message() const { return message_; }
    std::string jsonString() const;

  private:
    std::string level_;
    std::string message_;
};

// A flattened error. `userInfo` is absent when the error carried no details; it is written as
// JSON null then, and as an object (possibly empty) otherwise.
class PELLORIN_EXPORT ErrorMessage {
  public:
    ErrorMessage() = delete;
    ErrorMessage(std::string domain, int64_t code, std::string message,
                 std::optional<std::map<std::string, std::string>> userInfo);

    const std::string& domain() const { return domain_; }
    int64_t code() const { return code_; }
    const std::string& message() const { return message_; }
    const std::optional<std::map<std::string, std::string>>& userInfo() const { return userInfo_; }
    std::string jsonString() const;

  private:
    std::string domain_;
    int64_t code_;
    std::string message_;
    std::optional<std::map<std::string, std::string>> userInfo_;
};

// Progress over a whole file.
class PELLORIN_EXPORT FileProgressMessage {
  public:
    FileProgressMessage() = delete;
    FileProgressMessage(std::string path, int64_t fileSize, int64_t bytesSent);

    const std::string& path() const { return path_; }
    int64_t fileSize() const { return fileSize_; }
    int64_t bytesSent() const { return bytesSent_; }
    std::string jsonString() const;

  private:
    std::string path_;
    int64_t fileSize_;
    int64_t bytesSent_;
};

// An upload of one part has begun (again, when retryCount > 0).
class PELLORIN_EXPORT PartStartedMessage {
  public:
    PartStartedMessage() = delete;
    PartStartedMessage(std::string path, uint64_t partNumber, uint64_t retryCount);

    const std::string& path() const { return path_; }
    uint64_t partNumber() const { return partNumber_; }
    uint64_t retryCount() const { return retryCount_; }
    std::string jsonString() const;

  private:
    std::string path_;
    uint64_t partNumber_;
    uint64_t retryCount_;
};

// Body bytes of one part went out: `bytesSent` in this step, `totalBytesSent` in this attempt.
class PELLORIN_EXPORT PartProgressMessage {
  public:
    PartProgressMessage() = delete;
    PartProgressMessage(std::string path, uint64_t partNumber, uint64_t partSize, int64_t bytesSent,
                        int64_t totalBytesSent);

    const std::string& path() const { return path_; }
    uint64_t partNumber() const { return partNumber_; }
    uint64_t partSize() const { return partSize_; }
    int64_t bytesSent() const { return bytesSent_; }
    int64_t totalBytesSent() const { return totalBytesSent_; }
    std::string jsonString() const;

  private:
    std::string path_;
    uint64_t partNumber_;
    uint64_t partSize_;
    int64_t bytesSent_;
    int64_t totalBytesSent_;
};

// A part failed and will be tried again after `waitSecs`; `lostBytes` must be sent again.
class PELLORIN_EXPORT PartRetryMessage {
  public:
    PartRetryMessage() = delete;
    PartRetryMessage(std::string path, uint64_t partNumber, uint64_t lostBytes, uint64_t retryCount,
                     double waitSecs, std::shared_ptr<const ErrorMessage> error);

    const std::string& path() const { return path_; }
    uint64_t partNumber() const { return partNumber_; }
    uint64_t lostBytes() const { return lostBytes_; }
    uint64_t retryCount() const { return retryCount_; }
    double waitSecs() const { return waitSecs_; }
    // Never null: a null error passed to the constructor is a fatal stop.
    const std::shared_ptr<const ErrorMessage>& error() const { return error_; }
    std::string jsonString() const;

  private:
    std::string path_;
    uint64_t partNumber_;
    uint64_t lostBytes_;
    uint64_t retryCount_;
    double waitSecs_;
    std::shared_ptr<const ErrorMessage> error_;
};

// The server accepted a part and returned `eTag` for it.
class PELLORIN_EXPORT PartCompleteMessage {
  public:
    PartCompleteMessage() = delete;
    PartCompleteMessage(std::string path, uint64_t partNumber, std::string eTag);

    const std::string& path() const { return path_; }
    uint64_t partNumber() const { return partNumber_; }
    const std::string& eTag() const { return eTag_; }
    std::string jsonString() const;

  private:
    std::string path_;
    uint64_t partNumber_;
    std::string eTag_;
};

// A part failed for good; `errors` is its whole error history (a null element is a fatal stop).
class PELLORIN_EXPORT PartFailureMessage {
  public:
    PartFailureMessage() = delete;
    PartFailureMessage(std::string path, uint64_t partNumber, Url url,
                       std::vector<std::shared_ptr<const ErrorMessage>> errors);

    const std::string& path() const { return path_; }
    uint64_t partNumber() const { return partNumber_; }
    const Url& url() const { return url_; }
    const std::vector<std::shared_ptr<const ErrorMessage>>& errors() const { return errors_; }
    std::string jsonString() const;

  private:
    std::string path_;
    uint64_t partNumber_;
    Url url_;
    std::vector<std::shared_ptr<const ErrorMessage>> errors_;
};

// The totals of a whole transfer, sent once at the end. `otherInfo` is readable here but is
// never written to JSON.
class PELLORIN_EXPORT MetricsMessage {
  public:
    MetricsMessage() = delete;
    MetricsMessage(int64_t totalPartsRequested, uint64_t bytesSent, uint64_t bytesLost,
                   uint64_t partsSent, uint64_t retryCount, uint64_t failureCount,
                   double elapsedTimeSecs, double throughput, std::string throughputUOM,
                   std::optional<std::map<std::string, std::string>> otherInfo);

    int64_t totalPartsRequested() const { return totalPartsRequested_; }
    uint64_t bytesSent() const { return bytesSent_; }
    uint64_t bytesLost() const { return bytesLost_; }
    uint64_t partsSent() const { return partsSent_; }
    uint64_t retryCount() const { return retryCount_; }
    uint64_t failureCount() const { return failureCount_; }
    double elapsedTimeSecs() const { return elapsedTimeSecs_; }
    double throughput() const { return throughput_; }
    const std::string& throughputUOM() const { return throughputUOM_; }
    const std::optional<std::map<std::string, std::string>>& otherInfo() const {
        return otherInfo_;
    }
    std::string jsonString() const;

  private:
    int64_t totalPartsRequested_;
    uint64_t bytesSent_;
    uint64_t bytesLost_;
    uint64_t partsSent_;
    uint64_t retryCount_;
    uint64_t failureCount_;
    double elapsedTimeSecs_;
    double throughput_;
    std::string throughputUOM_;
    std::optional<std::map<std::string, std::string>> otherInfo_;
};

}  // namespace pellorin
