// Whole-file helpers of the embedded default: the SHA-256 of a file, and the generated file that
// is uploaded when none is given. Any thread; both read or write in 1 MiB steps.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace pellorin::host {

// Thrown by the loops below when the stop flag they were given has been raised.
class Interrupted : public std::runtime_error {
  public:
    Interrupted() : std::runtime_error("interrupted") {}
};

// A file the host is about to read: its size when it is a regular file that can be opened for
// reading, else the reason it cannot be used ("cannot read <path>: <reason>").
struct FileCheck {
    std::optional<uint64_t> size;
    std::string problem;
};
FileCheck checkReadableFile(const std::string& path);

// A fresh directory under the system's temporary directory, removed with its contents when the
// object goes away. Throws std::runtime_error when none can be made. One owner.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

// The SHA-256 of the whole file, in lower-case hexadecimal. Throws std::runtime_error when the
// file cannot be read, Interrupted when `stop` is raised.
std::string sha256HexOfFile(const std::filesystem::path& path, const std::atomic<bool>& stop);

// Writes `size` pseudo-random bytes to `path` (replacing it): bytes that no compression shrinks,
// the same for the same size every time. Throws std::runtime_error when writing fails,
// Interrupted when `stop` is raised.
void writeGeneratedFile(const std::filesystem::path& path, uint64_t size,
                        const std::atomic<bool>& stop);

}  // namespace pellorin::host
