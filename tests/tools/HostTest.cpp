// The host's pieces: sizes typed on the command line, the progress line, the parts a file is cut
// into, the counters and journal entries the transfer observer keeps, and the journal itself:
// what a run records is what the next run skips, whatever a crash left at the end of the file.
#include <gtest/gtest.h>

#include <pellorin/PellorinClient.h>

#include <fstream>
#include <sstream>

#include "pellorin/HostError.h"
#include "pellorin/Journal.h"
#include "pellorin/PartPlan.h"
#include "pellorin/ProgressLine.h"
#include "pellorin/TransferObserver.h"
#include "pellorin/Units.h"
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
    EXPECT_EQ(parseByteSize("8MiB"), 8u << 20);
    EXPECT_EQ(parseByteSize("1.5KiB"), 1536u);
    EXPECT_EQ(parseByteSize("100KB"), 100000u);
    EXPECT_EQ(parseByteSize("18446744073709551615"), UINT64_MAX);
    for (const char* bad :
         {"", "MiB", "-1", "8XB", "1.5.5", "18446744073709551616", "16EiB", "20000000TiB"}) {
        EXPECT_FALSE(parseByteSize(bad).has_value()) << bad;
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
    const auto parts = planFileParts("/d/f", 25, 10, url);
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(parts[2].key, (PartKey{"/d/f", 3, 20, 5}));
    EXPECT_EQ(parts[2].url.absoluteString(), "http://h/x?o=20");
    EXPECT_EQ(totalLength(parts), 25u);
    const auto empty = planFileParts("/d/e", 0, 10, url);
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_EQ(empty[0].key.length, 0u);
    EXPECT_THROW(planFileParts("/d/f", 25, 0, url), InputError);
    EXPECT_THROW(planFileParts("/d/f", kMaxPlannedParts + 1, 1, url), InputError);
}

TEST(HostUnitsTest, ObserverCountsEachPartOnceAndJournalsIt) {
    testing::TempDir dir;
    auto url = [](uint64_t) { return *Url::parse("http://h/x"); };
    const auto parts = planFileParts("/d/f", 300, 100, url);
    ProgressCounters counters(300, 3);
    auto journal = Journal::open(dir.path() / "journal");
    auto line = std::make_shared<StatusLine>(stderr, false);
    TransferObserver observer(parts, counters, line, journal.get());
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
    EXPECT_EQ(counters.partsDone, 1u);
    observer.pellorinClientPartDidFail(
        *client,
        std::make_shared<PartFailureMessage>("/d/f", 2, *Url::parse("http://h/x"),
                                             std::vector<std::shared_ptr<const ErrorMessage>>{}));
    EXPECT_EQ(counters.doneBytes, 100u);
    EXPECT_EQ(counters.partsFailed, 1u);
    EXPECT_EQ(counters.sentBytes, 240u);
    EXPECT_TRUE(journal->contains(parts[0].key));
    EXPECT_FALSE(journal->contains(parts[1].key));
}

// A crash may leave half a line at the end: it is dropped, and the next entry starts a line.
TEST(JournalTest, RecordedPartsAreFoundByTheNextRunWhateverACrashLeftBehind) {
    testing::TempDir dir;
    const auto path = dir.path() / "journal";
    std::ofstream(path) << R"({"path":"/a","partNumber":1,"offset":0,"length":5,"eTag":"x"})"
                        << "\n"
                        << R"({"path":"/a","partNumber":2,"off)";
    {
        auto journal = Journal::open(path);
        EXPECT_EQ(journal->size(), 1u);
        journal->record(PartKey{"/a", 3, 10, 5}, "etag-3");
    }
    auto journal = Journal::open(path);
    EXPECT_EQ(journal->size(), 2u);
    EXPECT_TRUE(journal->contains(PartKey{"/a", 1, 0, 5}));
    EXPECT_TRUE(journal->contains(PartKey{"/a", 3, 10, 5}));
    EXPECT_FALSE(journal->contains(PartKey{"/a", 3, 10, 6}));  // same number, other range
    EXPECT_EQ(contentsOf(path).find("off\""), std::string::npos);
    EXPECT_NE(contentsOf(path).find(R"("eTag":"etag-3")"), std::string::npos);
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
