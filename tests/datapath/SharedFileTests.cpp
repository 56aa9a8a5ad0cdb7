#include "datapath/SharedFile.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "TempFiles.h"

namespace pellorin {
namespace {

using testing::patternBytes;
using testing::TempFiles;

// Runs `read` and returns the SharedFileError it throws (fails the test when none is thrown).
template <typename F>
SharedFileError thrownBy(F&& read) {
    try {
        read();
    } catch (const SharedFileError& error) {
        return error;
    }
    ADD_FAILURE() << "no SharedFileError thrown";
    return SharedFileError{.kind = SharedFileError::Kind::CouldNotDetermineFileSize};
}

TEST(SharedFile, RangeEdges) {
    TempFiles temp;
    SharedFile empty(temp.write("empty", {}));
    EXPECT_EQ(empty.fileSize(), 0u);
    uint8_t byte = 0;
    EXPECT_EQ(thrownBy([&] { empty.read(&byte, 0, 0); }).kind, SharedFileError::Kind::SeekPastEnd);
    EXPECT_EQ(thrownBy([&] { empty.read(0, 1); }).kind, SharedFileError::Kind::SeekPastEnd);

    const auto bytes = patternBytes(10);
    SharedFile file(temp.write("ten", bytes));
    EXPECT_EQ(file.read(&byte, 9, 1), 1);
    EXPECT_EQ(byte, bytes[9]);

    const SharedFileError atEnd = thrownBy([&] { file.read(&byte, 10, 1); });
    EXPECT_EQ(atEnd.kind, SharedFileError::Kind::SeekPastEnd);
    EXPECT_EQ(atEnd.offset, 10u);
    EXPECT_EQ(atEnd.fileSize, 10u);

    uint8_t two[2];
    const SharedFileError pastEnd = thrownBy([&] { file.read(two, 9, 2); });
    EXPECT_EQ(pastEnd.kind, SharedFileError::Kind::ReadPastEnd);
    EXPECT_EQ(pastEnd.description(), "ReadPastEnd(offset: 9, length: 2, fileSize: 10)");

    auto middle = file.read(3, 4);
    ASSERT_TRUE(middle);
    EXPECT_EQ(*middle, std::vector<uint8_t>(bytes.begin() + 3, bytes.begin() + 7));
    EXPECT_FALSE(file.read(3, 0));  // nothing read: no data
}

TEST(SharedFile, OpenFailures) {
    TempFiles temp;
    const SharedFileError missing = thrownBy([&] { SharedFile file(temp.path("missing")); });
    EXPECT_EQ(missing.kind, SharedFileError::Kind::IO);
    EXPECT_EQ(missing.errnoValue, ENOENT);

    const SharedFileError directory = thrownBy([&] { SharedFile file(temp.path("")); });
    EXPECT_EQ(directory.kind, SharedFileError::Kind::IO);
    EXPECT_EQ(directory.errnoValue, EISDIR);
}

TEST(SharedFile, ReferencesCountStreamsAndDescriptorLivesWithTheObject) {
    TempFiles temp;
    int fd;
    {
        SharedFile file(temp.write("f", patternBytes(4)));
        file.open();
        file.open();
        file.close();
        EXPECT_EQ(file.refCount(), 1u);
        file.close();
        EXPECT_EQ(file.refCount(), 0u);
        fd = file.fd();
        EXPECT_NE(::fcntl(fd, F_GETFD), -1);  // close() leaves the descriptor open
    }
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(SharedFileDeathTest, CountBelowZeroIsFatal) {
    TempFiles temp;
    SharedFile file(temp.write("f", patternBytes(4)));
    EXPECT_DEATH(file.close(), "Fatal error: SharedFile reference count below zero");
}

}  // namespace
}  // namespace pellorin
