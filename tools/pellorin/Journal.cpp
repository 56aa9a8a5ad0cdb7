#include "Journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include <openssl/sha.h>
#include <nlohmann/json.hpp>

#include "HostError.h"
#include "Redaction.h"

namespace pellorin::host {

namespace {

std::string sha256Hex(const std::string& text) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    std::string hex;
    static constexpr char kDigits[] = "0123456789abcdef";
    for (const unsigned char byte : digest) {
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 15];
    }
    return hex;
}

struct Entry {
    PartKey key;
    std::string destinationSha256;
    SourceIdentity source;
};

std::optional<Entry> parseEntry(std::string_view line) {
    const auto entry = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
    if (!entry.is_object()) {
        return std::nullopt;
    }
    auto number = [&](const char* name) -> std::optional<uint64_t> {
        const auto it = entry.find(name);
        if (it == entry.end() || !it->is_number_unsigned()) {
            return std::nullopt;
        }
        return it->get<uint64_t>();
    };
    auto text = [&](const char* name) -> std::optional<std::string> {
        const auto it = entry.find(name);
        if (it == entry.end() || !it->is_string()) {
            return std::nullopt;
        }
        return it->get<std::string>();
    };
    const auto path = text("path");
    const auto destination = text("destinationSha256");
    const auto partNumber = number("partNumber");
    const auto offset = number("offset");
    const auto length = number("length");
    const auto device = number("device");
    const auto inode = number("inode");
    const auto size = number("size");
    const auto mtime = entry.find("mtimeNs");
    if (!path || !destination || !partNumber || !offset || !length || !device || !inode || !size ||
        mtime == entry.end() || !mtime->is_number_integer()) {
        return std::nullopt;
    }
    return Entry{PartKey{*path, *partNumber, *offset, *length}, *destination,
                 SourceIdentity{*device, *inode, *size, mtime->get<int64_t>()}};
}

}  // namespace

std::unique_ptr<Journal> Journal::open(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw InputError("cannot open journal " + path.string() + ": " + std::strerror(errno));
    }
    auto journal = std::make_unique<Journal>(Token{}, path, fd);
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        throw InputError("journal " + path.string() + " is in use by another run");
    }
    journal->load();
    return journal;
}

Journal::~Journal() {
    ::close(fd_);
}

void Journal::load() {
    std::string text;
    char buffer[65536];
    off_t position = 0;
    for (;;) {
        const ssize_t n = ::pread(fd_, buffer, sizeof buffer, position);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            throw InputError("cannot read journal " + path_.string() + ": " + std::strerror(errno));
        }
        if (n == 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(n));
        position += n;
    }
    size_t lineStart = 0;
    size_t lineNumber = 1;
    for (size_t end; (end = text.find('\n', lineStart)) != std::string::npos; ++lineNumber) {
        const std::string_view line(text.data() + lineStart, end - lineStart);
        if (!line.empty()) {
            const auto entry = parseEntry(line);
            if (!entry) {
                throw InputError(path_.string() + ":" + std::to_string(lineNumber) +
                                 ": not a journal entry");
            }
            recorded_[entry->key].push_back({entry->destinationSha256, entry->source});
            ++entries_;
        }
        lineStart = end + 1;
    }
    // A torn last line: cut it off so that the next entry starts on a line of its own.
    if (lineStart < text.size() && ::ftruncate(fd_, static_cast<off_t>(lineStart)) != 0) {
        throw InputError("cannot repair journal " + path_.string() + ": " + std::strerror(errno));
    }
}

Journal::Verdict Journal::check(const PlannedPart& part) const {
    const auto it = recorded_.find(part.key);
    if (it == recorded_.end()) {
        return Verdict::absent;
    }
    const std::string destination = sha256Hex(part.destination);
    bool sameDestination = false;
    for (const auto& recorded : it->second) {
        if (recorded.destinationSha256 == destination) {
            if (recorded.source == part.source) {
                return Verdict::done;
            }
            sameDestination = true;
        }
    }
    return sameDestination ? Verdict::sourceChanged : Verdict::destinationChanged;
}

void Journal::record(const PlannedPart& part, const std::string& eTag) {
    append(part, eTag);
    sync();
}

void Journal::append(const PlannedPart& part, const std::string& eTag) {
    const PartKey& key = part.key;
    // The URL is kept for people to read, without its secrets; the match is on the hash.
    const nlohmann::json entry = {{"path", key.path},
                                  {"partNumber", key.partNumber},
                                  {"offset", key.offset},
                                  {"length", key.length},
                                  {"method", part.method},
                                  {"url", stripUrlSecrets(part.url.absoluteString())},
                                  {"destinationSha256", sha256Hex(part.destination)},
                                  {"device", part.source.device},
                                  {"inode", part.source.inode},
                                  {"size", part.source.size},
                                  {"mtimeNs", part.source.mtimeNs},
                                  {"eTag", eTag}};
    const std::string line =
        entry.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(fd_, line.data() + written, line.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            throw std::system_error(errno, std::generic_category(), "cannot write journal");
        }
        written += static_cast<size_t>(n);
    }
    recorded_[key].push_back({sha256Hex(part.destination), part.source});
    ++entries_;
}

void Journal::sync() {
    if (::fdatasync(fd_) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot flush journal");
    }
}

}  // namespace pellorin::host
