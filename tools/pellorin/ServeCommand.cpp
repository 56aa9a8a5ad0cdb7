#include "ServeCommand.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "HostError.h"
#include "SignalWatcher.h"

namespace pellorin::host {

namespace {

std::string optionalNumber(const std::optional<uint64_t>& value) {
    return value ? std::to_string(*value) : "-";
}

}  // namespace

std::string requestLine(const receiver::RequestRecord& record) {
    const double seconds = std::chrono::duration<double>(record.finished - record.started).count();
    char time[32];
    std::snprintf(time, sizeof time, "%.3f s", seconds > 0 ? seconds : 0.0);
    return record.method + " " + record.path + " part=" + optionalNumber(record.partNumber) +
           " retry=" + optionalNumber(record.retryCount) +
           " bytes=" + std::to_string(record.bytesReceived) +
           " status=" + (record.status != 0 ? std::to_string(record.status) : "none") +
           (record.accepted ? " accepted" : "") + " md5=" + record.md5Hex + " " + time;
}

int runServe(const ServeOptions& options) {
    receiver::ReceiverOptions receiverOptions;
    receiverOptions.port = options.port;
    receiverOptions.checksumMode = options.checksumMode;
    if (!options.directory.empty()) {
        std::error_code error;
        if (!std::filesystem::is_directory(options.directory, error)) {
            throw InputError("--dir " + options.directory + " is not a directory");
        }
        receiverOptions.directory = std::filesystem::absolute(options.directory);
    }
    receiver::Receiver receiver(receiverOptions);
    std::mutex outputMutex;
    receiver.setRequestObserver([&](const receiver::RequestRecord& record) {
        const std::string line = requestLine(record) + "\n";
        std::lock_guard lock(outputMutex);
        std::fputs(line.c_str(), stdout);
        std::fflush(stdout);
        // A long-running server keeps no history: each request is printed and forgotten.
        receiver.resetRecords();
    });
    receiver.start();
    std::printf("Receiving on %s, %s\n", receiver.baseUrl().c_str(),
                receiverOptions.directory
                    ? ("assembling files in " + receiverOptions.directory->string()).c_str()
                    : "hashing bodies only");
    std::fflush(stdout);

    std::mutex mutex;
    std::condition_variable stopped;
    bool signalled = false;
    SignalWatcher watcher([&](int) {
        std::lock_guard lock(mutex);
        signalled = true;
        stopped.notify_all();
    });
    std::unique_lock lock(mutex);
    stopped.wait(lock, [&] { return signalled; });
    lock.unlock();
    receiver.stop();
    std::printf("Stopped\n");
    return 0;
}

}  // namespace pellorin::host
