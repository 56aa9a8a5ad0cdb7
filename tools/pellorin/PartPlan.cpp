#include "PartPlan.h"

#include <sys/stat.h>

#include <filesystem>

#include "HostError.h"
#include "Units.h"

namespace pellorin::host {

std::shared_ptr<FilePartRequest> PlannedPart::makeRequest() const {
    return FilePartRequest::make(key.path, key.partNumber, key.offset, key.length, url, method,
                                 headers);
}

std::optional<SourceIdentity> identifySource(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return SourceIdentity{
        static_cast<uint64_t>(status.st_dev), static_cast<uint64_t>(status.st_ino),
        static_cast<uint64_t>(status.st_size),
        static_cast<int64_t>(status.st_mtim.tv_sec) * 1000000000 + status.st_mtim.tv_nsec};
}

std::string destinationOf(const std::string& method, const Url& url) {
    return method + " " + url.absoluteString();
}

std::string absolutePath(std::string_view path) {
    return std::filesystem::absolute(std::filesystem::path(path)).lexically_normal().string();
}

std::vector<PlannedPart> planFileParts(const std::string& path, const SourceIdentity& source,
                                       uint64_t partSize,
                                       const std::function<Url(uint64_t offset)>& urlFor) {
    const uint64_t fileSize = source.size;
    if (partSize == 0) {
        throw InputError("--part-size must be at least 1 byte");
    }
    const uint64_t count = fileSize == 0 ? 1 : fileSize / partSize + (fileSize % partSize != 0);
    if (count > kMaxPlannedParts) {
        throw InputError("--part-size " + formatBytes(partSize) + " cuts " + path + " into " +
                         std::to_string(count) + " parts; at most " +
                         std::to_string(kMaxPlannedParts) + " are allowed");
    }
    const std::string absolute = absolutePath(path);
    std::vector<PlannedPart> parts;
    parts.reserve(count);
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t offset = i * partSize;
        const uint64_t length = std::min(partSize, fileSize - offset);
        Url url = urlFor(offset);
        std::string destination = destinationOf("PUT", url);
        parts.push_back(PlannedPart{PartKey{absolute, i + 1, offset, length},
                                    std::move(url),
                                    "PUT",
                                    {},
                                    source,
                                    std::move(destination)});
    }
    return parts;
}

uint64_t totalLength(const std::vector<PlannedPart>& parts) {
    uint64_t total = 0;
    for (const auto& part : parts) {
        total += part.key.length;
    }
    return total;
}

}  // namespace pellorin::host
