// TransferState: where one attempt of a part stands. Touched only on the client's delegate queue.
#pragma once

#include <memory>
#include <string>
#include <variant>

#include <pellorin/FilePartRequest.h>

namespace pellorin {

class FilePartInputStream;

struct TransferState {
    // The upload task exists but has not asked for its body yet.
    struct Waiting {
        std::shared_ptr<FilePartRequest> request;
    };
    // The body stream has been handed over; bytes are flowing.
    struct Executing {
        std::shared_ptr<FilePartRequest> request;
        std::shared_ptr<FilePartInputStream> stream;
    };
    // The server accepted the part.
    struct Successful {
        std::shared_ptr<FilePartRequest> request;
        std::string etag;
    };
    // The part failed for good.
    struct Failed {
        std::shared_ptr<FilePartRequest> request;
    };

    std::variant<Waiting, Executing, Successful, Failed> value;

    static TransferState waiting(std::shared_ptr<FilePartRequest> request) {
        return {Waiting{std::move(request)}};
    }
    bool isWaiting() const { return std::holds_alternative<Waiting>(value); }
    const Executing* executing() const { return std::get_if<Executing>(&value); }
    bool isSuccessful() const { return std::holds_alternative<Successful>(value); }
    bool isFailed() const { return std::holds_alternative<Failed>(value); }
    const std::shared_ptr<FilePartRequest>& request() const;

    // "waiting(FilePart (filePath: a.bin, partNumber: 1))" and so on.
    std::string description() const;
};

}  // namespace pellorin
