// A temporary directory for the tests of this folder, removed with everything in it.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace pellorin::testing {

class TempFiles {
  public:
    TempFiles() {
        std::string dir = (std::filesystem::temp_directory_path() / "pellorin-XXXXXX").string();
        EXPECT_NE(::mkdtemp(dir.data()), nullptr);
        dir_ = dir;
    }
    ~TempFiles() { std::filesystem::remove_all(dir_); }

    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    std::string write(const std::string& name, const std::vector<uint8_t>& bytes) const {
        std::ofstream(path(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
        return path(name);
    }

  private:
    std::filesystem::path dir_;
};

// Bytes 0, 1, ... 250, 0, 1, ...: a prime period, so that a misplaced range shows.
inline std::vector<uint8_t> patternBytes(size_t count) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(i % 251);
    }
    return bytes;
}

}  // namespace pellorin::testing
