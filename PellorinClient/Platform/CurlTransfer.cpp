#include "Platform/CurlTransfer.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "Platform/TransferThreads.h"
#include "Platform/UrlError.h"

namespace pellorin {

namespace {

using Clock = std::chrono::steady_clock;

// Each read callback pulls up to this much straight from the file. Large enough that the per-read
// costs (a pread, a digest update, a send) vanish; no larger, because libcurl mallocs the buffer
// per transfer on the transfer's own short-lived thread: glibc serves it from that thread's arena
// and keeps freed arena memory resident, so with 2 MiB buffers sixteen connections held about
// 40 MiB more than they used.
constexpr long kUploadBufferSize = 512 * 1024;
constexpr int64_t kProgressBytes = 256 * 1024;  // coalesce progress up to this much
constexpr auto kProgressInterval = std::chrono::milliseconds(100);  // or up to this long
// A kept answer body larger than this is refused: the answers kept are short (JSON-RPC replies).
constexpr size_t kMaxKeptResponseBody = 16 * 1024 * 1024;
constexpr double kDefaultIdleSecs = 60.0;
constexpr double kMaxIdleSecs = 1e7;  // keeps the conversions to milliseconds in range

// The idle time-out is the session's (see SessionConfiguration.h); a request's own time-out does
// not shorten it.
double idleTimeoutSecs(const SessionConfiguration& configuration) {
    const double secs = configuration.timeoutIntervalForRequest;
    return (secs > 0.0 && std::isfinite(secs)) ? std::min(secs, kMaxIdleSecs) : kDefaultIdleSecs;
}

std::string secondsText(double secs) {
    char text[32];
    snprintf(text, sizeof text, "%g", secs);
    return text;
}

bool validFieldName(const std::string& name) {
    return !name.empty() && name.find_first_of(" \t\r\n:") == std::string::npos;
}

bool validFieldValue(const std::string& value) {
    return value.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

long sslVersionOption(TLSVersion minimum) {
    switch (minimum) {
        case TLSVersion::v1_0:
            return CURL_SSLVERSION_TLSv1_0;
        case TLSVersion::v1_1:
            return CURL_SSLVERSION_TLSv1_1;
        case TLSVersion::v1_2:
            return CURL_SSLVERSION_TLSv1_2;
        case TLSVersion::v1_3:
            return CURL_SSLVERSION_TLSv1_3;
    }
    return CURL_SSLVERSION_TLSv1_2;
}

const char* protocolName(long httpVersion) {
    switch (httpVersion) {
        case CURL_HTTP_VERSION_1_0:
            return "http/1.0";
        case CURL_HTTP_VERSION_1_1:
            return "http/1.1";
        case CURL_HTTP_VERSION_2_0:
            return "h2";
        case CURL_HTTP_VERSION_3:
            return "h3";
        default:
            return "";
    }
}

struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

}  // namespace

struct CurlTransfer::Impl {
    Impl(const CurlHandles& handles, const SessionConfiguration& configuration,
         const HttpRequest& request, std::shared_ptr<InputStream> body, int64_t bodyLength,
         bool keepResponseBody, TransferObserver observer)
        : easy(handles.easy),
          multi(handles.multi),
          configuration(configuration),
          request(request),
          body(std::move(body)),
          bodyLength(bodyLength),
          keepResponseBody(keepResponseBody),
          observer(std::move(observer)) {}

    std::optional<PlatformError> configure();
    TransferOutcome run();
    std::optional<PlatformError> judgeFinishedExchange();
    bool resendOnNewConnection(CURLcode result);
    std::shared_ptr<const HttpResponse> finalResponse() const;
    void noteProgress(int64_t totalSent, bool force);
    int64_t bodyBytesSent() const;
    void collectMetrics(TransferOutcome& outcome);

    // libcurl callbacks, on the transfer thread.
    static size_t readBody(char* buffer, size_t size, size_t count, void* user);
    static size_t receiveBody(char* data, size_t size, size_t count, void* user);
    static int transferInfo(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t uploaded);
    static int seekBody(void* user, curl_off_t offset, int origin);

    // Borrowed from the transfer thread; the easy handle is in the multi handle only while run()
    // drives it, and is reset when the transfer is destroyed.
    CURL* const easy;
    CURLM* const multi;  // cancel() wakes it from another thread
    const SessionConfiguration& configuration;
    const HttpRequest& request;
    const std::shared_ptr<InputStream> body;
    const int64_t bodyLength;
    const bool keepResponseBody;
    const TransferObserver observer;

    std::unique_ptr<curl_slist, ListDeleter> headerList;  // outlives its use: see ~CurlTransfer
    std::atomic<bool> cancelled{false};
    char errorText[CURL_ERROR_SIZE] = {};

    // Transfer-thread state.
    int64_t bodyBytesRead = 0;
    bool bodyEnded = false;  // the read callback has handed libcurl the body's last byte
    std::optional<PlatformError> bodyFailure;  // why the read callback aborted the transfer
    bool responseTooLarge = false;
    int64_t bytesReported = 0;  // body bytes already passed to observer.bodyBytesSent
    // libcurl resends a request whose reused connection turns out to have closed before any
    // answer, asking for the body from its start: the stream is rewound when it can be, and
    // otherwise the resend fails. libcurl starts its byte counts again either way, so the most
    // the closed connection took is remembered here.
    bool connectionClosedMidBody = false;
    bool resent = false;            // sent once more on a new connection by resendOnNewConnection
    int64_t mostBodyBytesSent = 0;  // the highest upload count the progress callback saw
    Clock::time_point lastReport = Clock::now();
    std::vector<uint8_t> responseBody;
};

std::optional<PlatformError> CurlTransfer::Impl::configure() {
    if (easy == nullptr || multi == nullptr) {
        return urlError(URLError::unknown, "libcurl could not make a transfer handle");
    }
    auto append = [&](const std::string& line) {
        curl_slist* head = curl_slist_append(headerList.get(), line.c_str());
        if (head == nullptr) {
            return false;
        }
        // The head is the same list once it exists; ownership passes over without a free.
        (void)headerList.release();
        headerList.reset(head);
        return true;
    };
    for (const auto& [name, value] : request.headerFields) {
        if (!validFieldName(name) || !validFieldValue(value)) {
            return urlError(URLError::badURL, "invalid header field '" + name + "'");
        }
        if (headerNamesEqual(name, "Content-Length")) {
            continue;  // libcurl sends it from the body length
        }
        // "Name:" would tell libcurl to drop the field; "Name;" sends it with an empty value.
        if (!append(value.empty() ? name + ";" : name + ": " + value)) {
            return urlError(URLError::unknown, "out of memory");
        }
    }
    // libcurl would announce large bodies with "Expect: 100-continue" and wait for the server.
    if (!append("Expect:")) {
        return urlError(URLError::unknown, "out of memory");
    }

    const double idleSecs = idleTimeoutSecs(configuration);
    const bool secure = request.url.scheme() == "https";
    long httpVersion = CURL_HTTP_VERSION_1_1;
    if (configuration.httpVersion == HttpVersion::http2) {
        httpVersion = secure ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_2_PRIOR_KNOWLEDGE;
    }
    CURL* h = easy;
    CURLcode rc = CURLE_OK;
    auto set = [&](CURLoption option, auto value) {
        if (rc == CURLE_OK) {
            rc = curl_easy_setopt(h, option, value);
        }
    };
    set(CURLOPT_ERRORBUFFER, errorText);
    set(CURLOPT_URL, request.url.normalizedString().c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_NOSIGNAL, 1L);
#if LIBCURL_VERSION_NUM >= 0x075700
    set(CURLOPT_QUICK_EXIT, 1L);  // a cancelled name lookup is not waited for
#endif
    set(CURLOPT_UPLOAD, 1L);
    set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(bodyLength));
    set(CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
    set(CURLOPT_HTTPHEADER, headerList.get());
    set(CURLOPT_READFUNCTION, &Impl::readBody);
    set(CURLOPT_READDATA, this);
    set(CURLOPT_SEEKFUNCTION, &Impl::seekBody);
    set(CURLOPT_SEEKDATA, this);
    set(CURLOPT_WRITEFUNCTION, &Impl::receiveBody);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_XFERINFOFUNCTION, &Impl::transferInfo);
    set(CURLOPT_XFERINFODATA, this);
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
    set(CURLOPT_TCP_NODELAY, 1L);
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    // The idle time-out is watched by run() to the millisecond; libcurl's own low-speed check
    // stays as a backstop.
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(std::ceil(idleSecs)));
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::ceil(idleSecs * 1000.0)));
    set(CURLOPT_SSLVERSION, sslVersionOption(configuration.minimumTLSVersion));
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (configuration.caFile || configuration.caDirectory) {
        // Only the configured trust applies: the built-in defaults are switched off.
        set(CURLOPT_CAINFO, configuration.caFile ? configuration.caFile->c_str() : nullptr);
        set(CURLOPT_CAPATH,
            configuration.caDirectory ? configuration.caDirectory->c_str() : nullptr);
    }
    // An empty proxy disables proxies altogether, those named by the environment included.
    set(CURLOPT_PROXY, configuration.proxy ? configuration.proxy->c_str() : "");
    set(CURLOPT_HTTP_VERSION, httpVersion);
    if (rc != CURLE_OK) {
        return platformErrorFromCurlCode(rc, errorText);
    }
    if (curl_multi_add_handle(multi, h) != CURLM_OK) {
        return urlError(URLError::unknown, "libcurl could not start the transfer");
    }
    return std::nullopt;
}

TransferOutcome CurlTransfer::Impl::run() {
    TransferOutcome outcome;
    if (std::optional<PlatformError> error = configure()) {
        outcome.error = std::move(error);
        return outcome;
    }
    const double idleSecs = idleTimeoutSecs(configuration);
    const auto idleLimit =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(idleSecs));
    Clock::time_point lastActivity = Clock::now();
    // Once the body has gone out or the answer has begun, the whole answer must arrive within
    // one idle time-out: an answer that trickles in keeps the transfer active but never ends.
    Clock::time_point answerDeadline = Clock::time_point::max();  // max: not started
    curl_off_t lastUp = 0, lastDown = 0, lastHeader = 0;
    CURLcode result = CURLE_OK;
    bool finished = false;
    bool idle = false;
    bool late = false;
    for (;;) {
        int running = 0;
        const CURLMcode multiResult = curl_multi_perform(multi, &running);
        if (multiResult != CURLM_OK) {
            result = CURLE_OUT_OF_MEMORY;
            snprintf(errorText, sizeof errorText, "%s", curl_multi_strerror(multiResult));
            finished = true;
            break;
        }
        if (running == 0) {
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
                if (message->msg == CURLMSG_DONE) {
                    result = message->data.result;
                }
            }
            if (resendOnNewConnection(result)) {
                lastActivity = Clock::now();
                answerDeadline = Clock::time_point::max();
                continue;
            }
            finished = true;
            break;
        }
        if (cancelled.load()) {
            break;
        }
        // Any byte moving either way, headers included, counts as activity.
        curl_off_t up = 0, down = 0;
        long header = 0;
        curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &up);
        curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &down);
        curl_easy_getinfo(easy, CURLINFO_HEADER_SIZE, &header);
        const Clock::time_point now = Clock::now();
        if (up != lastUp || down != lastDown || header != lastHeader) {
            lastUp = up;
            lastDown = down;
            lastHeader = header;
            lastActivity = now;
        }
        const bool bodySent = bodyLength >= 0 ? up >= bodyLength : bodyEnded;
        if (answerDeadline == Clock::time_point::max() && (bodySent || header > 0 || down > 0)) {
            answerDeadline = now + idleLimit;
        }
        if (now - lastActivity >= idleLimit) {
            idle = true;
            break;
        }
        if (now >= answerDeadline) {
            late = true;
            break;
        }
        const Clock::time_point wakeAt = std::min(lastActivity + idleLimit, answerDeadline);
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(wakeAt - now);
        const int waitMs = static_cast<int>(std::clamp<int64_t>(remaining.count() + 1, 1, 1000));
        curl_multi_poll(multi, nullptr, 0, waitMs, nullptr);
    }

    noteProgress(bodyBytesSent(), true);
    collectMetrics(outcome);

    if (finished && result == CURLE_OK) {
        outcome.error = judgeFinishedExchange();
        if (!outcome.error) {
            outcome.response = finalResponse();
        }
    } else if (cancelled.load()) {
        outcome.error = urlError(URLError::cancelled, "the task was cancelled");
    } else if (idle) {
        outcome.error =
            urlError(URLError::timedOut, "no byte moved for " + secondsText(idleSecs) + " seconds");
    } else if (late) {
        outcome.error = urlError(URLError::timedOut, "the answer did not arrive in full within " +
                                                         secondsText(idleSecs) +
                                                         " seconds after it began or the body "
                                                         "was sent");
    } else if (bodyFailure) {
        outcome.error = bodyFailure;
    } else if (connectionClosedMidBody) {
        outcome.error = urlError(URLError::networkConnectionLost,
                                 "the server closed the connection while the body was being sent");
    } else if (responseTooLarge) {
        outcome.error = urlError(URLError::badServerResponse, "the response body is too large");
    } else {
        outcome.error = platformErrorFromCurlCode(result, errorText);
    }
    curl_multi_remove_handle(multi, easy);
    if (outcome.error) {
        outcome.error->userInfo.emplace(kFailingURLKey, request.url.absoluteString());
    }
    outcome.responseBody = std::move(responseBody);
    return outcome;
}

// A kept-alive connection the server closed as the request went out fails the transfer when
// the request head had already gone (libcurl itself sends again only when the head could not be
// sent, through seekBody). Such a request never reached an answer: when the connection was
// reused, no byte of an answer came and the body can start again, it is sent once more on a new
// connection (the failed one is closed).
bool CurlTransfer::Impl::resendOnNewConnection(CURLcode result) {
    if (resent || cancelled.load() || bodyFailure ||
        (result != CURLE_SEND_ERROR && result != CURLE_RECV_ERROR && result != CURLE_GOT_NOTHING)) {
        return false;
    }
    long newConnections = 0;
    long headerBytes = 0;
    curl_easy_getinfo(easy, CURLINFO_NUM_CONNECTS, &newConnections);
    curl_easy_getinfo(easy, CURLINFO_HEADER_SIZE, &headerBytes);
    if (newConnections != 0 || headerBytes != 0 || !body->rewind()) {
        return false;
    }
    mostBodyBytesSent = std::max<int64_t>(mostBodyBytesSent, bodyBytesSent());
    curl_multi_remove_handle(multi, easy);
    bodyBytesRead = 0;
    bodyEnded = false;
    errorText[0] = '\0';
    resent = true;
    return curl_multi_add_handle(multi, easy) == CURLM_OK;
}

// libcurl finished the exchange without an error. It is an answer only when libcurl parsed a
// final status and the whole body went out before it: a server that answers after reading part
// of the body has not stored all of it, whatever its status says.
std::optional<PlatformError> CurlTransfer::Impl::judgeFinishedExchange() {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    if (status < 200 || status > 999) {
        return urlError(
            URLError::cannotParseResponse,
            "the exchange ended without a final answer (status " + std::to_string(status) + ")");
    }
    curl_off_t sent = 0;
    curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
    if (bodyLength >= 0 && sent < bodyLength) {
        PlatformError error =
            urlError(URLError::networkConnectionLost,
                     "status " + std::to_string(status) + " after " + std::to_string(sent) +
                         " of " + std::to_string(bodyLength) + " body bytes");
        error.localizedDescription = "The server answered (status " + std::to_string(status) +
                                     ") before the whole body was sent: " + std::to_string(sent) +
                                     " of " + std::to_string(bodyLength) + " bytes went out.";
        return error;
    }
    return std::nullopt;
}

// The final answer as libcurl parsed it: its status, and the fields of the last response only
// (interim 1xx answers, a proxy's answer to CONNECT and trailers are other origins or requests).
std::shared_ptr<const HttpResponse> CurlTransfer::Impl::finalResponse() const {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    HttpHeaderFields fields;
    for (curl_header* field = curl_easy_nextheader(easy, CURLH_HEADER, -1, nullptr);
         field != nullptr; field = curl_easy_nextheader(easy, CURLH_HEADER, -1, field)) {
        fields.emplace_back(field->name, field->value);
    }
    return std::make_shared<const HttpResponse>(static_cast<int>(status), std::move(fields),
                                                request.url);
}

void CurlTransfer::Impl::noteProgress(int64_t totalSent, bool force) {
    const int64_t delta = totalSent - bytesReported;
    if (delta <= 0 || !observer.bodyBytesSent) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (force || delta >= kProgressBytes || (bodyLength >= 0 && totalSent >= bodyLength) ||
        now - lastReport >= kProgressInterval) {
        bytesReported = totalSent;
        lastReport = now;
        observer.bodyBytesSent(delta, totalSent);
    }
}

// The request body bytes that went out, those of a connection that closed under a resend
// included.
int64_t CurlTransfer::Impl::bodyBytesSent() const {
    curl_off_t sent = 0;
    curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
    return std::max<int64_t>(sent, mostBodyBytesSent);
}

void CurlTransfer::Impl::collectMetrics(TransferOutcome& outcome) {
    TransactionMetrics& m = outcome.metrics;
    CURL* h = easy;
    curl_off_t value = 0;
    auto secs = [&](CURLINFO info) {
        curl_off_t micros = 0;
        curl_easy_getinfo(h, info, &micros);
        return static_cast<double>(micros) / 1e6;
    };
    m.countOfRequestBodyBytesSent = bodyBytesSent();
    curl_easy_getinfo(h, CURLINFO_SIZE_DOWNLOAD_T, &value);
    m.countOfResponseBodyBytesReceived = value;
    m.nameLookupSecs = secs(CURLINFO_NAMELOOKUP_TIME_T);
    m.connectSecs = secs(CURLINFO_CONNECT_TIME_T);
    const double appConnect = secs(CURLINFO_APPCONNECT_TIME_T);
    m.tlsSecs = appConnect > 0.0 ? std::max(0.0, appConnect - m.connectSecs) : 0.0;
    m.firstByteSecs = secs(CURLINFO_STARTTRANSFER_TIME_T);
    m.totalSecs = secs(CURLINFO_TOTAL_TIME_T);
    long status = 0;
    curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
    m.statusCode = static_cast<int>(status);
    long version = 0;
    curl_easy_getinfo(h, CURLINFO_HTTP_VERSION, &version);
    m.networkProtocolName = protocolName(version);
}

size_t CurlTransfer::Impl::readBody(char* buffer, size_t size, size_t count, void* user) {
    Impl& self = *static_cast<Impl*>(user);
    if (self.cancelled.load()) {
        return CURL_READFUNC_ABORT;
    }
    int64_t wanted = static_cast<int64_t>(size * count);
    if (self.bodyLength >= 0) {
        // Never more than the announced length, so the server sees exactly the body it expects.
        wanted = std::min(wanted, self.bodyLength - self.bodyBytesRead);
        if (wanted == 0) {
            self.bodyEnded = true;
            return 0;
        }
    }
    const int64_t got = self.body->read(reinterpret_cast<uint8_t*>(buffer), wanted);
    if (got < 0 || got > wanted) {
        self.bodyFailure = urlError(
            URLError::requestBodyStreamExhausted,
            "the body stream failed after " + std::to_string(self.bodyBytesRead) + " bytes");
        return CURL_READFUNC_ABORT;
    }
    if (got == 0 && self.bodyLength >= 0) {
        self.bodyFailure =
            urlError(URLError::requestBodyStreamExhausted,
                     "the body stream ended after " + std::to_string(self.bodyBytesRead) + " of " +
                         std::to_string(self.bodyLength) + " bytes");
        return CURL_READFUNC_ABORT;
    }
    self.bodyBytesRead += got;
    self.bodyEnded = got == 0;
    return static_cast<size_t>(got);
}

size_t CurlTransfer::Impl::receiveBody(char* data, size_t size, size_t count, void* user) {
    Impl& self = *static_cast<Impl*>(user);
    const size_t length = size * count;
    if (self.keepResponseBody) {
        if (self.responseBody.size() + length > kMaxKeptResponseBody) {
            self.responseTooLarge = true;
            return 0;  // ends the transfer with a write error
        }
        self.responseBody.insert(self.responseBody.end(), data, data + length);
    }
    return length;
}

int CurlTransfer::Impl::transferInfo(void* user, curl_off_t, curl_off_t, curl_off_t,
                                     curl_off_t uploaded) {
    Impl& self = *static_cast<Impl*>(user);
    self.mostBodyBytesSent = std::max<int64_t>(self.mostBodyBytesSent, uploaded);
    self.noteProgress(uploaded, false);
    return self.cancelled.load() ? 1 : 0;
}

// libcurl asks for the body from its start when it sends the request again on a fresh
// connection because the reused one had closed. A stream that can restart (with a fresh digest)
// is rewound; any other seek cannot be served.
int CurlTransfer::Impl::seekBody(void* user, curl_off_t offset, int origin) {
    Impl& self = *static_cast<Impl*>(user);
    if (offset == 0 && origin == SEEK_SET && self.body->rewind()) {
        self.bodyBytesRead = 0;
        self.bodyEnded = false;
        return CURL_SEEKFUNC_OK;
    }
    self.connectionClosedMidBody = true;
    return CURL_SEEKFUNC_CANTSEEK;
}

CurlTransfer::CurlTransfer(const CurlHandles& handles, const SessionConfiguration& configuration,
                           const HttpRequest& request, std::shared_ptr<InputStream> body,
                           int64_t bodyLength, bool keepResponseBody, TransferObserver observer)
    : impl_(std::make_unique<Impl>(handles, configuration, request, std::move(body), bodyLength,
                                   keepResponseBody, std::move(observer))) {}

CurlTransfer::~CurlTransfer() {
    if (impl_->multi != nullptr && impl_->easy != nullptr) {
        // Out of the multi handle (a connection left mid-exchange is closed, a finished one
        // stays cached for the thread's next transfer), then cleared of every option, since
        // they point into this transfer.
        curl_multi_remove_handle(impl_->multi, impl_->easy);
        curl_easy_reset(impl_->easy);
    }
}

TransferOutcome CurlTransfer::perform() {
    return impl_->run();
}

void CurlTransfer::cancel() {
    impl_->cancelled.store(true);
    if (impl_->multi != nullptr) {
        curl_multi_wakeup(impl_->multi);
    }
}

}  // namespace pellorin
