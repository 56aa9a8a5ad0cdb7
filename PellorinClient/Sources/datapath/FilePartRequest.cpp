#include <pellorin/FilePartRequest.h>

#include <array>
#include <utility>

namespace pellorin {

namespace {

struct MethodName {
    HTTPMethodType method;
    const char* name;
};

constexpr std::array<MethodName, 8> kMethodNames{{
    {HTTPMethodType::OPTIONS, "OPTIONS"},
    {HTTPMethodType::GET, "GET"},
    {HTTPMethodType::HEAD, "HEAD"},
    {HTTPMethodType::POST, "POST"},
    {HTTPMethodType::PUT, "PUT"},
    {HTTPMethodType::DELETE, "DELETE"},
    {HTTPMethodType::TRACE, "TRACE"},
    {HTTPMethodType::CONNECT, "CONNECT"},
}};

}  // namespace

std::optional<HTTPMethodType> httpMethodTypeFromRawValue(std::string_view raw) {
    for (const MethodName& entry : kMethodNames) {
        if (raw == entry.name) {
            return entry.method;
        }
    }
    return std::nullopt;
}

const char* rawValue(HTTPMethodType method) {
    for (const MethodName& entry : kMethodNames) {
        if (entry.method == method) {
            return entry.name;
        }
    }
    return "";
}

FilePartRequest::FilePartRequest(Token, std::string filePath, uint64_t partNumber, uint64_t offset,
                                 uint64_t length, Url url, std::string method,
                                 std::optional<Headers> headers)
    : filePath_(std::move(filePath)),
      partNumber_(partNumber),
      offset_(offset),
      length_(length),
      url_(std::move(url)),
      method_(std::move(method)),
      headers_(std::move(headers)) {}

std::shared_ptr<FilePartRequest> FilePartRequest::make(std::string filePath, uint64_t partNumber,
                                                       uint64_t offset, uint64_t length, Url url,
                                                       std::string method,
                                                       std::optional<Headers> headers) {
    return std::make_shared<FilePartRequest>(Token{}, std::move(filePath), partNumber, offset,
                                             length, std::move(url), std::move(method),
                                             std::move(headers));
}

std::shared_ptr<FilePartRequest> FilePartRequest::makeWithHeadersArray(
    std::string filePath, uint64_t partNumber, uint64_t offset, uint64_t length, Url url,
    std::string method, const std::optional<HeadersArray>& headersArray) {
    return make(std::move(filePath), partNumber, offset, length, std::move(url), std::move(method),
                headersFromArray(headersArray));
}

FilePartRequest::Headers FilePartRequest::headersFromArray(
    const std::optional<HeadersArray>& headersArray) {
    Headers headers;
    if (!headersArray) {
        return headers;
    }
    for (const auto& element : *headersArray) {
        const auto name = element.find("name");
        const auto value = element.find("value");
        if (name == element.end() || value == element.end()) {
            continue;
        }
        headers[name->second] = value->second;
    }
    return headers;
}

const std::string& FilePartRequest::fileName() const {
    std::call_once(fileNameOnce_, [this] {
        const size_t slash = filePath_.rfind('/');
        fileName_ = slash == std::string::npos ? filePath_ : filePath_.substr(slash + 1);
    });
    return fileName_;
}

std::string FilePartRequest::debugDescription() const {
    return "FilePart (filePath: " + fileName() + ", partNumber: " + std::to_string(partNumber_) +
           ")";
}

}  // namespace pellorin
