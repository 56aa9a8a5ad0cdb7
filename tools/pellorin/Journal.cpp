#include "Journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include <nlohmann/json.hpp>

#include "HostError.h"

namespace pellorin::host {

namespace {

std::optional<PartKey> parseEntry(std::string_view line) {
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
    const auto path = entry.find("path");
    const auto partNumber = number("partNumber");
    const auto offset = number("offset");
    const auto length = number("length");
    if (path == entry.end() || !path->is_string() || !partNumber || !offset || !length) {
        return std::nullopt;
    }
    return PartKey{path->get<std::string>(), *partNumber, *offset, *length};
}

}  // namespace

std::unique_ptr<Journal> Journal::open(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
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
            const auto key = parseEntry(line);
            if (!key) {
                throw InputError(path_.string() + ":" + std::to_string(lineNumber) +
                                 ": not a journal entry");
            }
            recorded_.insert(*key);
        }
        lineStart = end + 1;
    }
    // A torn last line: cut it off so that the next entry starts on a line of its own.
    if (lineStart < text.size() && ::ftruncate(fd_, static_cast<off_t>(lineStart)) != 0) {
        throw InputError("cannot repair journal " + path_.string() + ": " + std::strerror(errno));
    }
}

void Journal::record(const PartKey& key, const std::string& eTag) {
    const nlohmann::json entry = {{"path", key.path},
                                  {"partNumber", key.partNumber},
                                  {"offset", key.offset},
                                  {"length", key.length},
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
    if (::fdatasync(fd_) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot flush journal");
    }
    recorded_.insert(key);
}

}  // namespace pellorin::host
