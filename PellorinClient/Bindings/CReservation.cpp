// The reservation functions of <pellorin/pellorin.h>: a reservation file read into checked
// parts, and the test-reservation call bounded in time.
#include <pellorin/pellorin.h>

#include <unistd.h>
#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <pellorin/Reservation.h>
#include <pellorin/TestReservation.h>

#include "Bindings/CParts.h"
#include "Bindings/CSupport.h"

using namespace pellorin::bindings;

struct PLNReservationFile {
    std::vector<std::shared_ptr<pellorin::FilePartRequest>> parts;
};

namespace {

// Reservation files are small; anything larger than this is not one.
constexpr std::streamsize kLargestReservationFile = 64 << 20;

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::error_code error;
    if (!in || std::filesystem::is_directory(path, error)) {
        throw CError(PLN_ERROR_IO, "cannot read reservation file " + path);
    }
    std::string text;
    text.resize(static_cast<size_t>(kLargestReservationFile) + 1);
    in.read(text.data(), kLargestReservationFile + 1);
    if (in.bad()) {
        throw CError(PLN_ERROR_IO, "cannot read reservation file " + path);
    }
    text.resize(static_cast<size_t>(in.gcount()));
    if (text.size() > static_cast<size_t>(kLargestReservationFile)) {
        invalidArgument(path + ": larger than a reservation file can be");
    }
    return text;
}

// RFC 9110 token characters: what a method name consists of.
bool isToken(const std::string& text) {
    static constexpr std::string_view kSpecials = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               kSpecials.find(c) != std::string_view::npos;
    });
}

// The part for pair `index`, or an error naming the file and the JSON place.
std::shared_ptr<pellorin::FilePartRequest> checkedPart(const pellorin::OperationPair& pair,
                                                       size_t index, const std::string& name) {
    const pellorin::Operation& operation = pair.operation;
    const std::string at = name + ": [" + std::to_string(index) + "]";
    if (pair.filePath.empty()) {
        invalidArgument(at + ".filePath: must name a file");
    }
    if (!isToken(operation.method)) {
        invalidArgument(at + ".operation.method: not an HTTP method name: \"" + operation.method +
                        "\"");
    }
    if (operation.uri.scheme() != "http" && operation.uri.scheme() != "https") {
        invalidArgument(at + ".operation.uri: must be an http or https URL");
    }
    for (const auto& [field, value] :
         {std::pair{"partNumber", operation.partNumber}, std::pair{"offset", operation.offset},
          std::pair{"length", operation.length}}) {
        if (value < 0) {
            invalidArgument(at + ".operation." + field + ": must not be negative, found " +
                            std::to_string(value));
        }
    }
    return pellorin::FilePartRequest::make(
        pair.filePath, static_cast<uint64_t>(operation.partNumber),
        static_cast<uint64_t>(operation.offset), static_cast<uint64_t>(operation.length),
        operation.uri, operation.method, operation.headers);
}

// What the test-reservation thread and its caller share; the caller may leave before the end.
struct Call {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    bool abandoned = false;
    std::optional<std::string> failure;  // an exception's text
};

std::string pendingName(const std::string& reservationFile) {
    static std::atomic<unsigned> counter{0};
    return reservationFile + ".pending-" + std::to_string(::getpid()) + "-" +
           std::to_string(counter++);
}

}  // namespace

extern "C" {

PLNReservationFile* PLNReservationFile_read(const char* path) {
    return guardedPointer([&] {
        const std::string name = requiredText(path, "path");
        std::optional<std::vector<pellorin::OperationPair>> pairs;
        try {
            pairs = pellorin::decodeOperationPairs(readText(name));
        } catch (const pellorin::ReservationDecodeError& error) {
            invalidArgument(name + ": " + error.what());
        }
        if (!pairs || pairs->empty()) {
            invalidArgument(name + ": reserves nothing (" + (pairs ? "[]" : "null") + ")");
        }
        auto reservation = std::make_unique<PLNReservationFile>();
        for (size_t i = 0; i < pairs->size(); ++i) {
            reservation->parts.push_back(checkedPart((*pairs)[i], i, name));
        }
        return reservation.release();
    });
}

size_t PLNReservationFile_count(const PLNReservationFile* reservation) {
    return reservation != nullptr ? reservation->parts.size() : 0;
}

PLNFilePartRequest* PLNReservationFile_partRequest(const PLNReservationFile* reservation,
                                                   size_t index) {
    return guardedPointer([&]() -> PLNFilePartRequest* {
        if (reservation == nullptr) {
            invalidArgument("reservation is NULL");
        }
        if (index >= reservation->parts.size()) {
            invalidArgument("index " + std::to_string(index) + " is past the last operation");
        }
        return makePartHandle(reservation->parts[index]);
    });
}

void PLNReservationFile_release(PLNReservationFile* reservation) {
    std::unique_ptr<PLNReservationFile> owned(reservation);
}

int32_t PLNReservation_createTestFile(const char* reservationFile, const char* filePath,
                                      const char* username, const char* password,
                                      const char* provider, const char* endpoint,
                                      double timeoutSeconds) {
    return guardedStatus([&] {
        const std::string target = requiredText(reservationFile, "reservationFile");
        const std::string file = requiredText(filePath, "filePath");
        const std::string user = required(username, "username");
        const std::string secret = required(password, "password");
        const std::optional<std::string> lumoProvider =
            provider != nullptr ? std::optional<std::string>(provider) : std::nullopt;
        const auto url = pellorin::Url::parse(required(endpoint, "endpoint"));
        if (!url) {
            invalidArgument(std::string("endpoint is not an absolute URL: ") + endpoint);
        }
        if (!std::isfinite(timeoutSeconds) || timeoutSeconds <= 0) {
            invalidArgument("time-out must be a finite number of seconds above 0");
        }
        // The reservation code stops the process on a file it cannot open: check first.
        std::error_code error;
        if (!std::filesystem::is_regular_file(file, error) || !std::ifstream(file)) {
            throw CError(PLN_ERROR_IO, "cannot read " + file);
        }

        // The call blocks for ever on an answer without body, so it runs on a thread of its own
        // and writes to a file of its own, renamed into place only when the answer was usable.
        const std::string pending = pendingName(target);
        auto call = std::make_shared<Call>();
        std::thread([call, pending, file, user, secret, lumoProvider, url = *url] {
            std::optional<std::string> failure;
            try {
                pellorin::createTestReservationFile(pending, file, user, secret, lumoProvider, url);
            } catch (const pellorin::PellorinError& e) {
                failure = e.description();
            } catch (const std::exception& e) {
                failure = e.what();
            } catch (...) {
                failure = "unknown error";
            }
            std::lock_guard lock(call->mutex);
            call->done = true;
            call->failure = std::move(failure);
            if (call->abandoned) {
                std::error_code ignored;
                std::filesystem::remove(pending, ignored);
            }
            call->changed.notify_all();
        }).detach();

        std::unique_lock lock(call->mutex);
        const auto limit = std::chrono::duration<double>(timeoutSeconds);
        if (!call->changed.wait_for(lock, limit, [&] { return call->done; })) {
            call->abandoned = true;
            throw CError(PLN_ERROR_TIMEOUT, "no answer from " + url->absoluteString() + " within " +
                                                std::to_string(timeoutSeconds) + " s");
        }
        if (call->failure) {
            throw CError(PLN_ERROR_IO, *call->failure);
        }
        std::filesystem::rename(pending, target, error);
        if (error) {
            std::filesystem::remove(pending, error);
            throw CError(PLN_ERROR_IO, "the answer from " + url->absoluteString() +
                                           " could not be made into a reservation file (see "
                                           "standard output)");
        }
        return PLN_OK;
    });
}

const char* PLNReservation_serviceEndpoint(uint8_t instance) {
    static std::mutex mutex;
    static std::array<std::string, 256> endpoints;
    std::lock_guard lock(mutex);
    std::string& text = endpoints[instance];
    if (text.empty()) {
        text = pellorin::reservationEndpointText(instance);
    }
    return text.c_str();
}

}  // extern "C"
