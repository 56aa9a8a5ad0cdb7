// A stand-in for libFuzzer's main(), for compilers without libFuzzer: feeds every regular file
// of the directories named on the command line, in name order, to LLVMFuzzerTestOneInput once.
// A target that finds a fault aborts, which fails the run. Exits non-zero when a directory is
// missing or holds no input, so that a corpus that went astray does not pass silently.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    namespace fs = std::filesystem;
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::error_code error;
        std::vector<fs::path> files;
        for (const auto& entry : fs::directory_iterator(argv[i], error)) {
            if (entry.is_regular_file())
                files.push_back(entry.path());
        }
        if (error || files.empty()) {
            std::fprintf(stderr, "no corpus in %s\n", argv[i]);
            return 2;
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            std::ifstream in(file, std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
            if (!in.eof() && in.fail()) {
                std::fprintf(stderr, "cannot read %s\n", file.c_str());
                return 2;
            }
            // A copy of exactly the input's size, so AddressSanitizer sees any read past its end.
            const auto copy = std::make_unique<uint8_t[]>(bytes.size() + (bytes.empty() ? 1 : 0));
            std::copy(bytes.begin(), bytes.end(), copy.get());
            LLVMFuzzerTestOneInput(copy.get(), bytes.size());
            ++inputs;
        }
    }
    std::printf("%zu inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 2;
}
