#include <pellorin/FilePartRequest.h>

#include <gtest/gtest.h>

namespace pellorin {
namespace {

std::shared_ptr<FilePartRequest> requestFor(const std::string& path, uint64_t partNumber = 1) {
    return FilePartRequest::make(path, partNumber, 0, 10, *Url::parse("http://127.0.0.1/u"), "PUT");
}

TEST(FilePartRequest, HeaderArrayConversion) {
    using Array = FilePartRequest::HeadersArray;
    EXPECT_EQ(FilePartRequest::headersFromArray(
                  Array{{{"name", "A"}, {"value", "1"}}, {{"name", "A"}, {"value", "2"}}}),
              (FilePartRequest::Headers{{"A", "2"}}));
    EXPECT_EQ(FilePartRequest::headersFromArray(Array{{{"name", "OnlyName"}},
                                                      {{"value", "only value"}},
                                                      {{"name", "B"}, {"value", "x"}, {"z", "y"}}}),
              (FilePartRequest::Headers{{"B", "x"}}));
    EXPECT_TRUE(FilePartRequest::headersFromArray(std::nullopt).empty());

    const Url url = *Url::parse("http://127.0.0.1/u");
    auto fromNoArray =
        FilePartRequest::makeWithHeadersArray("f", 1, 0, 1, url, "PUT", std::nullopt);
    ASSERT_TRUE(fromNoArray->headers().has_value());
    EXPECT_TRUE(fromNoArray->headers()->empty());
    EXPECT_FALSE(FilePartRequest::make("f", 1, 0, 1, url, "PUT")->headers().has_value());
}

TEST(FilePartRequest, FileNameAndDescription) {
    EXPECT_EQ(requestFor("/data/in/movie.mov")->fileName(), "movie.mov");
    EXPECT_EQ(requestFor("movie.mov")->fileName(), "movie.mov");
    EXPECT_EQ(requestFor("/data/in/")->fileName(), "");
    EXPECT_EQ(requestFor("/data/in/movie.mov", 3)->debugDescription(),
              "FilePart (filePath: movie.mov, partNumber: 3)");
}

TEST(FilePartRequest, AttemptStateStartsEmptyAndAccumulates) {
    auto request = requestFor("/x");
    EXPECT_EQ(request->retryCount(), 0u);
    EXPECT_TRUE(request->errors().empty());
    request->setRetryCount(2);
    request->appendError(PellorinError::noRemoteChecksum());
    request->appendError(PellorinError::retryAfter(503, 1.5));
    EXPECT_EQ(request->retryCount(), 2u);
    ASSERT_EQ(request->errors().size(), 2u);
    EXPECT_EQ(request->errors()[1].kind(), PellorinError::Kind::retryAfter);
}

TEST(HTTPMethodType, RawValuesAreExactAndCaseSensitive) {
    for (auto method : {HTTPMethodType::OPTIONS, HTTPMethodType::GET, HTTPMethodType::HEAD,
                        HTTPMethodType::POST, HTTPMethodType::PUT, HTTPMethodType::DELETE,
                        HTTPMethodType::TRACE, HTTPMethodType::CONNECT}) {
        EXPECT_EQ(httpMethodTypeFromRawValue(rawValue(method)), method);
    }
    EXPECT_STREQ(rawValue(HTTPMethodType::DELETE), "DELETE");
    EXPECT_FALSE(httpMethodTypeFromRawValue("PATCH"));
    EXPECT_FALSE(httpMethodTypeFromRawValue("get"));
    EXPECT_FALSE(httpMethodTypeFromRawValue(""));
}

}  // namespace
}  // namespace pellorin
