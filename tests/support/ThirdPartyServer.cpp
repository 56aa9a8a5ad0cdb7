#include "support/ThirdPartyServer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace pellorin::testing {

namespace {

constexpr auto kStartLimit = std::chrono::seconds(20);

std::filesystem::path script() {
    const char* source = std::getenv("PELLORIN_SOURCE_DIR");
    return std::filesystem::path(source && *source ? source : PELLORIN_TEST_SOURCE_DIR) / "tests" /
           "support" / "thirdparty.py";
}

// Reads what the child writes to `fd` until a newline, the end, or the deadline.
std::string readLine(int fd, std::chrono::steady_clock::time_point deadline) {
    std::string text;
    char c = 0;
    while (text.find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            break;
        }
        if (::read(fd, &c, 1) != 1) {
            break;
        }
        text.push_back(c);
    }
    return text;
}

// Waits for the child up to `limit`; returns its wait status, or -1 when it has not ended.
int waitFor(pid_t pid, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    for (;;) {
        const pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            return status;
        }
        if (done < 0 || std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace

ThirdPartyServer ThirdPartyServer::nginx(const std::string& upstream,
                                         const std::filesystem::path& dir, bool http2,
                                         std::optional<std::string> keepaliveTimeout) {
    std::vector<std::string> arguments{"nginx", "--upstream", upstream, "--dir", dir.string()};
    if (http2) {
        arguments.emplace_back("--http2");
    }
    if (keepaliveTimeout) {
        arguments.insert(arguments.end(), {"--keepalive-timeout", *keepaliveTimeout});
    }
    return ThirdPartyServer(std::move(arguments));
}

ThirdPartyServer ThirdPartyServer::forwardProxy(const std::filesystem::path& dir) {
    return ThirdPartyServer({"proxy", "--dir", dir.string()});
}

ThirdPartyServer::ThirdPartyServer(std::vector<std::string> arguments) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        ::pipe2(err, O_CLOEXEC) != 0) {
        failure_ = "no pipes";
        return;
    }
    const std::string program = script().string();
    std::vector<char*> argv{const_cast<char*>("python3"), const_cast<char*>(program.c_str())};
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        ::execvp("python3", argv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    input_ = in[1];
    if (pid_ < 0) {
        failure_ = "cannot fork";
        ::close(out[0]);
        ::close(err[0]);
        return;
    }
    const std::string line = readLine(out[0], std::chrono::steady_clock::now() + kStartLimit);
    ::close(out[0]);
    const nlohmann::json answer = nlohmann::json::parse(line, nullptr, false);
    if (answer.is_object() && answer.contains("url")) {
        url_ = answer["url"].get<std::string>();
        if (answer.contains("ca_file") && answer["ca_file"].is_string()) {
            caFile_ = answer["ca_file"].get<std::string>();
        }
    } else {
        const std::string errors =
            readLine(err[0], std::chrono::steady_clock::now() + std::chrono::milliseconds(500));
        const int status = waitFor(pid_, std::chrono::seconds(2));
        if (status >= 0 && WIFEXITED(status) && WEXITSTATUS(status) == 77) {
            skipText_ = errors.empty() ? "not installed" : errors;
            pid_ = -1;
        } else {
            failure_ = "no start line: '" + line + "' " + errors;
        }
    }
    ::close(err[0]);
}

ThirdPartyServer::ThirdPartyServer(ThirdPartyServer&& other) noexcept
    : pid_(other.pid_),
      input_(other.input_),
      url_(std::move(other.url_)),
      caFile_(std::move(other.caFile_)),
      skipText_(std::move(other.skipText_)),
      failure_(std::move(other.failure_)) {
    other.pid_ = -1;
    other.input_ = -1;
}

ThirdPartyServer::~ThirdPartyServer() {
    if (input_ >= 0) {
        ::close(input_);
    }
    if (pid_ <= 0) {
        return;
    }
    if (waitFor(pid_, std::chrono::seconds(3)) >= 0) {
        return;
    }
    ::kill(pid_, SIGTERM);
    if (waitFor(pid_, std::chrono::seconds(3)) < 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

}  // namespace pellorin::testing
