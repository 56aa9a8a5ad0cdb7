#include "ReserveCommand.h"

#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>

#include <pellorin/Reservation.h>
#include <pellorin/TestReservation.h>
#include <pellorin/Url.h>

#include "FileTools.h"
#include "HostError.h"
#include "PartPlan.h"
#include "Reachability.h"
#include "SignalWatcher.h"
#include "TextFile.h"
#include "Units.h"

namespace pellorin::host {

namespace {

// The library waits up to 60 s for a silent service; past this the host gives up.
constexpr auto kAnswerLimit = std::chrono::seconds(75);
constexpr auto kConnectLimit = std::chrono::milliseconds(5000);

std::string password(const ReserveOptions& options) {
    std::string text;
    if (!options.passwordFile.empty()) {
        text = readTextFile(options.passwordFile, "password file", 4096);
        if (text.ends_with('\n')) {
            text.pop_back();
        }
        if (text.ends_with('\r')) {
            text.pop_back();
        }
    } else if (const char* value = std::getenv(options.passwordEnvironment.c_str())) {
        text = value;
    }
    if (text.empty()) {
        throw InputError(options.passwordFile.empty()
                             ? "no password: set " + options.passwordEnvironment +
                                   " or give --password-file"
                             : "the password file " + options.passwordFile + " is empty");
    }
    return text;
}

Url endpoint(const ReserveOptions& options) {
    const std::string text = options.endpoint.empty()
                                 ? reservationEndpointText(static_cast<uint8_t>(options.qeld))
                                 : options.endpoint;
    auto url = Url::parse(text);
    if (!url || (url->scheme() != "http" && url->scheme() != "https")) {
        throw InputError("--endpoint: not an http or https URL: " + text);
    }
    // A bare server address means the service's path on that server.
    if (url->pathAndQuery() == "/") {
        url = Url::parse(url->normalizedString().substr(0, url->normalizedString().size() - 1) +
                         std::string(kReservationServicePath));
    }
    return *url;
}

// What identifies one version of a file; equal before and after when it was not written.
struct Stamp {
    bool exists = false;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    bool operator==(const Stamp& other) const {
        return exists == other.exists && inode == other.inode && size == other.size &&
               modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec;
    }
};

Stamp stampOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return {};
    }
    return {true, status.st_ino, status.st_size, status.st_mtim};
}

// Runs the reservation call on a thread of its own and waits for it, bounded: an answer without
// a body would keep the call waiting for ever, and then the process ends with status 1.
void callBounded(const ReserveOptions& options, const std::string& secret, const Url& url) {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    std::exception_ptr failure;
    std::thread call([&] {
        std::exception_ptr caught;
        try {
            const std::optional<std::string> provider = options.provider;
            // An absolute path: the reservation stays usable from any working directory.
            createTestReservationFile(options.output, absolutePath(options.file), options.user,
                                      secret, provider, url);
        } catch (...) {
            caught = std::current_exception();
        }
        std::lock_guard lock(mutex);
        failure = caught;
        finished = true;
        done.notify_all();
    });
    std::unique_lock lock(mutex);
    if (!done.wait_for(lock, kAnswerLimit, [&] { return finished; })) {
        std::fprintf(stderr, "pellorin: no usable answer from %s within %lld s\n",
                     url.absoluteString().c_str(), static_cast<long long>(kAnswerLimit.count()));
        std::fflush(stdout);
        std::_Exit(1);  // the call cannot be stopped; leave it behind
    }
    lock.unlock();
    call.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

}  // namespace

CLI::App* addReserveCommand(CLI::App& app, ReserveOptions& options) {
    CLI::App* command = app.add_subcommand(
        "reserve",
        "Ask the reservation service for a test reservation of FILE and write its "
        "operations to a reservation file");
    command->add_option("FILE", options.file, "Local file to reserve")
        ->required()
        ->type_name("FILE");
    command->add_option("-o,--output", options.output, "Reservation file to write")
        ->type_name("FILE")
        ->capture_default_str();
    command->add_option("-u,--user", options.user, "Account name")->required()->type_name("NAME");
    auto* environment = command
                            ->add_option("--password-env", options.passwordEnvironment,
                                         "Environment variable holding the password")
                            ->type_name("VAR")
                            ->capture_default_str();
    command
        ->add_option("--password-file", options.passwordFile,
                     "File holding the password (one line)")
        ->type_name("FILE")
        ->excludes(environment);
    command->add_option("--provider", options.provider, "Provider short name")->type_name("NAME");
    auto* qeld = command->add_option("--qeld", options.qeld, "Number of the service instance")
                     ->check(CLI::Range(0u, 255u))
                     ->type_name("N")
                     ->capture_default_str();
    command
        ->add_option("--endpoint", options.endpoint,
                     "Reservation endpoint to call instead of the service, e.g. a local "
                     "receiver: http://127.0.0.1:8080")
        ->type_name("URL")
        ->excludes(qeld);
    command->footer(
        "Example, against a local receiver:\n"
        "  pellorin serve --port 8080 --dir received &\n"
        "  PELLORIN_PASSWORD=secret pellorin reserve big.iso --user me --endpoint "
        "http://127.0.0.1:8080\n"
        "  pellorin upload --reservation reservation.json\n"
        "\nThe request is printed on standard output as it is sent, password included.\n");
    return command;
}

int runReserve(const ReserveOptions& options) {
    const FileCheck file = checkReadableFile(options.file);
    if (!file.size) {
        throw InputError(file.problem);
    }
    if (options.user.empty()) {
        throw InputError("--user must not be empty");
    }
    const std::string secret = password(options);
    const Url url = endpoint(options);
    SignalWatcher watcher([](int) {
        std::fputs("pellorin: interrupted\n", stderr);
        std::_Exit(kExitInterrupted);
    });

    const int port = url.port().value_or(url.scheme() == "https" ? 443 : 80);
    if (const auto reason = unreachableReason(url.host(), port, kConnectLimit)) {
        std::fprintf(stderr, "pellorin: cannot reach %s:%d: %s\n", url.host().c_str(), port,
                     reason->c_str());
        return 1;
    }
    const Stamp before = stampOf(options.output);
    callBounded(options, secret, url);
    if (stampOf(options.output) == before) {
        std::fprintf(stderr,
                     "pellorin: the answer of %s could not be used (see above); %s is "
                     "unchanged\n",
                     url.absoluteString().c_str(), options.output.c_str());
        return 1;
    }
    const auto pairs = decodeOperationPairs(readTextFile(options.output, "reservation file"));
    if (!pairs || pairs->empty()) {
        std::fprintf(stderr, "pellorin: the service reserved nothing for %s\n",
                     options.file.c_str());
        return 1;
    }
    std::printf("Reserved %s of %s in %s; upload them with: pellorin upload --reservation %s\n",
                countOf(pairs->size(), "part").c_str(), options.file.c_str(),
                options.output.c_str(), options.output.c_str());
    return 0;
}

}  // namespace pellorin::host
