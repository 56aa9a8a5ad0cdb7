#include "ReservationReader.h"

#include <cctype>
#include <map>
#include <optional>
#include <utility>

#include <pellorin/Reservation.h>

#include "FileTools.h"
#include "HostError.h"
#include "TextFile.h"

namespace pellorin::host {

namespace {

// RFC 9110 token characters: what a method or a header name may consist of.
bool isToken(std::string_view text) {
    static constexpr std::string_view kSpecials = "!#$%&'*+-.^_`|~";
    if (text.empty()) {
        return false;
    }
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (!(std::isalnum(u) || kSpecials.find(c) != std::string_view::npos)) {
            return false;
        }
    }
    return true;
}

bool isSendableHeaderValue(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

// Checks one pair; throws InputError naming `name` and the pair's place.
class PairChecker {
  public:
    explicit PairChecker(const std::string& name) : name_(name) {}

    PlannedPart check(const OperationPair& pair, size_t index) {
        const Operation& operation = pair.operation;
        const std::string at = "[" + std::to_string(index) + "]";
        const std::string op = at + ".operation";
        if (pair.filePath.empty()) {
            fail(at + ".filePath", "must name a file");
        }
        if (!isToken(operation.method)) {
            fail(op + ".method", "not an HTTP method name: \"" + operation.method + "\"");
        }
        const std::string& scheme = operation.uri.scheme();
        if (scheme != "http" && scheme != "https") {
            fail(op + ".uri", "must be an http or https URL, found " + scheme + ":");
        }
        for (const auto& [field, value] :
             {std::pair{"partNumber", operation.partNumber}, std::pair{"offset", operation.offset},
              std::pair{"length", operation.length}}) {
            if (value < 0) {
                fail(op + "." + field, "must not be negative, found " + std::to_string(value));
            }
        }
        if (operation.headers) {
            for (const auto& [headerName, value] : *operation.headers) {
                if (!isToken(headerName) || !isSendableHeaderValue(value)) {
                    fail(op + ".headers." + headerName, "not a header that can be sent");
                }
            }
        }
        const std::string path = absolutePath(pair.filePath);
        auto [file, inserted] = files_.try_emplace(path);
        if (inserted) {
            file->second = checkReadableFile(path);
        }
        if (!file->second.size) {
            fail(at + ".filePath", file->second.problem);
        }
        const auto offset = static_cast<uint64_t>(operation.offset);
        const auto length = static_cast<uint64_t>(operation.length);
        const uint64_t size = *file->second.size;
        if (offset > size || length > size - offset) {
            fail(op, "bytes " + std::to_string(offset) + " to " + std::to_string(offset + length) +
                         " lie past the end of " + path + " (" + std::to_string(size) + " bytes)");
        }
        const auto partNumber = static_cast<uint64_t>(operation.partNumber);
        const auto [first, fresh] = seen_.try_emplace({path, partNumber}, index);
        if (!fresh) {
            fail(op + ".partNumber", "part " + std::to_string(partNumber) + " of " + path +
                                         " is already at [" + std::to_string(first->second) + "]");
        }
        return PlannedPart{PartKey{path, partNumber, offset, length}, operation.uri,
                           operation.method, operation.headers};
    }

  private:
    [[noreturn]] void fail(const std::string& place, const std::string& problem) const {
        throw InputError(name_ + ": " + place + ": " + problem);
    }

    const std::string& name_;
    std::map<std::string, FileCheck> files_;                   // by absolute path
    std::map<std::pair<std::string, uint64_t>, size_t> seen_;  // (path, part) -> index
};

}  // namespace

std::vector<PlannedPart> planReservation(std::string_view jsonText, const std::string& name) {
    std::optional<std::vector<OperationPair>> pairs;
    try {
        pairs = decodeOperationPairs(jsonText);
    } catch (const ReservationDecodeError& error) {
        throw InputError(name + ": " + error.what());
    }
    if (!pairs || pairs->empty()) {
        throw InputError(name + ": reserves nothing (" + (pairs ? "[]" : "null") +
                         "): nothing to upload");
    }
    PairChecker checker(name);
    std::vector<PlannedPart> parts;
    parts.reserve(pairs->size());
    for (size_t i = 0; i < pairs->size(); ++i) {
        parts.push_back(checker.check((*pairs)[i], i));
    }
    return parts;
}

std::vector<PlannedPart> readReservationFile(const std::filesystem::path& path) {
    return planReservation(readTextFile(path, "reservation file"), path.string());
}

}  // namespace pellorin::host
