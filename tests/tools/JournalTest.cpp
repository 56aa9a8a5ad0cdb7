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
