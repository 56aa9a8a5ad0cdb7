#include "Platform/UrlError.h"

#include <curl/curl.h>

namespace pellorin {

namespace {

const char* standardDescription(int64_t code) {
    switch (code) {
        case URLError::cancelled:
            return "cancelled";
        case URLError::badURL:
            return "bad URL";
        case URLError::timedOut:
            return "The request timed out.";
        case URLError::unsupportedURL:
            return "unsupported URL";
        case URLError::cannotFindHost:
            return "A server with the specified hostname could not be found.";
        case URLError::cannotConnectToHost:
            return "Could not connect to the server.";
        case URLError::networkConnectionLost:
            return "The network connection was lost.";
        case URLError::dnsLookupFailed:
            return "The DNS lookup failed.";
        case URLError::badServerResponse:
            return "The server returned a bad response.";
        case URLError::cannotParseResponse:
            return "The server's response could not be parsed.";
        case URLError::requestBodyStreamExhausted:
            return "The request body stream could not supply the body.";
        case URLError::secureConnectionFailed:
            return "A TLS error has occurred and a secure connection to the server cannot be made.";
        case URLError::serverCertificateUntrusted:
            return "The certificate for this server is invalid.";
        default:
            return "An unknown error occurred.";
    }
}

int64_t urlErrorCode(int curlCode, const std::string& text) {
    switch (static_cast<CURLcode>(curlCode)) {
        case CURLE_UNSUPPORTED_PROTOCOL:
            // A reply without an HTTP status line, or with a status line libcurl cannot read,
            // is reported with this code too.
            return text.find("HTTP/0.9") != std::string::npos ||
                           text.find("in response") != std::string::npos
                       ? URLError::cannotParseResponse
                       : URLError::unsupportedURL;
        case CURLE_NOT_BUILT_IN:
            return URLError::unsupportedURL;
        case CURLE_URL_MALFORMAT:
            return URLError::badURL;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return URLError::cannotFindHost;
        case CURLE_COULDNT_CONNECT:
        case CURLE_PROXY:
            return URLError::cannotConnectToHost;
        case CURLE_OPERATION_TIMEDOUT:
            return URLError::timedOut;
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
        case CURLE_HTTP3:
        case CURLE_SSL_SHUTDOWN_FAILED:
            return URLError::networkConnectionLost;
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
            return URLError::cannotParseResponse;
        case CURLE_TOO_MANY_REDIRECTS:
        case CURLE_FILESIZE_EXCEEDED:
        case CURLE_WRITE_ERROR:
            return URLError::badServerResponse;
        case CURLE_READ_ERROR:
        case CURLE_SEND_FAIL_REWIND:
            return URLError::requestBodyStreamExhausted;
        case CURLE_ABORTED_BY_CALLBACK:
            return URLError::cancelled;
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_ISSUER_ERROR:
            return URLError::serverCertificateUntrusted;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_USE_SSL_FAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_CLIENTCERT:
            return URLError::secureConnectionFailed;
        default:
            return URLError::unknown;
    }
}

}  // namespace

PlatformError urlError(int64_t code, const std::string& underlyingText) {
    PlatformError error{std::string(kURLErrorDomain), code, standardDescription(code), {}};
    if (!underlyingText.empty()) {
        error.userInfo.emplace(kUnderlyingErrorTextKey, underlyingText);
    }
    return error;
}

std::optional<PlatformError> platformErrorFromCurlCode(int curlCode,
                                                       const std::string& curlErrorText) {
    if (curlCode == CURLE_OK) {
        return std::nullopt;
    }
    const std::string text =
        curlErrorText.empty() ? curl_easy_strerror(static_cast<CURLcode>(curlCode)) : curlErrorText;
    PlatformError error = urlError(urlErrorCode(curlCode, text), text);
    error.userInfo.emplace(kCurlCodeKey, std::to_string(curlCode));
    return error;
}

}  // namespace pellorin
