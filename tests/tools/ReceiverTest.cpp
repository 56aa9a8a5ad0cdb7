// The local receiver against real clients on loopback: libcurl easy handles for well-formed
// uploads, a blocking socket for what curl cannot send (pipelining, bodies that never come).
#include "receiver/Receiver.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "Platform/Encoding.h"
#include "support/FileDigest.h"
#include "support/TempDir.h"

// g++ 12 warns about members left out of designated initializers (fixed in later releases);
// leaving them out is the point of Fault{.status = 503}.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace pellorin::receiver {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Reply {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::vector<std::pair<std::string, std::string>> headers;
    std::optional<std::string> header(const std::string& name) const {
        for (const auto& [key, value] : headers) {
            if (strcasecmp(key.c_str(), name.c_str()) == 0) {
                return value;
            }
        }
        return std::nullopt;
    }
};

struct CurlOptions {
    std::string method = "PUT";
    std::vector<std::string> headers;
    std::string caFile;
    bool chunked = false;
};

size_t collectHeader(char* data, size_t size, size_t count, void* user) {
    std::string line(data, size * count);
    if (const auto colon = line.find(':'); colon != std::string::npos) {
        auto value = line.substr(colon + 1);
        value.erase(0, value.find_first_not_of(' '));
        value.erase(value.find_last_not_of("\r\n") + 1);
        static_cast<Reply*>(user)->headers.emplace_back(line.substr(0, colon), value);
    }
    return size * count;
}

size_t discard(char*, size_t size, size_t count, void*) {
    return size * count;
}

size_t readFromString(char* out, size_t size, size_t count, void* user) {
    auto& rest = *static_cast<std::string_view*>(user);
    const size_t n = std::min(rest.size(), size * count);
    std::memcpy(out, rest.data(), n);
    rest.remove_prefix(n);
    return n;
}

Reply upload(const std::string& url, const std::string& body, const CurlOptions& options = {}) {
    Reply reply;
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Expect:");
    for (const auto& header : options.headers) {
        headers = curl_slist_append(headers, header.c_str());
    }
    std::string_view rest = body;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, options.method.c_str());
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, readFromString);
    curl_easy_setopt(curl, CURLOPT_READDATA, &rest);
    if (!options.chunked) {
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.size()));
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, collectHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &reply);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (!options.caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, options.caFile.c_str());
        curl_easy_setopt(curl, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
    }
    reply.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
    return reply;
}

// A blocking loopback client whose every wait gives up after five seconds.
class RawClient {
  public:
    explicit RawClient(uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
        timeval timeout{5, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawClient() { ::close(fd_); }

    void send(std::string_view bytes) {
        EXPECT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Everything the server sends until it closes (or five seconds pass).
    std::string readToEnd() {
        std::string text;
        char chunk[4096];
        for (ssize_t got; (got = ::recv(fd_, chunk, sizeof chunk, 0)) > 0;) {
            text.append(chunk, static_cast<size_t>(got));
        }
        return text;
    }

  private:
    int fd_;
};

std::string putHead(const std::string& target, uint64_t length, const std::string& extra = "") {
    return "PUT " + target +
           " HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: " + std::to_string(length) + "\r\n" +
           extra + "\r\n";
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = Clock::now() + 5s;
    while (!condition()) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

std::string readRange(const std::filesystem::path& file, uint64_t offset, uint64_t length) {
    std::ifstream in(file, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    std::string bytes(length, '\0');
    in.read(bytes.data(), static_cast<std::streamsize>(length));
    return bytes;
}

std::string md5Base64(const std::string& md5Hex) {
    std::vector<uint8_t> raw;
    for (size_t i = 0; i < md5Hex.size(); i += 2) {
        raw.push_back(static_cast<uint8_t>(std::stoi(md5Hex.substr(i, 2), nullptr, 16)));
    }
    return base64Encode(raw);
}

TEST(Receiver, WritesPartsAtTheirOffsetsAndAnswersTheirMD5) {
    testing::TempDir dir;
    std::filesystem::create_directory(dir.path() / "out");
    const uint64_t size = (5 << 20) + 123;  // several buffers, and not a multiple of any
    const auto source = dir.makeFile("source.bin", size, 42);
    Receiver receiver({.directory = dir.path() / "out"});
    receiver.start();

    const uint64_t split = 3 << 20;
    // The later part first: the file must grow to fit it and the earlier part fill the gap.
    for (const auto& [offset, length, part] :
         {std::tuple{split, size - split, 2}, std::tuple{uint64_t{0}, split, 1}}) {
        const Reply reply =
            upload(receiver.partUrl("copy.bin", offset), readRange(source, offset, length),
                   {.headers = {"X-PLNX-Part-Number: " + std::to_string(part)}});
        ASSERT_EQ(reply.code, CURLE_OK);
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.header("Content-MD5"),
                  md5Base64(testing::md5HexOfRange(source, offset, length)));
        EXPECT_FALSE(reply.header("ETag"));
    }
    EXPECT_EQ(testing::md5HexOfFile(dir.path() / "out" / "copy.bin"),
              testing::md5HexOfFile(source));

    const auto records = receiver.requests();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].path, "/upload/copy.bin?offset=" + std::to_string(split));
    EXPECT_EQ(records[0].partNumber, 2u);
    EXPECT_EQ(records[0].contentLength, size - split);
    EXPECT_EQ(records[0].bytesReceived, size - split);
    EXPECT_EQ(records[0].md5Hex, testing::md5HexOfRange(source, split, size - split));
    EXPECT_EQ(records[1].status, 200);
    EXPECT_TRUE(records[1].accepted);
    EXPECT_LE(records[1].started, records[1].finished);
}

TEST(Receiver, RecordsHeadersAsReceivedAndCountsAttemptsPerPart) {
    Receiver receiver;
    std::mutex mutex;
    std::vector<RequestInfo> seen;
    receiver.setFaultScript([&](const RequestInfo& info) {
        std::lock_guard lock(mutex);
        seen.push_back(info);
        return std::nullopt;
    });
    receiver.start();
    const CurlOptions options{
        .headers = {"X-PLNX-Part-Number: 7", "X-Dup: a", "X-PLNX-Retry-Count: 2", "X-Dup: b"}};
    upload(receiver.partUrl("f", 0), "x", options);
    upload(receiver.partUrl("f", 0), "x", options);
    upload(receiver.partUrl("f", 10), "x", options);
    upload(receiver.partUrl("f", 0), "x", {.method = "POST", .headers = {"X-PLNX-Part-Number: 8"}});

    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].attempt, 0u);
    EXPECT_EQ(seen[1].attempt, 1u);
    EXPECT_EQ(seen[2].attempt, 0u);  // another path
    EXPECT_EQ(seen[3].attempt, 0u);  // another part number
    EXPECT_EQ(seen[3].method, "POST");
    EXPECT_EQ(seen[1].path, "/upload/f?offset=0");

    const auto records = receiver.requests();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].partNumber, 7u);
    EXPECT_EQ(records[0].retryCount, 2u);
    EXPECT_FALSE(records[3].retryCount);
    std::vector<std::pair<std::string, std::string>> dups;
    std::ranges::copy_if(records[0].headers, std::back_inserter(dups),
                         [](const auto& h) { return h.first.starts_with("X-"); });
    EXPECT_EQ(dups, (std::vector<std::pair<std::string, std::string>>{{"X-PLNX-Part-Number", "7"},
                                                                      {"X-Dup", "a"},
                                                                      {"X-PLNX-Retry-Count", "2"},
                                                                      {"X-Dup", "b"}}));

    receiver.resetRecords();
    EXPECT_TRUE(receiver.requests().empty());
    upload(receiver.partUrl("f", 0), "x", options);
    EXPECT_EQ(seen.back().attempt, 0u);
}

TEST(Receiver, RejectsBadRequestsAndKeepsServing) {
    testing::TempDir dir;
    Receiver receiver({.directory = dir.path()});
    receiver.start();
    EXPECT_EQ(upload(receiver.baseUrl() + "/upload/..%2Fescape?offset=0", "x").status, 400);
    EXPECT_EQ(upload(receiver.partUrl("f", 0) + "x", "x").status, 400);  // offset "0x"
    EXPECT_EQ(upload(receiver.baseUrl() + "/elsewhere", "x").status, 404);
    EXPECT_EQ(upload(receiver.partUrl("f", 0), "", {.method = "GET"}).status, 405);
    const Reply chunked =
        upload(receiver.partUrl("f", 0), std::string(100000, 'c'), {.chunked = true});
    EXPECT_EQ(chunked.status, 411);
    EXPECT_FALSE(std::filesystem::exists(dir.path().parent_path() / "escape"));

    RawClient dotDot(receiver.port());
    dotDot.send(putHead("/upload/..?offset=0", 1, "Connection: close\r\n") + "x");
    EXPECT_TRUE(dotDot.readToEnd().starts_with("HTTP/1.1 400 "));

    RawClient garbage(receiver.port());
    garbage.send("NOT HTTP AT ALL\r\n\r\n");
    EXPECT_TRUE(garbage.readToEnd().starts_with("HTTP/1.1 400 "));

    // Two pipelined requests on one connection, the second asking to close.
    RawClient pipelined(receiver.port());
    pipelined.send(putHead("/upload/pipe?offset=0", 3) + "abc" +
                   putHead("/upload/pipe?offset=3", 3, "Connection: close\r\n") + "def");
    const std::string answers = pipelined.readToEnd();
    EXPECT_EQ(answers.find("HTTP/1.1 200 OK"), 0u);
    EXPECT_NE(answers.find("HTTP/1.1 200 OK", 1), std::string::npos);
    EXPECT_EQ(readRange(dir.path() / "pipe", 0, 6), "abcdef");
    const auto records = receiver.requests();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[records.size() - 2].md5Hex, "900150983cd24fb0d6963f7d28e17f72");  // "abc"
    EXPECT_EQ(records.back().md5Hex, "4ed9407630eb1000c0f6b63842defa7d");               // "def"
}

TEST(Receiver, StopsPromptlyWithStalledAndIdleClients) {
    Receiver receiver;
    receiver.setFaultScript([](const RequestInfo& info) -> std::optional<Fault> {
        if (info.partNumber == 1u) {
            return Fault{.stallSecs = 60};
        }
        return Fault{.delayBeforeAnswerSecs = 60};
    });
    receiver.start();
    RawClient stalled(receiver.port());
    stalled.send(putHead("/upload/s?offset=0", 1 << 20, "X-PLNX-Part-Number: 1\r\n"));
    RawClient delayed(receiver.port());
    delayed.send(putHead("/upload/s?offset=0", 1, "X-PLNX-Part-Number: 2\r\n") + "d");
    RawClient idle(receiver.port());
    RawClient halfHead(receiver.port());
    halfHead.send("PUT /upload/s HTTP/1.1\r\n");
    ASSERT_TRUE(eventually([&] { return receiver.requests().size() == 2; }));

    const auto before = Clock::now();
    receiver.stop();
    EXPECT_LT(Clock::now() - before, 500ms);
    EXPECT_EQ(stalled.readToEnd(), "");
    EXPECT_EQ(delayed.readToEnd(), "");
    receiver.stop();  // idempotent
    EXPECT_THROW(receiver.start(), std::runtime_error);
}

TEST(Receiver, StartFailsClearlyWhenThePortIsTaken) {
    Receiver first;
    first.start();
    Receiver second({.port = first.port()});
    try {
        second.start();
        FAIL() << "a second receiver bound the same port";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("bind 127.0.0.1:" + std::to_string(first.port())),
                  std::string::npos);
    }
}

}  // namespace
}  // namespace pellorin::receiver
