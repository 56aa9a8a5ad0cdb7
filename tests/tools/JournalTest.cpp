// The journal of completed parts: what a run records is what the next run skips, whatever a
// crash left at the end of the file.
#include "pellorin/Journal.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "pellorin/HostError.h"
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

TEST(JournalTest, RecordedPartsAreFoundByTheNextRun) {
    testing::TempDir dir;
    const auto path = dir.path() / "journal";
    const PartKey first{"/data/a.bin", 1, 0, 100};
    const PartKey second{"/data/a.bin", 2, 100, 50};
    {
        auto journal = Journal::open(path);
        EXPECT_EQ(journal->size(), 0u);
        journal->record(first, "etag-1");
        journal->record(second, "etag-2");
    }
    auto journal = Journal::open(path);
    EXPECT_EQ(journal->size(), 2u);
    EXPECT_TRUE(journal->contains(first));
    EXPECT_TRUE(journal->contains(second));
    // Same part number, other range: another part.
    EXPECT_FALSE(journal->contains(PartKey{"/data/a.bin", 2, 100, 51}));
    EXPECT_EQ(contentsOf(path).find(R"("eTag":"etag-1")") != std::string::npos, true);
}

TEST(JournalTest, TornLastLineIsDroppedAndLaterEntriesStartOnTheirOwnLine) {
    testing::TempDir dir;
    const auto path = dir.path() / "journal";
    std::ofstream(path) << R"({"path":"/a","partNumber":1,"offset":0,"length":5,"eTag":"x"})"
                        << "\n"
                        << R"({"path":"/a","partNumber":2,"off)";
    {
        auto journal = Journal::open(path);
        EXPECT_EQ(journal->size(), 1u);
        journal->record(PartKey{"/a", 3, 10, 5}, "z");
    }
    auto journal = Journal::open(path);
    EXPECT_EQ(journal->size(), 2u);
    EXPECT_TRUE(journal->contains(PartKey{"/a", 3, 10, 5}));
    EXPECT_EQ(contentsOf(path).find("off\""), std::string::npos);
}

TEST(JournalTest, BadJournalsAreRefusedWithTheirPlace) {
    testing::TempDir dir;
    const auto corrupt = dir.path() / "corrupt";
    std::ofstream(corrupt) << R"({"path":"/a","partNumber":1,"offset":0,"length":5})"
                           << "\nnot json\n";
    EXPECT_EQ(errorOf(corrupt), corrupt.string() + ":2: not a journal entry");

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
