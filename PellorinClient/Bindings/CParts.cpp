// The part functions of <pellorin/pellorin.h>: make, read back, release.
#include "Bindings/CParts.h"

#include <map>
#include <optional>
#include <string>
#include <utility>

#include "Bindings/CSupport.h"

using namespace pellorin::bindings;

struct PLNFilePartRequest {
    std::shared_ptr<pellorin::FilePartRequest> request;
};

namespace pellorin::bindings {

const std::shared_ptr<FilePartRequest>& partRequestOf(const PLNFilePartRequest& part) {
    return part.request;
}

PLNFilePartRequest* makePartHandle(std::shared_ptr<FilePartRequest> request) {
    auto part = std::make_unique<PLNFilePartRequest>();
    part->request = std::move(request);
    return part.release();
}

}  // namespace pellorin::bindings

namespace {

pellorin::Url parseUrl(const char* text) {
    auto url = pellorin::Url::parse(required(text, "url"));
    if (!url) {
        invalidArgument(std::string("not an absolute URL: ") + text);
    }
    return *url;
}

}  // namespace

extern "C" {

PLNFilePartRequest* PLNFilePartRequest_make(const char* filePath, uint64_t partNumber,
                                            uint64_t offset, uint64_t length, const char* url,
                                            const char* method, const PLNHeader* headers,
                                            size_t headerCount) {
    return guardedPointer([&] {
        std::optional<pellorin::FilePartRequest::Headers> dictionary;
        if (headers != nullptr) {
            dictionary.emplace();
            for (size_t i = 0; i < headerCount; ++i) {
                (*dictionary)[required(headers[i].name, "header name")] =
                    required(headers[i].value, "header value");
            }
        }
        return makePartHandle(pellorin::FilePartRequest::make(
            requiredText(filePath, "filePath"), partNumber, offset, length, parseUrl(url),
            requiredText(method, "method"), std::move(dictionary)));
    });
}

PLNFilePartRequest* PLNFilePartRequest_makeWithHeadersArray(
    const char* filePath, uint64_t partNumber, uint64_t offset, uint64_t length, const char* url,
    const char* method, const PLNHeader* headersArray, size_t headerCount) {
    return guardedPointer([&] {
        std::optional<pellorin::FilePartRequest::HeadersArray> array;
        if (headersArray != nullptr) {
            array.emplace();
            for (size_t i = 0; i < headerCount; ++i) {
                std::map<std::string, std::string> element;
                if (headersArray[i].name != nullptr) {
                    element["name"] = headersArray[i].name;
                }
                if (headersArray[i].value != nullptr) {
                    element["value"] = headersArray[i].value;
                }
                array->push_back(std::move(element));
            }
        }
        return makePartHandle(pellorin::FilePartRequest::makeWithHeadersArray(
            requiredText(filePath, "filePath"), partNumber, offset, length, parseUrl(url),
            requiredText(method, "method"), array));
    });
}

const char* PLNFilePartRequest_filePath(const PLNFilePartRequest* part) {
    return part != nullptr ? part->request->filePath().c_str() : nullptr;
}
uint64_t PLNFilePartRequest_partNumber(const PLNFilePartRequest* part) {
    return part != nullptr ? part->request->partNumber() : 0;
}
uint64_t PLNFilePartRequest_offset(const PLNFilePartRequest* part) {
    return part != nullptr ? part->request->offset() : 0;
}
uint64_t PLNFilePartRequest_length(const PLNFilePartRequest* part) {
    return part != nullptr ? part->request->length() : 0;
}
const char* PLNFilePartRequest_url(const PLNFilePartRequest* part) {
    return part != nullptr ? part->request->url().absoluteString().c_str() : nullptr;
}
const char* PLNFilePartRequest_method(const PLNFilePartRequest* part) {
    return part != nullptr ? part->request->method().c_str() : nullptr;
}

void PLNFilePartRequest_release(PLNFilePartRequest* part) {
    std::unique_ptr<PLNFilePartRequest> owned(part);
}

}  // extern "C"
