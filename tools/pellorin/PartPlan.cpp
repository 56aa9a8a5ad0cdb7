#include "PartPlan.h"

#include <filesystem>

#include "HostError.h"
#include "Units.h"

namespace pellorin::host {

std::shared_ptr<FilePartRequest> PlannedPart::makeRequest() const {
    return FilePartRequest::make(key.path, key.partNumber, key.offset, key.length, url, method,
                                 headers);
}

std::string absolutePath(std::string_view path) {
    return std::filesystem::absolute(std::filesystem::path(path)).lexically_normal().string();
}

std::vector<PlannedPart> planFileParts(const std::string& path, uint64_t fileSize,
                                       uint64_t partSize,
                                       const std::function<Url(uint64_t offset)>& urlFor) {
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
        parts.push_back(
            PlannedPart{PartKey{absolute, i + 1, offset, length}, urlFor(offset), "PUT", {}});
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
