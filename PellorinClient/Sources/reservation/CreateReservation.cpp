#include "reservation/CreateReservation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <pellorin/PellorinError.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <string_view>
#include <system_error>

#include "Platform/Encoding.h"
#include "Platform/Fatal.h"
#include "Platform/HttpSession.h"
#include "Platform/Semaphore.h"
#include "datapath/FilePartInputStream.h"
#include "datapath/MessageDigest.h"
#include "datapath/SharedFile.h"

namespace pellorin {

namespace {

// Reads of the file while its digest is taken.
constexpr int64_t kDigestReadSize = 8192;
constexpr double kRequestTimeoutSeconds = 60.0;

constexpr std::string_view kEndpointHostPrefix = "kvtarn";
constexpr std::string_view kEndpointDomain = "reserve.pellorin.net";

std::string currentTimestamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (localtime_r(&now, &local) == nullptr) {
        fatalError("the local time cannot be read");
    }
    return reservationTimestamp(local);
}

// A fresh random UUID as 36 upper-case characters with hyphens.
std::string correlationKey() {
    uuid_t uuid;
    uuid_generate_random(uuid);
    char text[37];
    uuid_unparse_upper(uuid, text);
    return text;
}

// Writes each line and a newline to standard output in one piece, then flushes, so that log lines
// from other threads cannot come between them.
void printLines(std::initializer_list<std::string_view> lines) {
    flockfile(stdout);
    for (const std::string_view line : lines) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
    }
    std::fflush(stdout);
    funlockfile(stdout);
}

// Replaces the content of `path` with `text` (created when missing). Not atomic: a failure part
// way leaves a partial file. Throws std::system_error naming the path.
void writeFile(const std::string& path, std::string_view text) {
    auto failure = [&](int error) {
        return std::system_error(error, std::generic_category(),
                                 "cannot write the reservation file " + path);
    };
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        throw failure(errno);
    }
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t result = ::write(fd, text.data() + written, text.size() - written);
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            const int error = result < 0 ? errno : EIO;
            ::close(fd);
            throw failure(error);
        }
        written += static_cast<size_t>(result);
    }
    if (::close(fd) != 0 && errno != EINTR) {
        throw failure(errno);
    }
}

}  // namespace

std::string reservationTimestamp(const std::tm& time) {
    char text[64];
    std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", time.tm_year + 1900,
                  time.tm_mon + 1, time.tm_yday + 1, time.tm_hour, time.tm_min, time.tm_sec);
    return text;
}

std::string reservationPackageName(const std::string& timestamp) {
    return "http-transport-test" + timestamp + ".qeldp";
}

std::string reservationEndpointText(uint8_t qeld) {
    return "https://" + std::string(kEndpointHostPrefix) + std::to_string(qeld) + "-" +
           std::string(kEndpointDomain) + std::string(kReservationServicePath);
}

FileDescription describeFileForReservation(const std::string& filePath) {
    struct stat attributes {};
    if (::stat(filePath.c_str(), &attributes) != 0) {
        fatalError("cannot read the attributes of " + filePath + ": " + std::strerror(errno));
    }
    const auto fileSize = static_cast<uint64_t>(attributes.st_size);

    std::shared_ptr<SharedFile> file;
    try {
        file = std::make_shared<SharedFile>(filePath);
    } catch (const SharedFileError& error) {
        fatalError("cannot open " + filePath + ": " + error.description());
    }
    const auto stream = filePart(DigestAlgorithm::sha256, std::move(file), 0, 0, fileSize, nullptr);
    stream->open();
    try {
        while (stream->read(kDigestReadSize)) {
        }
    } catch (const SharedFileError& error) {
        stream->close();
        throw PellorinError::error(error.description());
    }
    std::string checksum = hexString(stream->digestData());
    stream->close();

    return FileDescription(std::filesystem::path(filePath).filename().string(), fileSize,
                           std::move(checksum), "SHA-256", "application/octet-stream",
                           "public.data");
}

bool handleReservationAnswer(const std::optional<std::vector<uint8_t>>& body,
                             const std::string& reservationFile, const std::string& filePath) {
    if (!body) {
        return false;
    }
    const std::string text(body->begin(), body->end());
    try {
        const auto answer = decodeCreateReservationResult(text);
        std::optional<std::vector<OperationPair>> pairs;
        if (answer.result.reservations) {
            pairs.emplace();
            for (const Reservation& reservation : *answer.result.reservations) {
                for (const Operation& operation : reservation.operations) {
                    pairs->push_back(OperationPair{filePath, operation});
                }
            }
        }
        writeFile(reservationFile, encodeOperationPairs(pairs));
    } catch (const std::exception& error) {
        // The answer is a server's: bytes that are not UTF-8 are shown as U+FFFD rather than
        // ending the process.
        printLines({error.what(), withInvalidUtf8Replaced(text)});
    }
    return true;
}

void createTestReservationFile(const std::string& reservationFile, const std::string& filePath,
                               const std::string& username, const std::string& password,
                               const std::optional<std::string>& provider, const Url& endpoint) {
    const std::shared_ptr<HttpSession> session = HttpSession::shared();
    if (session->delegateQueue()->isCurrent()) {
        fatalError(
            "createTestReservationFile called on the HTTP session's callback thread, where its "
            "answer is handled: it would wait for itself");
    }

    FileDescription description = describeFileForReservation(filePath);
    CreateReservationRequest request(username, password, provider,
                                     reservationPackageName(currentTimestamp()));
    request.add(std::move(description));
    const JSONRPCRequest<CreateReservationRequest> call{"2.0", "createTestReservation",
                                                        currentTimestamp(), std::move(request)};
    const std::string body = encodeJSONRPCRequest(call, true);
    if (!isValidUtf8(body)) {
        fatalError("the reservation call is not UTF-8 text");
    }
    printLines({body});

    HttpRequest httpRequest(endpoint);
    httpRequest.httpMethod = "POST";
    httpRequest.cachePolicy = CachePolicy::useProtocolCachePolicy;
    httpRequest.timeoutInterval = kRequestTimeoutSeconds;
    httpRequest.addValue("application/json", "Content-Type");
    httpRequest.addValue("createTestReservation", "x-tx-method");
    httpRequest.addValue(correlationKey(), "x-tx-correlation-key");

    // Shared with the handler: the caller may return and drop its reference while signal() is
    // still on its way out.
    auto answered = std::make_shared<Semaphore>(0);
    session
        ->uploadTask(
            std::move(httpRequest), std::vector<uint8_t>(body.begin(), body.end()),
            [answered, reservationFile, filePath](std::optional<std::vector<uint8_t>> data,
                                                  std::shared_ptr<const HttpResponse> /*response*/,
                                                  std::optional<PlatformError> /*error*/) {
                // Status, success flag and error texts are not examined: the body
                // alone decides. No body: the caller stays blocked (see the header).
                if (handleReservationAnswer(data, reservationFile, filePath)) {
                    answered->signal();
                }
            })
        ->resume();
    answered->wait();
}

void createTestReservationFile(const std::string& reservationFile, const std::string& filePath,
                               uint8_t qeld, const std::string& username,
                               const std::string& password,
                               const std::optional<std::string>& provider) {
    const std::string endpointText = reservationEndpointText(qeld);
    const std::optional<Url> endpoint = Url::parse(endpointText);
    if (!endpoint) {
        fatalError("the reservation endpoint is not a URL: " + endpointText);
    }
    createTestReservationFile(reservationFile, filePath, username, password, provider, *endpoint);
}

}  // namespace pellorin
