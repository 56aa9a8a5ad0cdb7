// A transfer under test: a source file in a temporary directory, a local receiver writing what it
// gets into a copy, a client logging into a record, and a delegate recording every event.
#pragma once

#include <gtest/gtest.h>

#include <pellorin/PellorinClient.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/ClientCore.h"
#include "receiver/Receiver.h"
#include "support/FileDigest.h"
#include "support/RecordingDelegate.h"
#include "support/RecordingLogHandler.h"
#include "support/TempDir.h"

namespace pellorin::testing {

// The decimal number in the environment variable `name`, or `fallback` when it is unset or empty:
// the soak benchmark makes the long-running tests larger that way.
inline uint64_t sizeFromEnvironment(const char* name, uint64_t fallback) {
    const char* text = std::getenv(name);
    return text && *text ? std::strtoull(text, nullptr, 10) : fallback;
}

class Transfer {
  public:
    explicit Transfer(uint64_t fileSize, uint8_t maxConnections = 4, uint8_t maxRetries = 3,
                      receiver::ReceiverOptions options = {})
        : log(std::make_shared<LogRecord>()), delegate(std::make_shared<RecordingDelegate>()) {
        source = dir.makeFile("source.bin", fileSize, 7);
        options.directory = dir.path();
        receiver = std::make_unique<receiver::Receiver>(options);
        receiver->start();
        Logger logger("test.client", std::make_unique<RecordingLogHandler>(log));
        client = ClientCore::make(nullptr, maxConnections, maxRetries, logger);
        client->addDelegate(delegate, nullptr);
    }

    // Cuts the source into parts of `partSize` bytes (the last one shorter) and submits them,
    // numbered from 1, each uploading into the receiver's copy at its own offset.
    std::vector<std::shared_ptr<FilePartRequest>> submitParts(uint64_t partSize) {
        const uint64_t size = std::filesystem::file_size(source);
        std::vector<std::shared_ptr<FilePartRequest>> parts;
        uint64_t offset = 0;
        do {
            const uint64_t length = std::min(partSize, size - offset);
            parts.push_back(submit(source.string(), parts.size() + 1, offset, length));
            offset += length;
        } while (offset < size);
        return parts;
    }

    std::shared_ptr<FilePartRequest> submit(const std::string& path, uint64_t partNumber,
                                            uint64_t offset, uint64_t length) {
        auto part =
            FilePartRequest::make(path, partNumber, offset, length,
                                  *Url::parse(receiver->partUrl("copy.bin", offset)), "PUT");
        client->uploadPartRequest(part);
        return part;
    }

    // waitUntilFinished, bounded: a transfer that does not finish in time fails the test and is
    // cancelled; one that does not return after cancelling either stops the test binary.
    int32_t run(std::chrono::seconds limit = std::chrono::seconds(60)) {
        auto result =
            std::async(std::launch::async, [c = client] { return c->waitUntilFinished(); });
        if (result.wait_for(limit) != std::future_status::ready) {
            ADD_FAILURE() << "transfer did not finish within " << limit.count() << " s";
            client->invalidateAndCancel();
            if (result.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
                std::fprintf(stderr, "transfer hangs even after cancelling\n");
                std::abort();
            }
        }
        return result.get();
    }

    std::filesystem::path copy() const { return dir.path() / "copy.bin"; }

    TempDir dir;
    std::filesystem::path source;
    std::unique_ptr<receiver::Receiver> receiver;
    std::shared_ptr<LogRecord> log;
    std::shared_ptr<RecordingDelegate> delegate;
    std::shared_ptr<PellorinClient> client;
};

// A slow delegate on a queue of its own, registered before a direct one that counts the events
// of `kind` it receives before the queued one has: delivery that waits for queued delegates,
// however slow, keeps that count at 0.
struct DeliveryOrder {
    DeliveryOrder(PellorinClient& client, const std::string& kind) {
        queued->onEvent = [kind](const RecordingDelegate::Event& e) {
            if (e.kind == kind)
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        };
        direct->onEvent = [this, kind](const RecordingDelegate::Event& e) {
            if (e.kind == kind && seen(*queued, kind) < seen(*direct, kind))
                ++early;
        };
        client.addDelegate(queued, queue);
        client.addDelegate(direct, nullptr);
    }
    static size_t seen(const RecordingDelegate& delegate, const std::string& kind) {
        std::lock_guard lock(delegate.mutex);
        return std::count_if(delegate.events.begin(), delegate.events.end(),
                             [&](const auto& e) { return e.kind == kind; });
    }

    const std::shared_ptr<SerialQueue> queue = SerialQueue::make("host delegate queue");
    const std::shared_ptr<RecordingDelegate> queued = std::make_shared<RecordingDelegate>();
    const std::shared_ptr<RecordingDelegate> direct = std::make_shared<RecordingDelegate>();
    std::atomic<int> early{0};
};

}  // namespace pellorin::testing
