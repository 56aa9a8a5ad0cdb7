// The C interface of <pellorin/pellorin.h>: thin handles over the C++ client and part requests,
// and a delegate that forwards each event's JSON text to a table of function pointers. No
// exception crosses into C: failures become a NULL result and a thread-local error text.
#include <pellorin/pellorin.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/FilePartRequest.h>
#include <pellorin/PellorinClient.h>
#include <pellorin/PellorinClientDelegate.h>

namespace {

thread_local std::string lastError;

// Forwards every event to a C table. Lives as long as its client handle.
class TableDelegate final : public pellorin::PellorinClientDelegate {
  public:
    TableDelegate(PLNClientDelegate table, PLNPellorinClient* handle)
        : table_(table), handle_(handle) {}

    void pellorinClientLogMessage(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::LoggingMessage>& message) override {
        forward(table_.logMessage, *message);
    }
    void pellorinClientDidStartPart(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartStartedMessage>& message) override {
        forward(table_.didStartPart, *message);
    }
    void pellorinClientDidReceivePartProgress(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartProgressMessage>& message) override {
        forward(table_.didReceivePartProgress, *message);
    }
    void pellorinClientWillRetryPart(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartRetryMessage>& message) override {
        forward(table_.willRetryPart, *message);
    }
    void pellorinClientPartDidComplete(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartCompleteMessage>& message) override {
        forward(table_.partDidComplete, *message);
    }
    void pellorinClientPartDidFail(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartFailureMessage>& message) override {
        forward(table_.partDidFail, *message);
    }
    void pellorinClientDidReceiveFileProgress(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::FileProgressMessage>& message) override {
        forward(table_.didReceiveFileProgress, *message);
    }
    void pellorinClientDidFinishWithStatus(
        pellorin::PellorinClient&, int32_t status,
        const std::shared_ptr<const pellorin::MetricsMessage>& metrics) override {
        if (table_.didFinishWithStatus != nullptr) {
            const std::string json = metrics->jsonString();
            table_.didFinishWithStatus(table_.context, handle_, status, json.c_str());
        }
    }

  private:
    template <typename Message>
    void forward(PLNEventCallback callback, const Message& message) const {
        if (callback != nullptr) {
            const std::string json = message.jsonString();
            callback(table_.context, handle_, json.c_str());
        }
    }

    const PLNClientDelegate table_;
    PLNPellorinClient* const handle_;
};

// Runs `make`, turning a missing argument or any exception into NULL and PLNLastError.
template <typename Make>
auto guarded(Make make) -> decltype(make()) {
    try {
        lastError.clear();
        return make();
    } catch (const std::exception& error) {
        lastError = error.what();
    } catch (...) {
        lastError = "unknown error";
    }
    return nullptr;
}

struct MissingArgument : std::invalid_argument {
    explicit MissingArgument(const char* name)
        : std::invalid_argument(std::string(name) + " is NULL") {}
};

const char* required(const char* value, const char* name) {
    if (value == nullptr) {
        throw MissingArgument(name);
    }
    return value;
}

pellorin::Url parseUrl(const char* text) {
    auto url = pellorin::Url::parse(required(text, "url"));
    if (!url) {
        throw std::invalid_argument(std::string("not an absolute URL: ") + text);
    }
    return *url;
}

}  // namespace

struct PLNPellorinClient {
    std::shared_ptr<pellorin::PellorinClient> client;
    std::vector<std::shared_ptr<TableDelegate>> delegates;  // the client holds them weakly
};

struct PLNFilePartRequest {
    std::shared_ptr<pellorin::FilePartRequest> request;
};

extern "C" {

const char* PLNLastError(void) {
    return lastError.c_str();
}

const char* PLNPellorinClient_bundle(void) {
    static const std::string bundle = pellorin::PellorinClient::bundle();
    return bundle.c_str();
}

const char* PLNPellorinClient_versionString(void) {
    static const std::string version = pellorin::PellorinClient::versionString().value_or("");
    return version.c_str();
}

PLNPellorinClient* PLNPellorinClient_standardClient(const uint64_t* rateLimit,
                                                    uint8_t maxConnections, uint8_t maxRetries) {
    return guarded([&] {
        auto handle = std::make_unique<PLNPellorinClient>();
        handle->client = pellorin::PellorinClient::standardClient(
            rateLimit != nullptr ? std::optional<uint64_t>(*rateLimit) : std::nullopt,
            maxConnections, maxRetries);
        return handle.release();
    });
}

void PLNPellorinClient_addDelegate(PLNPellorinClient* client, const PLNClientDelegate* delegate) {
    if (client == nullptr || delegate == nullptr) {
        return;
    }
    auto forwarder = std::make_shared<TableDelegate>(*delegate, client);
    client->client->addDelegate(forwarder, nullptr);
    client->delegates.push_back(std::move(forwarder));
}

void PLNPellorinClient_uploadPartRequest(PLNPellorinClient* client,
                                         const PLNFilePartRequest* part) {
    if (client != nullptr && part != nullptr) {
        client->client->uploadPartRequest(part->request);
    }
}

int32_t PLNPellorinClient_waitUntilFinished(PLNPellorinClient* client) {
    return client != nullptr ? client->client->waitUntilFinished() : 0;
}

void PLNPellorinClient_invalidateAndCancel(PLNPellorinClient* client) {
    if (client != nullptr) {
        client->client->invalidateAndCancel();
    }
}

void PLNPellorinClient_release(PLNPellorinClient* client) {
    std::unique_ptr<PLNPellorinClient> owned(client);
}

PLNFilePartRequest* PLNFilePartRequest_make(const char* filePath, uint64_t partNumber,
                                            uint64_t offset, uint64_t length, const char* url,
                                            const char* method, const PLNHeader* headers,
                                            size_t headerCount) {
    return guarded([&] {
        std::optional<pellorin::FilePartRequest::Headers> dictionary;
        if (headers != nullptr) {
            dictionary.emplace();
            for (size_t i = 0; i < headerCount; ++i) {
                (*dictionary)[required(headers[i].name, "header name")] =
                    required(headers[i].value, "header value");
            }
        }
        auto part = std::make_unique<PLNFilePartRequest>();
        part->request = pellorin::FilePartRequest::make(
            required(filePath, "filePath"), partNumber, offset, length, parseUrl(url),
            required(method, "method"), std::move(dictionary));
        return part.release();
    });
}

PLNFilePartRequest* PLNFilePartRequest_makeWithHeadersArray(
    const char* filePath, uint64_t partNumber, uint64_t offset, uint64_t length, const char* url,
    const char* method, const PLNHeader* headersArray, size_t headerCount) {
    return guarded([&] {
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
        auto part = std::make_unique<PLNFilePartRequest>();
        part->request = pellorin::FilePartRequest::makeWithHeadersArray(
            required(filePath, "filePath"), partNumber, offset, length, parseUrl(url),
            required(method, "method"), array);
        return part.release();
    });
}

void PLNFilePartRequest_release(PLNFilePartRequest* part) {
    std::unique_ptr<PLNFilePartRequest> owned(part);
}

}  // extern "C"
