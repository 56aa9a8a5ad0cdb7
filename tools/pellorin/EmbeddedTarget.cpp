#include "EmbeddedTarget.h"

#include <cctype>
#include <cstdio>

#include "HostError.h"

namespace pellorin::host {

std::string copyName(const std::string& source) {
    std::string name = std::filesystem::path(source).filename().string();
    for (size_t at; (at = name.find("..")) != std::string::npos;) {
        name.replace(at, 2, "__");
    }
    return name.empty() ? "upload" : name;
}

std::string percentEncode(const std::string& text) {
    std::string encoded;
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) || c == '-' || c == '.' || c == '_' || c == '~') {
            encoded += c;
        } else {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", u);
            encoded += escape;
        }
    }
    return encoded;
}

EmbeddedTarget::EmbeddedTarget(const std::optional<std::filesystem::path>& directory) {
    if (directory) {
        std::error_code error;
        if (!std::filesystem::is_directory(*directory, error)) {
            throw InputError("--dir " + directory->string() + " is not a directory");
        }
        directory_ = std::filesystem::absolute(*directory);
    } else {
        temporary_ = std::make_unique<TemporaryDirectory>();
        directory_ = temporary_->path();
    }
    receiver::ReceiverOptions options;
    options.directory = directory_;
    receiver_ = std::make_unique<receiver::Receiver>(options);
    receiver_->start();
}

EmbeddedTarget::~EmbeddedTarget() {
    receiver_->stop();
}

std::filesystem::path EmbeddedTarget::copyOf(const std::string& source) const {
    return directory_ / copyName(source);
}

std::vector<PlannedPart> EmbeddedTarget::plan(const std::string& source, uint64_t partSize) {
    const FileCheck check = checkReadableFile(source);
    const auto identity = identifySource(source);
    if (!check.size || !identity) {
        throw InputError(check.problem);
    }
    const auto copy = copyOf(source);
    std::error_code error;
    if (std::filesystem::equivalent(source, copy, error)) {
        throw InputError(source + " is where its copy would be assembled; choose another --dir");
    }
    const std::string base = receiver_->baseUrl() + "/upload/" + percentEncode(copyName(source));
    auto parts = planFileParts(source, *identity, partSize, [&](uint64_t offset) {
        return *Url::parse(base + "?offset=" + std::to_string(offset));
    });
    // The receiver's port changes from run to run; the copy it writes into does not.
    for (auto& part : parts) {
        part.destination = "PUT " + copy.string() + " at " + std::to_string(part.key.offset);
    }
    if (std::filesystem::exists(copy, error)) {
        std::filesystem::resize_file(copy, identity->size, error);
        if (error) {
            throw InputError("cannot prepare the copy " + copy.string() + ": " + error.message());
        }
    }
    return parts;
}

}  // namespace pellorin::host
