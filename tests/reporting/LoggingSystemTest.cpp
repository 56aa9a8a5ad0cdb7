// The process-wide logging system. Each case that bootstraps runs in a death-test child, so the
// test process itself never bootstraps.
#include <cstdlib>
#include <memory>

#include <gtest/gtest.h>
#include <pellorin/Logging.h>

#include "support/RecordingLogHandler.h"

namespace pellorin {
namespace {

class LoggingSystemTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(LoggingSystemTest, DefaultsToStandardOutputAtInfo) {
    const Logger logger("default");
    const auto* handler = dynamic_cast<const StreamLogHandler*>(&logger.handler());
    ASSERT_NE(handler, nullptr);
    EXPECT_EQ(handler->stream().file(), stdout);
    EXPECT_EQ(handler->stream().flushMode(), StdioOutputStream::FlushMode::always);
    EXPECT_EQ(StreamLogHandler::standardError("x").stream().file(), stderr);
    EXPECT_EQ(handler->label(), "default");
    EXPECT_EQ(logger.logLevel(), Logger::Level::info);
}

TEST_F(LoggingSystemTest, SecondBootstrapIsFatal) {
    EXPECT_DEATH(
        {
            LoggingSystem::bootstrap(
                [](const std::string&) { return std::make_unique<NoOpLogHandler>(); });
            LoggingSystem::bootstrap(
                [](const std::string&) { return std::make_unique<NoOpLogHandler>(); });
        },
        "Fatal error: .*once");
}

TEST_F(LoggingSystemTest, LoggerMadeBeforeBootstrapKeepsItsHandler) {
    EXPECT_EXIT(
        {
            const Logger before("before");
            auto record = std::make_shared<testing::LogRecord>();
            LoggingSystem::bootstrap(testing::RecordingLogHandler::factory(record));
            const Logger after("after");
            after.info("recorded");
            const bool ok = dynamic_cast<const StreamLogHandler*>(&before.handler()) != nullptr &&
                            record->count() == 1 && record->entries()[0].label == "after";
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(LoggingSystemTest, EmptyMultiplexAndNullHandlerAreFatal) {
    EXPECT_DEATH(MultiplexLogHandler({}), "Fatal error");
    EXPECT_DEATH(Logger("null", std::unique_ptr<LogHandler>()), "Fatal error");
}

}  // namespace
}  // namespace pellorin
