// The local receiver against a blocking loopback socket, for what a well-behaved client never
// sends: bad heads, pipelined requests, bodies that never come, many bodies at once. Well-formed
// uploads reach it through the HTTP session and client tests. And how its reservation endpoint
// cuts files.
#include "receiver/Receiver.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <pellorin/Reservation.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <thread>

#include "Platform/Encoding.h"
#include "receiver/ReservationEndpoint.h"
#include "support/TempDir.h"

// g++ 12 warns about members left out of designated initializers (fixed in later releases);
// leaving them out is the point of Fault{.stallSecs = 60}.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace pellorin::receiver {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

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

TEST(Receiver, RejectsBadRequestsAndKeepsServing) {
    testing::TempDir dir;
    Receiver receiver({.directory = dir.path()});
    receiver.start();
    const std::string close = "Connection: close\r\n";
    const std::string rpc(kReservationPath), tagged = "x-tx-method: createTestReservation\r\n";
    auto post = [](const std::string& target, uint64_t length, const std::string& extra) {
        return "POST" + putHead(target, length, extra).substr(3);
    };
    const std::pair<std::string, std::string> cases[] = {
        {putHead("/upload/..%2Fescape?offset=0", 1, close) + "x", "400"},
        {putHead("/upload/..?offset=0", 1, close) + "x", "400"},
        {putHead("/upload/f?offset=0x", 1, close) + "x", "400"},
        {putHead("/elsewhere", 1, close) + "x", "404"},
        {"GET /upload/f?offset=0 HTTP/1.1\r\nHost: h\r\n" + close + "\r\n", "405"},
        {"PUT /upload/f?offset=0 HTTP/1.1\r\nTransfer-Encoding: chunked\r\n" + close +
             "\r\n1\r\nx\r\n0\r\n\r\n",
         "411"},
        {"NOT HTTP AT ALL\r\n\r\n", "400"},
        {post("/upload/posted?offset=0", 1, close) + "x", "200"},
        // The reservation endpoint: the wrong method, no or the wrong x-tx-method, a call that
        // does not decode, and one over the size cap (refused before its body is read).
        {putHead(rpc, 2, close) + "{}", "405"},
        {post(rpc, 2, close) + "{}", "400"},
        {post(rpc, 2, tagged + close) + "{}", "400"},
        {post(rpc, kMaxReservationCallSize + 1, tagged), "413"},
    };
    for (const auto& [request, status] : cases) {
        RawClient client(receiver.port());
        client.send(request);
        EXPECT_TRUE(client.readToEnd().starts_with("HTTP/1.1 " + status + " ")) << request;
    }
    EXPECT_FALSE(std::filesystem::exists(dir.path().parent_path() / "escape"));
    EXPECT_EQ(std::filesystem::file_size(dir.path() / "posted"), 1u);

    // Two pipelined requests on one connection, the second asking to close.
    RawClient pipelined(receiver.port());
    pipelined.send(putHead("/upload/pipe?offset=0", 3) + "abc" +
                   putHead("/upload/pipe?offset=3", 3, "Connection: close\r\n") + "def");
    const std::string answers = pipelined.readToEnd();
    EXPECT_EQ(answers.find("HTTP/1.1 200 OK"), 0u);
    EXPECT_NE(answers.find("HTTP/1.1 200 OK", 1), std::string::npos);
    std::ifstream pipe(dir.path() / "pipe", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(pipe), {}), "abcdef");
    const auto records = receiver.requests();
    ASSERT_GE(records.size(), 2u);
    EXPECT_EQ(records[records.size() - 2].md5Hex, "900150983cd24fb0d6963f7d28e17f72");  // "abc"
    EXPECT_EQ(records.back().md5Hex, "4ed9407630eb1000c0f6b63842defa7d");               // "def"
}

TEST(Receiver, CountsAttemptsPerPathAndPartNumberUntilReset) {
    Receiver receiver;
    std::mutex mutex;
    std::vector<uint32_t> attempts;
    receiver.setFaultScript([&](const RequestInfo& info) {
        std::lock_guard lock(mutex);
        attempts.push_back(info.attempt);
        return std::nullopt;
    });
    receiver.start();
    auto put = [&](const std::string& target, int part) {
        RawClient client(receiver.port());
        client.send(
            putHead(target, 1,
                    "X-PLNX-Part-Number: " + std::to_string(part) + "\r\nConnection: close\r\n") +
            "x");
        client.readToEnd();
    };
    put("/upload/f?offset=0", 7);
    put("/upload/f?offset=0", 7);
    put("/upload/f?offset=10", 7);  // another path
    put("/upload/f?offset=0", 8);   // another part number
    receiver.resetRecords();
    EXPECT_TRUE(receiver.requests().empty());
    put("/upload/f?offset=0", 7);
    std::lock_guard lock(mutex);
    EXPECT_EQ(attempts, (std::vector<uint32_t>{0, 1, 0, 0, 0}));
}

TEST(Receiver, StopsPromptlyWithStalledAndIdleClients) {
    Receiver receiver;
    receiver.setFaultScript([](const RequestInfo& info) {
        return info.partNumber == 1u ? Fault{.stallSecs = 60} : Fault{.delayBeforeAnswerSecs = 60};
    });
    receiver.start();
    RawClient stalled(receiver.port());
    stalled.send(putHead("/upload/s?offset=0", 1 << 20, "X-PLNX-Part-Number: 1\r\n"));
    RawClient delayed(receiver.port());
    delayed.send(putHead("/upload/s?offset=0", 1, "X-PLNX-Part-Number: 2\r\n") + "d");
    RawClient idle(receiver.port());
    RawClient halfHead(receiver.port());
    halfHead.send("PUT /upload/s HTTP/1.1\r\n");
    for (int i = 0; i < 250 && receiver.requests().size() < 2; ++i) {
        std::this_thread::sleep_for(20ms);
    }
    ASSERT_EQ(receiver.requests().size(), 2u);

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
    EXPECT_THAT([&] { second.start(); },
                ::testing::ThrowsMessage<std::runtime_error>(
                    ::testing::HasSubstr("bind 127.0.0.1:" + std::to_string(first.port()))));
}

std::vector<uint8_t> randomBytes(size_t size, uint32_t seed) {
    std::mt19937 generator(seed);
    std::vector<uint8_t> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<uint8_t>(generator());
    }
    return bytes;
}

std::string md5Hex(std::span<const uint8_t> bytes) {
    std::array<uint8_t, 16> digest{};
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_md5(), nullptr);
    return hexString(digest);
}

// Uploads of different bodies at once, sent in pieces, while other connections drop mid-body:
// every record and every answer carries its own body's digest.
TEST(Receiver, ManyBodiesAtOnceEachGetTheirOwnDigest) {
    Receiver receiver({.checksumMode = ChecksumMode::eTag});
    receiver.start();
    constexpr size_t kUploads = 8, kDropped = 2;
    std::vector<std::vector<uint8_t>> bodies;
    for (size_t i = 0; i < kUploads + kDropped; ++i) {
        bodies.push_back(randomBytes((1 << 20) + 1'001 * i, static_cast<uint32_t>(100 + i)));
    }
    const size_t droppedAfter = 300'001;
    std::vector<std::string> answers(kUploads);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < bodies.size(); ++i) {
        threads.emplace_back([&, i] {
            RawClient client(receiver.port());
            const std::string_view body(reinterpret_cast<const char*>(bodies[i].data()),
                                        i < kUploads ? bodies[i].size() : droppedAfter);
            client.send(putHead("/upload/b" + std::to_string(i) + "?offset=0", bodies[i].size(),
                                "Connection: close\r\n"));
            for (size_t at = 0, piece = 1'000 + 7'919 * i; at < body.size(); at += piece) {
                client.send(body.substr(at, piece));
            }
            if (i < kUploads) {
                answers[i] = client.readToEnd();
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < 250 && receiver.requests().size() < bodies.size(); ++i) {
        std::this_thread::sleep_for(20ms);
    }
    const auto records = receiver.requests();
    ASSERT_EQ(records.size(), bodies.size());
    for (const RequestRecord& record : records) {
        const size_t i = std::stoul(record.path.substr(std::string("/upload/b").size()));
        const size_t sent = i < kUploads ? bodies[i].size() : droppedAfter;
        const std::string digest = md5Hex({bodies[i].data(), sent});
        EXPECT_EQ(record.bytesReceived, sent) << i;
        EXPECT_EQ(record.md5Hex, digest) << i;
        EXPECT_EQ(record.status, i < kUploads ? 200 : 0) << i;
        if (i < kUploads) {
            EXPECT_THAT(answers[i], ::testing::HasSubstr("\r\nETag: " + digest + "\r\n")) << i;
        }
    }
}

// A reservation call describing files of the given sizes, named f0, f1, ...
std::string callFor(const std::vector<uint64_t>& sizes) {
    CreateReservationRequest request("ann", "pw", std::nullopt, "pkg");
    for (size_t i = 0; i < sizes.size(); ++i) {
        request.add(FileDescription("f" + std::to_string(i), sizes[i], "00", "SHA-256",
                                    "application/octet-stream", "public.data"));
    }
    return encodeJSONRPCRequest({"2.0", "createTestReservation", "id-7", std::move(request)},
                                false);
}

// (offset, length) of every operation, file after file.
std::vector<std::pair<int64_t, int64_t>> ranges(const EndpointReply& reply) {
    std::vector<std::pair<int64_t, int64_t>> result;
    const auto answer = decodeCreateReservationResult(reply.body);
    for (const Reservation& reservation : answer.result.reservations.value()) {
        for (const Operation& operation : reservation.operations) {
            result.emplace_back(operation.offset, operation.length);
        }
    }
    return result;
}

// The reservation endpoint's answers, without HTTP.
TEST(ReservationEndpointTest, CutsFilesIntoPartsAndRefusesCallsItCannotServe) {
    using Ranges = std::vector<std::pair<int64_t, int64_t>>;
    ReceiverOptions options{.reservationPartSize = 10};
    const EndpointReply reply = answerReservationCall(callFor({20, 11}), options, "http://h:9");
    EXPECT_EQ(ranges(reply), (Ranges{{0, 10}, {10, 10}, {0, 10}, {10, 1}}));
    const auto answer = decodeCreateReservationResult(reply.body);
    EXPECT_EQ(answer.id, "id-7");
    EXPECT_EQ(answer.result.reservations->back().operations.back().uri.absoluteString(),
              "http://h:9/upload/f1?offset=10");
    options.reservationPartSize = 0;  // taken as 1
    EXPECT_EQ(ranges(answerReservationCall(callFor({2}), options, "http://h")),
              (Ranges{{0, 1}, {1, 1}}));
    EXPECT_EQ(partUrl("http://h", "a b/\xc3\xa9", 5), "http://h/upload/a%20b%2F%C3%A9?offset=5");

    EXPECT_EQ(answerReservationCall("{}", options, "http://h").status, 400);
    EXPECT_EQ(
        answerReservationCall(callFor({kMaxReservationOperations}), options, "http://h").status,
        200);
    EXPECT_EQ(
        answerReservationCall(callFor({kMaxReservationOperations, 1}), options, "http://h").status,
        400);
    EXPECT_EQ(answerReservationCall(callFor({uint64_t{1} << 63}), {}, "http://h").status, 400);
}

}  // namespace
}  // namespace pellorin::receiver
