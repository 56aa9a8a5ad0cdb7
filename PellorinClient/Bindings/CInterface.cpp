// The client and part functions of <pellorin/pellorin.h>: thin handles over the C++ client and
// part requests. The handle adds what the C++ client leaves to its host: one mutex-guarded phase
// (idle, waiting, finished) so that a part handed in during or after the wait is refused instead
// of never being waited for; a fan-out of delegate tables that may change at any time; and checks
// of every argument, so that nothing a C host passes can stop the process or block it.
#include <pellorin/pellorin.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/FilePartRequest.h>
#include <pellorin/PellorinClient.h>
#include <pellorin/PellorinClientDelegate.h>
#include <pellorin/SessionConfiguration.h>

#include "Bindings/CParts.h"
#include "Bindings/CSupport.h"

namespace pellorin::bindings {
namespace {

class TableFanOut;

// The fan-out whose callback is running on this thread, if any: calls that would wait for that
// callback to end are refused.
thread_local const TableFanOut* deliveringFanOut = nullptr;

bool sameTable(const PLNClientDelegate& a, const PLNClientDelegate& b) {
    return a.context == b.context && a.logMessage == b.logMessage &&
           a.didStartPart == b.didStartPart &&
           a.didReceivePartProgress == b.didReceivePartProgress &&
           a.willRetryPart == b.willRetryPart && a.partDidComplete == b.partDidComplete &&
           a.partDidFail == b.partDidFail && a.didReceiveFileProgress == b.didReceiveFileProgress &&
           a.didFinishWithStatus == b.didFinishWithStatus;
}

// The one C++ delegate of a handle: forwards every event to each registered table. The mutex is
// held while the tables' callbacks run (on the client's delegate queue), so a table removed, or
// the handle released, is never called once that call has returned.
class TableFanOut final : public PellorinClientDelegate {
  public:
    explicit TableFanOut(PLNPellorinClient* handle) : handle_(handle) {}

    bool isDelivering() const { return deliveringFanOut == this; }

    void add(const PLNClientDelegate& table) {
        std::lock_guard lock(mutex_);
        tables_.push_back(table);
    }
    size_t remove(const PLNClientDelegate& table) {
        std::lock_guard lock(mutex_);
        return std::erase_if(tables_, [&](const auto& entry) { return sameTable(entry, table); });
    }
    // No table is called after this returns.
    void detach() {
        std::lock_guard lock(mutex_);
        tables_.clear();
        handle_ = nullptr;
    }

    void pellorinClientLogMessage(PellorinClient&,
                                  const std::shared_ptr<const LoggingMessage>& message) override {
        forward(&PLNClientDelegate::logMessage, *message);
    }
    void pellorinClientDidStartPart(
        PellorinClient&, const std::shared_ptr<const PartStartedMessage>& message) override {
        forward(&PLNClientDelegate::didStartPart, *message);
    }
    void pellorinClientDidReceivePartProgress(
        PellorinClient&, const std::shared_ptr<const PartProgressMessage>& message) override {
        forward(&PLNClientDelegate::didReceivePartProgress, *message);
    }
    void pellorinClientWillRetryPart(
        PellorinClient&, const std::shared_ptr<const PartRetryMessage>& message) override {
        forward(&PLNClientDelegate::willRetryPart, *message);
    }
    void pellorinClientPartDidComplete(
        PellorinClient&, const std::shared_ptr<const PartCompleteMessage>& message) override {
        forward(&PLNClientDelegate::partDidComplete, *message);
    }
    void pellorinClientPartDidFail(
        PellorinClient&, const std::shared_ptr<const PartFailureMessage>& message) override {
        forward(&PLNClientDelegate::partDidFail, *message);
    }
    void pellorinClientDidReceiveFileProgress(
        PellorinClient&, const std::shared_ptr<const FileProgressMessage>& message) override {
        forward(&PLNClientDelegate::didReceiveFileProgress, *message);
    }
    void pellorinClientDidFinishWithStatus(
        PellorinClient&, int32_t status,
        const std::shared_ptr<const MetricsMessage>& metrics) override {
        const std::string json = metrics->jsonString();
        deliver([&](const PLNClientDelegate& table, PLNPellorinClient* handle) {
            if (table.didFinishWithStatus != nullptr) {
                table.didFinishWithStatus(table.context, handle, status, json.c_str());
            }
        });
    }

  private:
    template <typename Message>
    void forward(PLNEventCallback PLNClientDelegate::*member, const Message& message) {
        std::optional<std::string> json;  // made once, and only when some table wants it
        deliver([&](const PLNClientDelegate& table, PLNPellorinClient* handle) {
            if (PLNEventCallback callback = table.*member) {
                if (!json) {
                    json = message.jsonString();
                }
                callback(table.context, handle, json->c_str());
            }
        });
    }

    template <typename Call>
    void deliver(const Call& call) {
        std::lock_guard lock(mutex_);
        if (handle_ == nullptr) {
            return;
        }
        const TableFanOut* outer = deliveringFanOut;
        deliveringFanOut = this;
        // Indexed: a callback cannot change the list (add and remove are refused inside one).
        for (size_t i = 0; i < tables_.size(); ++i) {
            call(tables_[i], handle_);
        }
        deliveringFanOut = outer;
    }

    std::mutex mutex_;
    std::vector<PLNClientDelegate> tables_;
    PLNPellorinClient* handle_;  // null once detached
};

enum class Phase { idle, waiting, finished };

std::string checkedPath(const char* path, const char* name, bool directory) {
    const std::string text = requiredText(path, name);
    std::error_code error;
    const auto status = std::filesystem::status(text, error);
    if (directory ? !std::filesystem::is_directory(status)
                  : !std::filesystem::is_regular_file(status)) {
        invalidArgument(std::string(name) + " is not " + (directory ? "a folder" : "a file") +
                        ": " + text);
    }
    return text;
}

}  // namespace
}  // namespace pellorin::bindings

using namespace pellorin::bindings;

struct PLNPellorinClient {
    std::shared_ptr<pellorin::PellorinClient> client;
    std::shared_ptr<TableFanOut> fanOut;  // the client holds it weakly

    std::mutex mutex;  // guards everything below; never held during a wait or a callback
    Phase phase = Phase::idle;
    bool cancelled = false;
    int32_t status = PLN_OK;
    std::optional<pellorin::SessionConfiguration> configuration;

    pellorin::SessionConfiguration& editableConfiguration() {
        if (phase != Phase::idle) {
            wrongState("session settings apply only before the transfer starts");
        }
        if (!configuration) {
            configuration = pellorin::SessionConfiguration::ephemeral();
        }
        return *configuration;
    }
};

namespace {

PLNPellorinClient& handleOf(PLNPellorinClient* client) {
    if (client == nullptr) {
        invalidArgument("client is NULL");
    }
    return *client;
}

// Changes the session settings of an idle client under its lock.
template <typename Change>
int32_t configure(PLNPellorinClient* client, Change change) {
    return guardedStatus([&] {
        PLNPellorinClient& handle = handleOf(client);
        std::lock_guard lock(handle.mutex);
        change(handle.editableConfiguration());
        return PLN_OK;
    });
}

std::optional<std::string> optionalText(const char* text) {
    return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

}  // namespace

extern "C" {

const char* PLNLastError(void) {
    return lastError();
}

int32_t PLNLastErrorCode(void) {
    return lastErrorCode();
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
    return guardedPointer([&] {
        constexpr uint64_t kLargestRate = std::numeric_limits<uint64_t>::max() / 1000;
        if (maxConnections == 0) {
            invalidArgument("maxConnections must be at least 1");
        }
        if (rateLimit != nullptr && (*rateLimit == 0 || *rateLimit > kLargestRate)) {
            invalidArgument("rate limit " + std::to_string(*rateLimit) +
                            " KB/s is out of range (1 to " + std::to_string(kLargestRate) + ")");
        }
        auto handle = std::make_unique<PLNPellorinClient>();
        handle->client = pellorin::PellorinClient::standardClient(
            rateLimit != nullptr ? std::optional<uint64_t>(*rateLimit) : std::nullopt,
            maxConnections, maxRetries);
        handle->fanOut = std::make_shared<TableFanOut>(handle.get());
        handle->client->addDelegate(handle->fanOut, nullptr);
        return handle.release();
    });
}

int32_t PLNPellorinClient_addDelegate(PLNPellorinClient* client,
                                      const PLNClientDelegate* delegate) {
    return guardedStatus([&] {
        PLNPellorinClient& handle = handleOf(client);
        if (delegate == nullptr) {
            invalidArgument("delegate is NULL");
        }
        if (handle.fanOut->isDelivering()) {
            wrongState("delegates cannot be added from inside the client's callbacks");
        }
        handle.fanOut->add(*delegate);
        return PLN_OK;
    });
}

int32_t PLNPellorinClient_removeDelegate(PLNPellorinClient* client,
                                         const PLNClientDelegate* delegate) {
    return guardedStatus([&] {
        PLNPellorinClient& handle = handleOf(client);
        if (delegate == nullptr) {
            invalidArgument("delegate is NULL");
        }
        if (handle.fanOut->isDelivering()) {
            wrongState("delegates cannot be removed from inside the client's callbacks");
        }
        if (handle.fanOut->remove(*delegate) == 0) {
            invalidArgument("no such delegate is registered");
        }
        return PLN_OK;
    });
}

int32_t PLNPellorinClient_setCAFile(PLNPellorinClient* client, const char* path) {
    return configure(client, [&](pellorin::SessionConfiguration& configuration) {
        configuration.caFile =
            path != nullptr ? std::optional(checkedPath(path, "CA file", false)) : std::nullopt;
    });
}

int32_t PLNPellorinClient_setCADirectory(PLNPellorinClient* client, const char* path) {
    return configure(client, [&](pellorin::SessionConfiguration& configuration) {
        configuration.caDirectory =
            path != nullptr ? std::optional(checkedPath(path, "CA folder", true)) : std::nullopt;
    });
}

int32_t PLNPellorinClient_setProxy(PLNPellorinClient* client, const char* url) {
    return configure(client, [&](pellorin::SessionConfiguration& configuration) {
        if (url != nullptr && !pellorin::Url::parse(url)) {
            invalidArgument(std::string("proxy is not an absolute URL: ") + url);
        }
        configuration.proxy = optionalText(url);
    });
}

int32_t PLNPellorinClient_setHttpVersion(PLNPellorinClient* client, int32_t version) {
    return configure(client, [&](pellorin::SessionConfiguration& configuration) {
        if (version != PLN_HTTP_1_1 && version != PLN_HTTP_2) {
            invalidArgument("HTTP version must be PLN_HTTP_1_1 or PLN_HTTP_2, not " +
                            std::to_string(version));
        }
        configuration.httpVersion =
            version == PLN_HTTP_2 ? pellorin::HttpVersion::http2 : pellorin::HttpVersion::http1_1;
    });
}

int32_t PLNPellorinClient_setIdleTimeout(PLNPellorinClient* client, double seconds) {
    return configure(client, [&](pellorin::SessionConfiguration& configuration) {
        if (!std::isfinite(seconds) || seconds <= 0) {
            invalidArgument("idle time-out must be a finite number of seconds above 0");
        }
        configuration.timeoutIntervalForRequest = seconds;
    });
}

int32_t PLNPellorinClient_setMinimumTLSVersion(PLNPellorinClient* client, int32_t version) {
    return configure(client, [&](pellorin::SessionConfiguration& configuration) {
        if (version < 0x0301 || version > 0x0304) {
            invalidArgument("TLS version must be 0x0301 to 0x0304, not " + std::to_string(version));
        }
        configuration.minimumTLSVersion = static_cast<pellorin::TLSVersion>(version);
    });
}

int32_t PLNPellorinClient_uploadPartRequest(PLNPellorinClient* client,
                                            const PLNFilePartRequest* part) {
    return guardedStatus([&] {
        PLNPellorinClient& handle = handleOf(client);
        if (part == nullptr) {
            invalidArgument("part is NULL");
        }
        // Checked and handed over under the lock, so a wait cannot start in between and miss it.
        std::lock_guard lock(handle.mutex);
        if (handle.phase == Phase::waiting) {
            wrongState("transfer already running");
        }
        if (handle.phase == Phase::finished) {
            wrongState("transfer already finished; a client runs one transfer");
        }
        if (handle.cancelled) {
            wrongState("client cancelled");
        }
        handle.client->uploadPartRequest(partRequestOf(*part));
        return PLN_OK;
    });
}

int32_t PLNPellorinClient_waitUntilFinished(PLNPellorinClient* client) {
    return guardedStatus([&] {
        PLNPellorinClient& handle = handleOf(client);
        if (handle.fanOut->isDelivering()) {
            wrongState("waitUntilFinished cannot run inside the client's callbacks");
        }
        {
            std::lock_guard lock(handle.mutex);
            if (handle.phase == Phase::waiting) {
                wrongState("transfer already running");
            }
            if (handle.phase == Phase::finished) {
                return handle.status;
            }
            if (handle.configuration) {
                handle.client->setSessionConfigurationSupplier(
                    [configuration = *handle.configuration] { return configuration; });
            }
            handle.phase = Phase::waiting;
        }
        const int32_t status = handle.client->waitUntilFinished();
        std::lock_guard lock(handle.mutex);
        handle.phase = Phase::finished;
        handle.status = status;
        return status;
    });
}

int32_t PLNPellorinClient_invalidateAndCancel(PLNPellorinClient* client) {
    return guardedStatus([&] {
        PLNPellorinClient& handle = handleOf(client);
        std::lock_guard lock(handle.mutex);
        if (!handle.cancelled) {
            handle.cancelled = true;
            handle.client->invalidateAndCancel();
        }
        return PLN_OK;
    });
}

int32_t PLNPellorinClient_release(PLNPellorinClient* client) {
    return guardedStatus([&] {
        if (client == nullptr) {
            return PLN_OK;
        }
        if (client->fanOut->isDelivering()) {
            wrongState("a client cannot be released inside its own callbacks");
        }
        {
            std::lock_guard lock(client->mutex);
            if (client->phase == Phase::waiting) {
                wrongState("a client cannot be released while waitUntilFinished runs");
            }
        }
        client->fanOut->detach();
        std::unique_ptr<PLNPellorinClient> owned(client);
        return PLN_OK;
    });
}

}  // extern "C"
