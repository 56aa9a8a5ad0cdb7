// Digests of files on disk, for comparing what was uploaded with what arrived. Lower-case
// hexadecimal. Each throws std::runtime_error when the file cannot be read or the range lies
// beyond its end. Any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace pellorin::testing {

std::string md5HexOfFile(const std::filesystem::path& path);
std::string md5HexOfRange(const std::filesystem::path& path, uint64_t offset, uint64_t length);
std::string sha256HexOfFile(const std::filesystem::path& path);

}  // namespace pellorin::testing
