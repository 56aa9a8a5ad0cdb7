// PlannedPart: one part the host means to upload, as read from a reservation file or cut from a
// file by the host itself, and the key by which the journal knows it. Plain values, any thread.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <pellorin/FilePartRequest.h>
#include <pellorin/Url.h>

namespace pellorin::host {

// What identifies a part across runs: the file (absolute path) and the part's place in it.
struct PartKey {
    std::string path;
    uint64_t partNumber = 0;
    uint64_t offset = 0;
    uint64_t length = 0;

    auto operator<=>(const PartKey&) const = default;
};

// What a source file was when its parts were planned: a part recorded under another identity was
// read from other bytes, whatever its path says.
struct SourceIdentity {
    uint64_t device = 0;
    uint64_t inode = 0;
    uint64_t size = 0;
    int64_t mtimeNs = 0;

    bool operator==(const SourceIdentity&) const = default;
};

// The identity of the file at `path` now (following symbolic links); no value when it cannot be
// read.
std::optional<SourceIdentity> identifySource(const std::string& path);

struct PlannedPart {
    PartKey key;  // key.path is absolute and lexically normal
    Url url;
    std::string method;
    std::optional<std::map<std::string, std::string>> headers;
    SourceIdentity source;
    // Where the part goes, as the journal compares it between runs: method and URL, unless the
    // planner names a steadier destination (the embedded receiver's port changes every run).
    std::string destination;

    // A new request for the client (each run makes its own: requests carry attempt state).
    std::shared_ptr<FilePartRequest> makeRequest() const;
};

// The most parts the host cuts one file into: beyond this, the part size is surely a mistake.
inline constexpr uint64_t kMaxPlannedParts = 100000;

// `path` made absolute (against the working directory) and lexically normal.
std::string absolutePath(std::string_view path);

// `method` and `url` as one destination string ("PUT https://...").
std::string destinationOf(const std::string& method, const Url& url);

// Cuts a file of `fileSize` bytes into parts of `partSize` bytes (the last one shorter), numbered
// from 1; an empty file gives one part of length 0. `urlFor(offset)` gives each part's URL; each
// part is a PUT whose destination is its method and URL, with `source` as the file's identity.
// Throws InputError when partSize is 0 or the file would need more than kMaxPlannedParts parts.
std::vector<PlannedPart> planFileParts(const std::string& path, const SourceIdentity& source,
                                       uint64_t partSize,
                                       const std::function<Url(uint64_t offset)>& urlFor);

// The sum of the parts' lengths.
uint64_t totalLength(const std::vector<PlannedPart>& parts);

}  // namespace pellorin::host
