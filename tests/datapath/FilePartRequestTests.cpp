#include <pellorin/FilePartRequest.h>

#include <gtest/gtest.h>

namespace pellorin {
namespace {

const Url kUrl = *Url::parse("http://127.0.0.1/u");

TEST(FilePartRequest, HeaderArrayConversion) {
    using Array = FilePartRequest::HeadersArray;
    EXPECT_EQ(FilePartRequest::headersFromArray(
                  Array{{{"name", "A"}, {"value", "1"}}, {{"name", "A"}, {"value", "2"}}}),
              (FilePartRequest::Headers{{"A", "2"}}));
    EXPECT_EQ(FilePartRequest::headersFromArray(Array{{{"name", "OnlyName"}},
                                                      {{"value", "only value"}},
                                                      {{"name", "B"}, {"value", "x"}, {"z", "y"}}}),
              (FilePartRequest::Headers{{"B", "x"}}));

    auto fromNoArray = FilePartRequest::makeWithHeadersArray("f", 1, 0, 1, kUrl, "PUT", {});
    ASSERT_TRUE(fromNoArray->headers().has_value());
    EXPECT_TRUE(fromNoArray->headers()->empty());
    auto fromNoDictionary = FilePartRequest::make("f", 1, 0, 1, kUrl, "PUT");
    EXPECT_FALSE(fromNoDictionary->headers().has_value());
    EXPECT_EQ(fromNoDictionary->retryCount(), 0u);
    EXPECT_TRUE(fromNoDictionary->errors().empty());
}

TEST(FilePartRequest, FileNameAndDescription) {
    auto fileName = [](const std::string& path) {
        return FilePartRequest::make(path, 3, 0, 1, kUrl, "PUT")->fileName();
    };
    EXPECT_EQ(fileName("/data/in/movie.mov"), "movie.mov");
    EXPECT_EQ(fileName("movie.mov"), "movie.mov");
    EXPECT_EQ(fileName("/data/in/"), "");
    EXPECT_EQ(FilePartRequest::make("/data/in/movie.mov", 3, 0, 1, kUrl, "PUT")->debugDescription(),
              "FilePart (filePath: movie.mov, partNumber: 3)");
}

TEST(HTTPMethodType, RawValuesAreExactAndCaseSensitive) {
    const char* names[] = {"OPTIONS", "GET", "HEAD", "POST", "PUT", "DELETE", "TRACE", "CONNECT"};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(httpMethodTypeFromRawValue(names[i]), static_cast<HTTPMethodType>(i));
        EXPECT_STREQ(rawValue(static_cast<HTTPMethodType>(i)), names[i]);
    }
    EXPECT_FALSE(httpMethodTypeFromRawValue("PATCH"));
    EXPECT_FALSE(httpMethodTypeFromRawValue("get"));
}

}  // namespace
}  // namespace pellorin
