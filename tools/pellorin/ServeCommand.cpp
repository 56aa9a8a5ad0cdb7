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

CLI::App* addServeCommand(CLI::App& app, ServeOptions& options) {
    CLI::App* command = app.add_subcommand(
        "serve", "Run the local receiver on 127.0.0.1 until Ctrl-C, printing one line per request");
    command->add_option("-p,--port", options.port, "Port to listen on (0: any free port)")
        ->type_name("PORT")
        ->capture_default_str();
    command
        ->add_option("--dir", options.directory,
                     "Assemble uploaded files in this directory (default: only hash them)")
        ->type_name("DIR");
    command
        ->add_option_function<std::string>(
            "--checksum",
            [&options](const std::string& mode) {
                options.checksumMode = mode == "etag" ? receiver::ChecksumMode::eTag
                                                      : receiver::ChecksumMode::contentMD5;
            },
            "Header that carries the body's MD5: content-md5 (base64) or etag (hex)")
        ->check(CLI::IsMember({"content-md5", "etag"}))
        ->type_name("MODE")
        ->default_str("content-md5");

    command->footer(
        "Example:\n"
        "  pellorin serve --port 8080 --dir /tmp/received\n"
        "\nEach request prints one line: method, target, part=, retry=, bytes=, status=,\n"
        "'accepted' when the checksum was answered, md5= and the time taken.\n");
    return command;
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
