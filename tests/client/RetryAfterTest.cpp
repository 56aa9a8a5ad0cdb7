// The "Retry-After" value is read the way strtod reads it in the C locale, whatever locale the
// process runs in, and only a whole, finite number is a wait.
#include "client/RetryAfter.h"

#include <gtest/gtest.h>

#include <clocale>
#include <optional>
#include <string>
#include <utility>

namespace pellorin::client {
namespace {

TEST(RetryAfter, ReadsWholeFiniteNumbersAsStrtodDoesInTheCLocale) {
    const std::pair<std::string, double> waits[] = {
        {"30", 30.0}, {"1.5", 1.5},    {"+2", 2.0},    {"-5", -5.0},     {".5", 0.5},
        {"5.", 5.0},  {"1e3", 1000.0}, {"0x10", 16.0}, {"0X1.8p1", 3.0}, {"-0x10", -16.0},
        {"0", 0.0},   {"1e-400", 0.0},  // an underflow reads as 0, as strtod reads it
    };
    const char* refused[] = {"1e999", "inf", "-infinity", "nan",
                             "0x",    " 30", "30 ",       "30s",
                             "1,5",   "+-1", "",          "Wed, 21 Oct 2015 07:28:00 GMT"};
    // A locale whose decimal mark is a comma must change nothing.
    const std::string saved = std::setlocale(LC_NUMERIC, nullptr);
    const bool commaLocale = std::setlocale(LC_NUMERIC, "de_DE.UTF-8") != nullptr;
    for (const auto& [text, seconds] : waits) {
        EXPECT_EQ(parseRetryAfterSeconds(text), seconds)
            << text << " comma locale: " << commaLocale;
    }
    for (const char* text : refused) {
        EXPECT_EQ(parseRetryAfterSeconds(text), std::nullopt) << text;
    }
    EXPECT_EQ(parseRetryAfterSeconds(std::string{'1', '\0', '2'}), std::nullopt);
    std::setlocale(LC_NUMERIC, saved.c_str());
}

}  // namespace
}  // namespace pellorin::client
