#include "datapath/SharedFile.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "FileBytes.h"
#include "support/TempDir.h"

namespace pellorin {
namespace {

using testing::fileBytes;
using testing::TempDir;

// The SharedFileError that `action` throws (a failure when it throws none).
template <typename F>
SharedFileError thrownBy(F&& action) {
    try {
        action();
    } catch (const SharedFileError& error) {
        return error;
    }
    ADD_FAILURE() << "no SharedFileError thrown";
    return {};
}

TEST(SharedFile, RangeEdges) {
    TempDir temp;
    SharedFile empty(temp.makeFile("empty", 0, 1));
    uint8_t bytes[2];
    EXPECT_EQ(thrownBy([&] { empty.read(bytes, 0, 0); }).kind, SharedFileError::Kind::SeekPastEnd);
    EXPECT_EQ(thrownBy([&] { empty.read(0, 1); }).kind, SharedFileError::Kind::SeekPastEnd);

    const auto path = temp.makeFile("ten", 10, 1);
    const auto content = fileBytes(path);
    SharedFile file(path);
    EXPECT_EQ(file.read(bytes, 9, 1), 1);
    EXPECT_EQ(bytes[0], content[9]);
    EXPECT_EQ(thrownBy([&] { file.read(bytes, 10, 1); }).description(),
              "SeekPastEnd(offset: 10, fileSize: 10)");
    EXPECT_EQ(thrownBy([&] { file.read(bytes, 9, 2); }).description(),
              "ReadPastEnd(offset: 9, length: 2, fileSize: 10)");
    EXPECT_EQ(file.read(3, 4), std::vector<uint8_t>(content.begin() + 3, content.begin() + 7));
    EXPECT_FALSE(file.read(3, 0));  // nothing read: no data
}

TEST(SharedFile, OpenFailures) {
    TempDir temp;
    const SharedFileError missing = thrownBy([&] { SharedFile file(temp.path() / "missing"); });
    EXPECT_EQ(missing.kind, SharedFileError::Kind::IO);
    EXPECT_EQ(missing.errnoValue, ENOENT);
    EXPECT_EQ(thrownBy([&] { SharedFile file(temp.path()); }).errnoValue, EISDIR);
}

TEST(SharedFile, ReferencesCountStreamsAndDescriptorLivesWithTheObject) {
    TempDir temp;
    int fd;
    {
        SharedFile file(temp.makeFile("f", 4, 1));
        file.open();
        file.open();
        file.close();
        EXPECT_EQ(file.refCount(), 1u);
        file.close();
        fd = file.fd();
        EXPECT_NE(::fcntl(fd, F_GETFD), -1);  // close() leaves the descriptor open
    }
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

}  // namespace
}  // namespace pellorin
