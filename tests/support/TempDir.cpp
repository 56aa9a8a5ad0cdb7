#include "support/TempDir.h"

#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>
#include <vector>

namespace pellorin::testing {

TempDir::TempDir() {
    std::string pattern = std::filesystem::temp_directory_path() / "pellorin-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a temporary directory: " +
                                 std::string(std::strerror(errno)));
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TempDir::makeFile(const std::string& name, uint64_t size,
                                        uint64_t seed) const {
    const auto file = path_ / name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    std::mt19937_64 generator(seed);
    std::vector<uint64_t> words(128 * 1024);  // 1 MiB per write
    for (uint64_t left = size; out && left > 0;) {
        std::generate(words.begin(), words.end(), std::ref(generator));
        const uint64_t count = std::min<uint64_t>(left, words.size() * 8);
        out.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(count));
        left -= count;
    }
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
    return file;
}

}  // namespace pellorin::testing
