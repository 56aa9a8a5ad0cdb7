// EmbeddedTarget: the local receiver run inside the host, as the destination of the embedded
// default (`pellorin upload FILE` without a reservation). It assembles the copy of the uploaded
// file in a directory, so that the host can compare the copy with the source afterwards.
//
// Made, used and destroyed on the host thread; the receiver's own threads serve the requests.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FileTools.h"
#include "PartPlan.h"
#include "receiver/Receiver.h"

namespace pellorin::host {

class EmbeddedTarget {
  public:
    // Starts a receiver on an ephemeral port of 127.0.0.1 that writes each file's copy into
    // `directory`, or into a temporary directory removed with the target when none is given.
    // Throws InputError when the directory does not exist, std::runtime_error when the receiver
    // cannot start.
    explicit EmbeddedTarget(const std::optional<std::filesystem::path>& directory);
    ~EmbeddedTarget();
    EmbeddedTarget(const EmbeddedTarget&) = delete;
    EmbeddedTarget& operator=(const EmbeddedTarget&) = delete;

    // Cuts `source` into parts of `partSize` bytes, each PUT into the copy at its own offset, and
    // prepares the copy: one already there is cut to the source's size, so that the parts an
    // earlier run sent stay and stale bytes beyond the end go. Throws InputError when the source
    // cannot be read or is the copy itself, or when the part size is unusable.
    std::vector<PlannedPart> plan(const std::string& source, uint64_t partSize);

    // Where the copy of `source` is assembled.
    std::filesystem::path copyOf(const std::string& source) const;
    std::string baseUrl() const { return receiver_->baseUrl(); }

  private:
    std::unique_ptr<TemporaryDirectory> temporary_;  // when no directory was given
    std::filesystem::path directory_;
    std::unique_ptr<receiver::Receiver> receiver_;
};

// The name a file's copy gets in the receiver: the source's file name, with ".." (which the
// receiver refuses in names) turned into "__".
std::string copyName(const std::string& source);
// `text` with every byte outside A-Z a-z 0-9 - . _ ~ written as %XX.
std::string percentEncode(const std::string& text);

}  // namespace pellorin::host
