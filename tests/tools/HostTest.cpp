// The host's pieces: sizes typed on the command line, the progress line, the parts a file is cut
// into, the counters and journal entries the transfer observer keeps, and the journal itself:
// what a run records is what the next run skips, whatever a crash left at the end of the file.
#include <gtest/gtest.h>

#include <pellorin/PellorinClient.h>

#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "pellorin/EventLog.h"
#include "pellorin/FailureVerdict.h"
#include "pellorin/HostError.h"
#include "pellorin/Journal.h"
#include "pellorin/NetworkOptions.h"
#include "pellorin/PartPlan.h"
#include "pellorin/ProgressLine.h"
#include "pellorin/Redaction.h"
#include "pellorin/TransferObserver.h"
#include "pellorin/TransferRounds.h"
#include "pellorin/Units.h"
#include "pellorin/UrlTemplate.h"
#include "support/TempDir.h"

namespace pellorin::host {
namespace {

std::string contentsOf(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string errorOf(const std::filesystem::path& path) {
    try {
        Journal::open(path);
    } catch (const InputError& error) {
        return error.what();
    }
    return "(no error)";
}

TEST(HostUnitsTest, SizesParseAndPrint) {
    const std::pair<const char*, uint64_t> sizes[] = {
        {"8MiB", 8u << 20}, {"1.5KiB", 1536},
        {"100KB", 100000},  {"500k", 500000},
        {"10M", 10000000},  {"80Mbit", 10000000},
        {"2Ki", 2048},      {"18446744073709551615", UINT64_MAX},
    };
    for (const auto& [text, bytes] : sizes) {
        EXPECT_EQ(parseByteSize(text), bytes) << text;
    }
    EXPECT_EQ(parseByteRate("1.5MB/s"), 1500000u);
    EXPECT_EQ(parseByteRate("80Mbitps"), 10000000u);
    for (const char* bad : {"", "MiB", "-1", "8XB", "1.5.5", "18446744073709551616", "16EiB",
                            "20000000TiB", "10M/h"}) {
        EXPECT_FALSE(parseByteRate(bad).has_value()) << bad;
    }
    EXPECT_EQ(formatBytes(1023), "1023 B");
    EXPECT_EQ(formatBytes(uint64_t{256} << 20), "256 MiB");
    EXPECT_EQ(formatRate(35.2 * 1048576), "35.2 MiB/s");
    EXPECT_EQ(formatDuration(3723), "1:02:03");
    EXPECT_EQ(formatDuration(-1), "--:--");
}

TEST(HostUnitsTest, ProgressLineShowsDoneOnlyWhenDone) {
    ProgressSnapshot s{.totalBytes = 10000,
                       .doneBytes = 9996,
                       .totalParts = 4,
                       .partsDone = 3,
                       .partsFailed = 0,
                       .retries = 1,
                       .bytesPerSecond = 2};
    EXPECT_EQ(formatProgressLine(s),
              " 99.9%  9.76 KiB / 9.77 KiB  2 B/s  0:02 left  parts 3/4, 0 failed, 1 retry");
    s.doneBytes = 10000;
    s.partsDone = 4;
    s.finished = true;
    s.elapsedSecs = 65;
    EXPECT_EQ(formatProgressLine(s).substr(0, 45), "100.0%  9.77 KiB / 9.77 KiB  2 B/s  in 1:05  ");
    // No bytes at all (empty files): the parts tell the percentage.
    EXPECT_EQ(formatProgressLine({.totalParts = 2, .partsDone = 1}).substr(0, 6), " 50.0%");
}

TEST(HostUnitsTest, FilesAreCutIntoNumberedParts) {
    auto url = [](uint64_t offset) {
        return *Url::parse("http://h/x?o=" + std::to_string(offset));
    };
    const auto parts = planFileParts("/d/f", SourceIdentity{.size = 25}, 10, url);
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(parts[2].key, (PartKey{"/d/f", 3, 20, 5}));
    EXPECT_EQ(parts[2].url.absoluteString(), "http://h/x?o=20");
    EXPECT_EQ(totalLength(parts), 25u);
    const auto empty = planFileParts("/d/e", SourceIdentity{}, 10, url);
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_EQ(empty[0].key.length, 0u);
    EXPECT_THROW(planFileParts("/d/f", SourceIdentity{.size = 25}, 0, url), InputError);
    EXPECT_THROW(planFileParts("/d/f", SourceIdentity{.size = kMaxPlannedParts + 1}, 1, url),
                 InputError);
}

TEST(HostUnitsTest, ObserverCountsEachPartOnceAndJournalsIt) {
    testing::TempDir dir;
    auto url = [](uint64_t) { return *Url::parse("http://h/x"); };
    const auto parts = planFileParts("/d/f", SourceIdentity{.size = 300}, 100, url);
    ProgressCounters counters(300, 3);
    auto journal = Journal::open(dir.path() / "journal");
    auto line = std::make_shared<StatusLine>(stderr, false);
    JournalWriter writer(
        *journal, [&](const PlannedPart&) { ++counters.partsDone; }, [](const auto&) {});
    TransferObserver observer(parts, counters, line, &writer);
    auto client = PellorinClient::standardClient(std::nullopt, 1, 0);

    auto progress = [&](uint64_t part, int64_t bytes) {
        observer.pellorinClientDidReceivePartProgress(
            *client, std::make_shared<PartProgressMessage>("/d/f", part, 100, bytes, bytes));
    };
    progress(1, 60);
    progress(2, 30);
    EXPECT_EQ(counters.doneBytes, 90u);
    observer.pellorinClientWillRetryPart(
        *client,
        std::make_shared<PartRetryMessage>(
            "/d/f", 1, 60, 1, 0.5, std::make_shared<ErrorMessage>("d", 1, "m", std::nullopt)));
    EXPECT_EQ(counters.doneBytes, 30u);
    EXPECT_EQ(counters.retries, 1u);
    progress(1, 150);  // never more than the part's length
    EXPECT_EQ(counters.doneBytes, 130u);
    observer.pellorinClientPartDidComplete(*client,
                                           std::make_shared<PartCompleteMessage>("/d/f", 1, "e1"));
    EXPECT_EQ(counters.doneBytes, 130u);
    writer.flush();  // done once on disk
    EXPECT_EQ(counters.partsDone, 1u);
    observer.pellorinClientPartDidFail(
        *client,
        std::make_shared<PartFailureMessage>("/d/f", 2, *Url::parse("http://h/x"),
                                             std::vector<std::shared_ptr<const ErrorMessage>>{}));
    EXPECT_EQ(counters.doneBytes, 100u);
    EXPECT_EQ(counters.partsFailed, 1u);
    EXPECT_EQ(counters.sentBytes, 240u);
    EXPECT_EQ(journal->check(parts[0]), Journal::Verdict::done);
    EXPECT_EQ(journal->check(parts[1]), Journal::Verdict::absent);
    ASSERT_EQ(observer.failures().size(), 1u);
    EXPECT_EQ(observer.failures()[0].part.key.partNumber, 2u);
}

// A part counts as done only where place, destination and source identity all match; a crash may
// leave half a line at the end, which is dropped so that the next entry starts a line.
TEST(JournalTest, OnlyTheSamePartToTheSamePlaceFromTheSameFileCountsAsDone) {
    testing::TempDir dir;
    const auto path = dir.path() / "journal";
    auto url = [](uint64_t offset) {
        return *Url::parse("http://h/x?sig=s&o=" + std::to_string(offset));
    };
    const SourceIdentity source{1, 2, 20, 3};
    const auto parts = planFileParts("/a", source, 10, url);
    {
        auto journal = Journal::open(path);
        journal->record(parts[0], "etag-1");
    }
    std::ofstream(path, std::ios::app) << R"({"path":"/a","partNumber":2,"off)";
    auto journal = Journal::open(path);
    EXPECT_EQ(journal->size(), 1u);
    EXPECT_EQ(contentsOf(path).find("off\""), std::string::npos);
    EXPECT_EQ(contentsOf(path).find("sig=s"), std::string::npos);  // the signature stays out
    EXPECT_EQ(journal->check(parts[0]), Journal::Verdict::done);
    EXPECT_EQ(journal->check(parts[1]), Journal::Verdict::absent);
    PlannedPart changed = parts[0];
    changed.source.mtimeNs += 1;
    EXPECT_EQ(journal->check(changed), Journal::Verdict::sourceChanged);
    changed = parts[0];
    changed.destination = "PUT http://h/elsewhere";
    EXPECT_EQ(journal->check(changed), Journal::Verdict::destinationChanged);
    changed = parts[0];
    changed.key.length = 9;  // same number, other range
    EXPECT_EQ(journal->check(changed), Journal::Verdict::absent);
}

// Parts handed over from several threads at once are each recorded once, and a part is reported
// durable only when its line is already in the file (flushed in groups, never reported early).
TEST(JournalTest, WriterReportsEachPartDurableOnlyOnceItsLineIsWritten) {
    testing::TempDir dir;
    const auto path = dir.path() / "journal";
    auto url = [](uint64_t offset) {
        return *Url::parse("http://h/x?o=" + std::to_string(offset));
    };
    const auto parts = planFileParts("/a", SourceIdentity{1, 2, 240, 3}, 1, url);
    std::mutex mutex;
    std::map<uint64_t, int> durable;
    std::vector<uint64_t> early;  // reported before their line was in the file
    {
        auto journal = Journal::open(path);
        JournalWriter writer(
            *journal,
            [&](const PlannedPart& part) {
                const std::string needle =
                    "\"partNumber\":" + std::to_string(part.key.partNumber) + ",";
                const bool written = contentsOf(path).find(needle) != std::string::npos;
                std::lock_guard lock(mutex);
                ++durable[part.key.partNumber];
                if (!written)
                    early.push_back(part.key.partNumber);
            },
            [](const std::system_error& error) { ADD_FAILURE() << error.what(); });
        std::vector<std::thread> threads;
        for (size_t t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (size_t i = t; i < parts.size(); i += 4) {
                    writer.submit(parts[i], "e" + std::to_string(i));
                    if (i % 50 == 0)
                        writer.flush();
                }
            });
        }
        for (auto& thread : threads)
            thread.join();
        writer.flush();
        std::lock_guard lock(mutex);
        EXPECT_EQ(durable.size(), parts.size());
    }
    EXPECT_TRUE(early.empty()) << early.size() << " reported early, the first " << early.front();
    for (const auto& [number, count] : durable)
        EXPECT_EQ(count, 1) << "part " << number;
    auto reopened = Journal::open(path);
    EXPECT_EQ(reopened->size(), parts.size());
    for (const auto& part : parts)
        EXPECT_EQ(reopened->check(part), Journal::Verdict::done) << part.key.partNumber;
}

TEST(HostOutputTest, UrlsLoseTheirSecretsAndServerTextItsControlCharacters) {
    const std::pair<const char*, const char*> cases[] = {
        {"PUT https://h/a?X-Sig=abc&e=1 failed", "PUT https://h/a?*** failed"},
        {"proxy http://me:pw@p:3128/ and ftp://u@h", "proxy http://***@p:3128/ and ftp://***@h"},
        {"\"https://h/p?t=1#frag\"", "\"https://h/p?***#frag\""},
        {"no url here: a://", "no url here: a://"},
        {"http://h/plain", "http://h/plain"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(redactUrls(text), expected) << text;
    }
    EXPECT_EQ(forTerminal("retry \x1b]0;owned\x07 in\t5\r\n"),
              "retry \\x1B]0;owned\\x07 in\t5\\x0D\\x0A");
    EXPECT_EQ(eventLine("part-failed", R"({"url":"https://h/?sig=1","n":2})"),
              "{\"event\":\"part-failed\",\"url\":\"https://h/?***\",\"n\":2}\n");
    setShowSecrets(true);
    EXPECT_EQ(redactUrls("https://u:p@h/?s=1"), "https://u:p@h/?s=1");
    setShowSecrets(false);
}

TEST(HostRoundsTest, OnlyPassingFailuresAreWorthAnotherRound) {
    auto error = [](const std::string& domain, int64_t code, const std::string& message = "m") {
        return std::make_shared<const ErrorMessage>(domain, code, message, std::nullopt);
    };
    const auto exceeded = error("PellorinClient", 1, "Exceeded retry count: 3");
    const auto busy =
        error("PellorinClient", 4,
              "Remote server wants to retry after: 7.5 seconds, HTTP status code: 503");
    const struct {
        std::vector<std::shared_ptr<const ErrorMessage>> errors;
        bool retryable;
        double wait;
    } cases[] = {
        {{error("URLErrorDomain", URLError::cannotConnectToHost), exceeded}, true, 0},
        {{error("URLErrorDomain", URLError::networkConnectionLost)}, true, 0},
        {{busy, exceeded}, true, 7.5},
        {{error("POSIXErrorDomain", EMFILE), exceeded}, true, 0},
        {{error("PellorinClient", 5, "unhandled HTTP response code of: 404")}, false, 0},
        {{error("PellorinClient", 2), exceeded}, false, 0},  // checksum mismatch
        {{error("PellorinClient", 3)}, false, 0},            // no checksum
        {{error("URLErrorDomain", URLError::serverCertificateUntrusted), exceeded}, false, 0},
        {{error("URLErrorDomain", URLError::cancelled)}, false, 0},
        {{error("POSIXErrorDomain", ENOENT)}, false, 0},
        {{}, false, 0},
    };
    for (const auto& c : cases) {
        const auto verdict = judgeFailure(c.errors);
        const std::string first = c.errors.empty() ? "none" : c.errors[0]->message();
        EXPECT_EQ(verdict.retryable, c.retryable) << first;
        EXPECT_EQ(verdict.retryAfterSecs, c.wait) << first;
    }
    EXPECT_EQ(roundWait(2, 0), 1.0);
    EXPECT_EQ(roundWait(4, 0), 4.0);
    EXPECT_EQ(roundWait(30, 0), 60.0);
    EXPECT_EQ(roundWait(2, 7.5), 7.5);
    EXPECT_EQ(roundWait(2, 3600), 60.0);
}

TEST(HostNetworkTest, ProxyAndTrustComeFromTheEnvironmentAsCurlReadsIt) {
    std::map<std::string, std::string> variables;
    const Environment environment = [&](const char* name) -> std::optional<std::string> {
        const auto it = variables.find(name);
        return it == variables.end() ? std::nullopt : std::optional(it->second);
    };
    const Url http = *Url::parse("http://up.example.com/a");
    const Url https = *Url::parse("https://up.example.com/a");
    NetworkOptions none;
    variables = {{"HTTP_PROXY", "http://caps:1"}};
    EXPECT_EQ(proxyFor(http, none, environment), std::nullopt);  // capitals ignored for http
    variables = {{"http_proxy", "http://p:1"}, {"HTTPS_PROXY", "http://s:2"}};
    EXPECT_EQ(proxyFor(http, none, environment), "http://p:1");
    EXPECT_EQ(proxyFor(https, none, environment), "http://s:2");
    variables = {{"ALL_PROXY", "http://all:3"}, {"no_proxy", "localhost, .example.com"}};
    EXPECT_EQ(proxyFor(https, none, environment), std::nullopt);
    EXPECT_EQ(proxyFor(*Url::parse("https://example.community/"), none, environment),
              "http://all:3");
    variables = {{"https_proxy", "http://s:2"}, {"NO_PROXY", "*"}};
    EXPECT_EQ(proxyFor(https, none, environment), std::nullopt);
    NetworkOptions given;
    given.proxy = "";
    variables = {{"https_proxy", "http://s:2"}};
    EXPECT_EQ(proxyFor(https, given, environment), std::nullopt);

    testing::TempDir dir;
    const auto bundle = dir.makeFile("ca.pem", 10, 1).string();
    variables = {{"SSL_CERT_FILE", bundle},
                 {"SSL_CERT_DIR", dir.path().string()},
                 {"https_proxy", "127.0.0.1:3128"}};
    const auto configuration = resolveSessionConfiguration(none, {https}, environment);
    EXPECT_EQ(configuration.caFile, bundle);
    EXPECT_EQ(configuration.caDirectory, dir.path().string());
    EXPECT_EQ(configuration.proxy, "http://127.0.0.1:3128");
    variables = {{"https_proxy", "http://s:2"}, {"no_proxy", "other.org"}};
    EXPECT_THROW(
        resolveSessionConfiguration(none, {https, *Url::parse("https://other.org/")}, environment),
        InputError);
    variables = {{"CURL_CA_BUNDLE", (dir.path() / "missing.pem").string()}};
    EXPECT_THROW(resolveSessionConfiguration(none, {https}, environment), InputError);
}

TEST(HostTemplateTest, PlaceholdersAreFilledPerPart) {
    EXPECT_EQ(expandUrlTemplate("http://h/{name}/{part}?o={offset}&n={length}", 3, 20, 5, "a b"),
              "http://h/a%20b/3?o=20&n=5");
    EXPECT_THROW(expandUrlTemplate("http://h/{size}", 1, 0, 1, "a"), InputError);
    testing::TempDir dir;
    const auto file = dir.makeFile("f.bin", 25, 1).string();
    const auto parts = planTemplateParts(file, "http://h/{part}", 10, "POST", {"X-Token:  t"});
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(parts[2].url.absoluteString(), "http://h/3");
    EXPECT_EQ(parts[2].method, "POST");
    EXPECT_EQ(parts[2].headers->at("X-Token"), "t");
    for (const auto& [urlTemplate, method, header] :
         {std::tuple{"http://h/same", "PUT", "X-A: 1"},
          std::tuple{"http://h/{part}", "PATCH", "X-A: 1"},
          std::tuple{"http://h/{part}", "PUT", "Host: h"},
          std::tuple{"http://h/{part}", "PUT", "nocolon"},
          std::tuple{"ftp://h/{part}", "PUT", "X-A: 1"}}) {
        EXPECT_THROW(planTemplateParts(file, urlTemplate, 10, method, {header}), InputError)
            << urlTemplate << " " << method << " " << header;
    }
}

// A line that is not JSON is among the host's end-to-end cases.
TEST(JournalTest, BadJournalsAreRefusedWithTheirPlace) {
    testing::TempDir dir;
    const auto negative = dir.path() / "negative";
    std::ofstream(negative) << R"({"path":"/a","partNumber":1,"offset":-1,"length":5})"
                            << "\n";
    EXPECT_EQ(errorOf(negative), negative.string() + ":1: not a journal entry");

    EXPECT_NE(errorOf(dir.path() / "missing" / "journal").find("cannot open journal"),
              std::string::npos);

    const auto shared = dir.path() / "shared";
    auto holder = Journal::open(shared);
    EXPECT_EQ(errorOf(shared), "journal " + shared.string() + " is in use by another run");
}

}  // namespace
}  // namespace pellorin::host
