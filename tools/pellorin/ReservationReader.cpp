#include "ReservationReader.h"

#include <algorithm>
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

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

std::optional<std::string> headerProblem(std::string_view name, std::string_view value) {
    static constexpr std::string_view kOwnHeaders[] = {
        "Content-Length", "Transfer-Encoding", "Host", "X-PLNX-Part-Number", "X-PLNX-Retry-Count"};
    for (const auto own : kOwnHeaders) {
        if (equalsIgnoringCase(name, own)) {
            return std::string(own) + " is set by pellorin itself and cannot be given";
        }
    }
    if (!isToken(name) || !isSendableHeaderValue(value)) {
        return "not a header that can be sent";
    }
    return std::nullopt;
}

namespace {

// Checks one pair; throws InputError naming `name` and the pair's place.
class PairChecker {
  public:
    PairChecker(const std::string& name, std::filesystem::path base)
        : name_(name), base_(std::move(base)) {}

    PlannedPart check(const OperationPair& pair, size_t index) {
        const Operation& operation = pair.operation;
        const std::string at = "[" + std::to_string(index) + "]";
        const std::string op = at + ".operation";
        if (pair.filePath.empty()) {
            fail(at + ".filePath", "must name a file");
        }
        if (!httpMethodTypeFromRawValue(operation.method)) {
            fail(op + ".method", "not an HTTP method pellorin sends: \"" + operation.method +
                                     "\" (OPTIONS, GET, HEAD, POST, PUT, DELETE, TRACE, CONNECT)");
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
                if (const auto problem = headerProblem(headerName, value)) {
                    fail(op + ".headers." + headerName, *problem);
                }
            }
        }
        // A relative path is taken against the reservation file's folder. Each file is looked
        // at once, however many parts name it.
        auto [named, firstNamed] = files_.try_emplace(pair.filePath);
        SourceFile& file = named->second;
        if (firstNamed) {
            file.path = absolutePath((base_ / pair.filePath).string());
            file.check = checkReadableFile(file.path);
            if (file.check.size) {
                file.identity = identifySource(file.path);
            }
        }
        const std::string& path = file.path;
        if (!file.check.size) {
            fail(at + ".filePath", file.check.problem);
        }
        const auto offset = static_cast<uint64_t>(operation.offset);
        const auto length = static_cast<uint64_t>(operation.length);
        const uint64_t size = *file.check.size;
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
        if (!file.identity) {
            fail(at + ".filePath", "cannot read " + path);
        }
        return PlannedPart{PartKey{path, partNumber, offset, length},
                           operation.uri,
                           operation.method,
                           operation.headers,
                           *file.identity,
                           destinationOf(operation.method, operation.uri)};
    }

  private:
    [[noreturn]] void fail(const std::string& place, const std::string& problem) const {
        throw InputError(name_ + ": " + place + ": " + problem);
    }

    // A file as the parts name it, looked at when first named: its absolute path, whether it
    // can be read, and its identity then (what a later change is told by).
    struct SourceFile {
        std::string path;
        FileCheck check;
        std::optional<SourceIdentity> identity;
    };

    const std::string& name_;
    std::filesystem::path base_;
    std::map<std::string, SourceFile> files_;                  // by the path as named
    std::map<std::pair<std::string, uint64_t>, size_t> seen_;  // (path, part) -> index
};

}  // namespace

std::vector<PlannedPart> planReservation(std::string_view jsonText, const std::string& name,
                                         const std::filesystem::path& base) {
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
    PairChecker checker(name, base);
    std::vector<PlannedPart> parts;
    parts.reserve(pairs->size());
    for (size_t i = 0; i < pairs->size(); ++i) {
        parts.push_back(checker.check((*pairs)[i], i));
    }
    return parts;
}

std::vector<PlannedPart> readReservationFile(const std::filesystem::path& path) {
    return planReservation(readTextFile(path, "reservation file"), path.string(),
                           std::filesystem::absolute(path).parent_path());
}

}  // namespace pellorin::host
