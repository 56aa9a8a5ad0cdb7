// Uploads FILE in parts: part n holds bytes [offset, offset + PART_BYTES) and is sent with PUT to
// URL_PREFIX followed by its offset in decimal, e.g. http://127.0.0.1:8080/upload/a.bin?offset=
// gives .../a.bin?offset=0, ...?offset=1048576, ... The server answers each part with the MD5 of
// what it received; the client checks it and retries a part up to three times.
//
//     upload_parts FILE URL_PREFIX [PART_BYTES]
//
// Prints one line per finished part and a summary; exits 0 only when every part arrived intact.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include <pellorin/PellorinClient.h>

namespace {

// Prints the outcome of each part. The client calls it on its delegate queue; the lock only keeps
// lines whole should the host print from another thread too.
class PrintingDelegate final : public pellorin::PellorinClientDelegate {
  public:
    void pellorinClientLogMessage(pellorin::PellorinClient&,
                                  const std::shared_ptr<const pellorin::LoggingMessage>&) override {
    }
    void pellorinClientDidStartPart(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartStartedMessage>&) override {}
    void pellorinClientDidReceivePartProgress(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartProgressMessage>&) override {}
    void pellorinClientWillRetryPart(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartRetryMessage>& message) override {
        print("part " + std::to_string(message->partNumber()) +
              " will be retried: " + message->error()->message());
    }
    void pellorinClientPartDidComplete(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartCompleteMessage>& message) override {
        print("part " + std::to_string(message->partNumber()) + " complete");
    }
    void pellorinClientPartDidFail(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::PartFailureMessage>& message) override {
        std::string text = "part " + std::to_string(message->partNumber()) + " failed";
        if (!message->errors().empty()) {
            text += ": " + message->errors().back()->message();
        }
        print(text);
    }
    void pellorinClientDidReceiveFileProgress(
        pellorin::PellorinClient&,
        const std::shared_ptr<const pellorin::FileProgressMessage>&) override {}
    void pellorinClientDidFinishWithStatus(
        pellorin::PellorinClient&, int32_t status,
        const std::shared_ptr<const pellorin::MetricsMessage>& metrics) override {
        print("finished with status " + std::to_string(status) + ": " +
              std::to_string(metrics->partsSent()) + " parts, " +
              std::to_string(metrics->bytesSent()) + " bytes sent, " +
              std::to_string(metrics->failureCount()) + " failed");
    }

  private:
    void print(const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::cout << line << std::endl;
    }
    std::mutex mutex_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4) {
        std::cerr << "usage: upload_parts FILE URL_PREFIX [PART_BYTES]\n";
        return 2;
    }
    const std::string path = argv[1];
    const std::string urlPrefix = argv[2];
    const uint64_t partBytes = argc == 4 ? std::strtoull(argv[3], nullptr, 10) : 1024 * 1024;
    std::error_code error;
    const uint64_t fileSize = std::filesystem::file_size(path, error);
    if (error || partBytes == 0) {
        std::cerr << "upload_parts: cannot read the size of " << path << " or bad part size\n";
        return 2;
    }

    // No rate limit, up to four parts at once, three retries per part.
    auto client = pellorin::PellorinClient::standardClient(std::nullopt, 4, 3);
    auto delegate = std::make_shared<PrintingDelegate>();
    client->addDelegate(delegate, nullptr);

    // One request per part; an empty file is sent as one empty part.
    uint64_t partNumber = 1;
    uint64_t offset = 0;
    do {
        const uint64_t length = std::min(partBytes, fileSize - offset);
        auto url = pellorin::Url::parse(urlPrefix + std::to_string(offset));
        if (!url) {
            std::cerr << "upload_parts: not an absolute URL: " << urlPrefix << "\n";
            return 2;
        }
        client->uploadPartRequest(
            pellorin::FilePartRequest::make(path, partNumber++, offset, length, *url, "PUT"));
        offset += length;
    } while (offset < fileSize);

    const int32_t status = client->waitUntilFinished();
    std::cout << (status == 0 ? "uploaded " : "upload failed: ") << path << std::endl;
    return status;
}
