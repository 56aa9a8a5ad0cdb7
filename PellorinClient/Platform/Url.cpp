#include <pellorin/Url.h>

#include <curl/curl.h>

#include <memory>

namespace pellorin {

namespace {

struct UrlHandleDeleter {
    void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};

// Reads one part of a parsed URL, or an empty string when the URL has none.
std::string urlPart(CURLU* handle, CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    if (curl_url_get(handle, part, &text, flags) != CURLUE_OK || text == nullptr) {
        return {};
    }
    std::string result(text);
    curl_free(text);
    return result;
}

}  // namespace

std::optional<Url> Url::parse(std::string_view text) {
    // The parser wants a C string; a URL never holds a NUL byte.
    if (text.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    std::unique_ptr<CURLU, UrlHandleDeleter> handle(curl_url());
    if (!handle) {
        return std::nullopt;
    }
    const std::string owned(text);
    if (curl_url_set(handle.get(), CURLUPART_URL, owned.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
        CURLUE_OK) {
        return std::nullopt;
    }
    Url url;
    url.text_ = owned;
    url.absolute_ = urlPart(handle.get(), CURLUPART_URL);
    url.scheme_ = urlPart(handle.get(), CURLUPART_SCHEME);
    url.host_ = urlPart(handle.get(), CURLUPART_HOST);
    if (url.absolute_.empty() || url.scheme_.empty() || url.host_.empty()) {
        return std::nullopt;
    }
    const std::string port = urlPart(handle.get(), CURLUPART_PORT);
    if (!port.empty()) {
        url.port_ = std::stoi(port);
    }
    url.pathAndQuery_ = urlPart(handle.get(), CURLUPART_PATH);
    if (url.pathAndQuery_.empty()) {
        url.pathAndQuery_.assign(1, '/');
    }
    const std::string query = urlPart(handle.get(), CURLUPART_QUERY);
    if (!query.empty()) {
        url.pathAndQuery_ += "?" + query;
    }
    return url;
}

}  // namespace pellorin
