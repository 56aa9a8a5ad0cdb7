// A temporary directory for one test, and deterministic test files inside it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace pellorin::testing {

// A fresh directory under the system's temporary directory, removed with everything in it when
// the TempDir goes away. One owner; any thread.
class TempDir {
  public:
    TempDir();  // throws std::runtime_error when no directory can be made
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }

    // Writes `size` pseudo-random bytes to path()/name (replacing any such file) and returns its
    // path. Each byte depends only on `seed` and its offset, so equal seeds give equal bytes and a
    // shorter file is a prefix of a longer one. Throws std::runtime_error when writing fails.
    std::filesystem::path makeFile(const std::string& name, uint64_t size, uint64_t seed) const;

  private:
    std::filesystem::path path_;
};

}  // namespace pellorin::testing
