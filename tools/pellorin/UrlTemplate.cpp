#include "UrlTemplate.h"

#include <filesystem>
#include <set>

#include "EmbeddedTarget.h"
#include "FileTools.h"
#include "HostError.h"
#include "Redaction.h"
#include "ReservationReader.h"

namespace pellorin::host {

std::string expandUrlTemplate(const std::string& text, uint64_t part, uint64_t offset,
                              uint64_t length, const std::string& name) {
    const std::map<std::string, std::string> values = {{"part", std::to_string(part)},
                                                       {"offset", std::to_string(offset)},
                                                       {"length", std::to_string(length)},
                                                       {"name", percentEncode(name)}};
    std::string out;
    size_t at = 0;
    for (size_t open; (open = text.find('{', at)) != std::string::npos;) {
        const size_t close = text.find('}', open);
        if (close == std::string::npos) {
            break;
        }
        const auto value = values.find(text.substr(open + 1, close - open - 1));
        if (value == values.end()) {
            throw InputError("--to: unknown placeholder " + text.substr(open, close - open + 1) +
                             " (known: {part}, {offset}, {length}, {name})");
        }
        out += text.substr(at, open - at);
        out += value->second;
        at = close + 1;
    }
    return out + text.substr(at);
}

std::vector<PlannedPart> planTemplateParts(const std::string& file, const std::string& urlTemplate,
                                           uint64_t partSize, const std::string& method,
                                           const std::vector<std::string>& headers) {
    if (!httpMethodTypeFromRawValue(method)) {
        throw InputError("--method: not an HTTP method pellorin sends: \"" + method +
                         "\" (OPTIONS, GET, HEAD, POST, PUT, DELETE, TRACE, CONNECT)");
    }
    std::map<std::string, std::string> headerMap;
    for (const auto& header : headers) {
        const size_t colon = header.find(':');
        if (colon == std::string::npos) {
            throw InputError("-H: write \"Name: value\", found \"" + header + "\"");
        }
        const std::string name = header.substr(0, colon);
        std::string value = header.substr(colon + 1);
        value.erase(0, value.find_first_not_of(" \t"));
        if (const auto problem = headerProblem(name, value)) {
            throw InputError("-H " + name + ": " + *problem);
        }
        headerMap[name] = value;
    }
    const FileCheck check = checkReadableFile(file);
    const auto identity = identifySource(file);
    if (!check.size || !identity) {
        throw InputError(check.problem);
    }
    const std::string name = std::filesystem::path(file).filename().string();
    std::set<std::string> seen;
    std::vector<PlannedPart> parts = planFileParts(file, *identity, partSize, [&](uint64_t offset) {
        const uint64_t length = std::min(partSize, identity->size - offset);
        const std::string text =
            expandUrlTemplate(urlTemplate, offset / partSize + 1, offset, length, name);
        const auto url = Url::parse(text);
        if (!url || (url->scheme() != "http" && url->scheme() != "https")) {
            throw InputError("--to: not an http or https URL: " + redactUrls(text));
        }
        if (!seen.insert(url->absoluteString()).second) {
            throw InputError(
                "--to: every part would go to " + redactUrls(text) +
                "; put {part} or {offset} in the URL, or --part-size at least the file's size");
        }
        return *url;
    });
    for (auto& part : parts) {
        part.method = method;
        part.destination = destinationOf(method, part.url);
        if (!headerMap.empty()) {
            part.headers = headerMap;
        }
    }
    return parts;
}

}  // namespace pellorin::host
