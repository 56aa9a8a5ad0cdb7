// Reading a whole small file (a reservation file, a password file) with a one-line error.
#pragma once

#include <filesystem>
#include <string>

namespace pellorin::host {

// The file's bytes. Throws InputError "cannot read <what> <path>: <reason>" when it cannot be
// opened or read, is a directory, or is larger than `limit` bytes.
std::string readTextFile(const std::filesystem::path& path, const std::string& what,
                         size_t limit = size_t{1} << 30);

}  // namespace pellorin::host
