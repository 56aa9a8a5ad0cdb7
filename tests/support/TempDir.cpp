#include "support/TempDir.h"

#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace pellorin::testing {

namespace {

// splitmix64's output function: a good 64-bit mix of a counter.
uint64_t mix(uint64_t x) {
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

}  // namespace

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
    constexpr uint64_t kChunkWords = 128 * 1024;  // 1 MiB per write
    std::vector<uint64_t> words(kChunkWords);
    const uint64_t base = mix(seed) * 0x9e3779b97f4a7c15ULL;
    for (uint64_t offset = 0; out && offset < size; offset += kChunkWords * 8) {
        const uint64_t firstWord = offset / 8;
        for (uint64_t i = 0; i < kChunkWords; ++i) {
            words[i] = mix(base + firstWord + i);
        }
        const uint64_t count = std::min(size - offset, kChunkWords * 8);
        out.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(count));
    }
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
    return file;
}

}  // namespace pellorin::testing
