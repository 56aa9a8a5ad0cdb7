// The stream handler's line format and its one-write-per-line guarantee, on a real temporary file.
#include <cstdio>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pellorin/Logging.h>

namespace pellorin {
namespace {

// A temporary file that a StreamLogHandler writes to; read back with lines().
class CapturedStream {
  public:
    CapturedStream() : file_(std::tmpfile()) {}
    ~CapturedStream() { std::fclose(file_); }
    StdioOutputStream stream() const { return {file_, StdioOutputStream::FlushMode::always}; }
    std::vector<std::string> lines() const {
        std::string all(static_cast<size_t>(std::ftell(file_)), '\0');  // written up to here
        std::rewind(file_);
        all.resize(std::fread(all.data(), 1, all.size(), file_));
        std::vector<std::string> result;
        std::istringstream in(all);
        for (std::string line; std::getline(in, line);) {
            result.push_back(line);
        }
        EXPECT_TRUE(all.empty() || all.back() == '\n');
        return result;
    }

  private:
    std::FILE* file_;
};

const std::string kTimestamp = R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}[+-]\d{4})";

TEST(StreamLogHandler, WritesTimestampLevelLabelMetadataAndMessage) {
    CapturedStream captured;
    Logger logger("upload-client",
                  std::make_unique<StreamLogHandler>("upload-client", captured.stream()));
    logger.notice("part-started: {}");
    logger.setMetadataValue("b", "handler");
    logger.setMetadataValue("a", "1");
    logger.warning("stored metadata only");
    logger.error([] { return "call wins"; },
                 [] {
                     return Logger::Metadata{{"b", "call"}, {"c", "x y"}};
                 });
    logger.setMetadataValue("a", std::nullopt);
    logger.setMetadataValue("b", std::nullopt);
    logger.info([] { return "metadata gone"; }, [] { return Logger::Metadata{}; });
    logger.debug("below info: dropped");

    const auto lines = captured.lines();
    ASSERT_EQ(lines.size(), 4u);
    const auto expect = [&](std::size_t i, const std::string& rest) {
        EXPECT_TRUE(std::regex_match(lines[i], std::regex(kTimestamp + " " + rest))) << lines[i];
    };
    expect(0, R"(notice upload-client : part-started: \{\})");
    expect(1, "warning upload-client : a=1 b=handler stored metadata only");
    expect(2, "error upload-client : a=1 b=call c=x y call wins");
    expect(3, "info upload-client : metadata gone");
}

TEST(StreamLogHandler, ConcurrentWritersNeverInterleaveLines) {
    CapturedStream captured;
    const Logger logger("mt", std::make_unique<StreamLogHandler>("mt", captured.stream()));
    constexpr int kThreads = 8;
    constexpr int kLinesEach = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&logger, t] {
            const std::string body(3000, static_cast<char>('a' + t));
            for (int i = 0; i < kLinesEach; ++i) {
                logger.info([&] { return body; });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto lines = captured.lines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kLinesEach));
    // Each line is one writer's whole line: a timestamp, the prefix, 3000 copies of one letter.
    const std::regex timestamp(kTimestamp);
    const std::string prefix = " info mt : ";
    for (const auto& line : lines) {
        const auto start = line.find(prefix);
        ASSERT_NE(start, std::string::npos) << line.substr(0, 80);
        ASSERT_TRUE(std::regex_match(line.substr(0, start), timestamp)) << line.substr(0, 80);
        const std::string body = line.substr(start + prefix.size());
        ASSERT_EQ(body, std::string(3000, body.front())) << line.substr(0, 80);
    }
}

}  // namespace
}  // namespace pellorin
