#include "support/ThirdPartyServer.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

namespace pellorin::testing {

namespace {

std::string quoted(const std::string& text) {
    std::string result = "'";
    for (const char c : text) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
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
    return ThirdPartyServer(dir, arguments);
}

ThirdPartyServer ThirdPartyServer::forwardProxy(const std::filesystem::path& dir) {
    return ThirdPartyServer(dir, {"proxy", "--dir", dir.string()});
}

// The script writes one JSON line to `dir`/started.json: the server's address, or why there is
// none (its other output goes to thirdparty-errors.log there).
ThirdPartyServer::ThirdPartyServer(const std::filesystem::path& dir,
                                   const std::vector<std::string>& arguments) {
    const char* source = std::getenv("PELLORIN_SOURCE_DIR");
    const auto script =
        std::filesystem::path(source && *source ? source : PELLORIN_TEST_SOURCE_DIR) / "tests" /
        "support" / "thirdparty.py";
    std::filesystem::create_directories(dir);
    const auto started = dir / "started.json";
    std::string command = "exec python3 " + quoted(script.string());
    for (const std::string& argument : arguments) {
        command += " " + quoted(argument);
    }
    input_.reset(::popen((command + " >" + quoted(started.string()) + " 2>" +
                          quoted((dir / "thirdparty-errors.log").string()))
                             .c_str(),
                         "w"));
    if (!input_) {
        failure_ = "cannot start " + command;
        return;
    }
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::ifstream in(started);
        line.assign(std::istreambuf_iterator<char>(in), {});
    }
    const nlohmann::json answer = nlohmann::json::parse(line, nullptr, false);
    if (answer.is_object() && answer.contains("url")) {
        url_ = answer["url"].get<std::string>();
        caFile_ = answer.value("ca_file", nlohmann::json()).is_string()
                      ? answer["ca_file"].get<std::string>()
                      : "";
    } else if (answer.is_object() && answer.contains("unavailable")) {
        skipText_ = answer["unavailable"].get<std::string>();
    } else {
        failure_ = answer.is_object() && answer.contains("failure")
                       ? answer["failure"].get<std::string>()
                       : "no start line: '" + line + "' (see " + dir.string() + ")";
    }
}

}  // namespace pellorin::testing
