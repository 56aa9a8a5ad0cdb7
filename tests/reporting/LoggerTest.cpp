// The Logger value, lazy evaluation, levels, the module rule, the multiplex handler and the
// process-wide logging system, observed through recording handlers.
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pellorin/Logging.h>

#include "support/RecordingLogHandler.h"

namespace pellorin {
namespace {

using testing::LogRecord;
using testing::RecordingLogHandler;
using Level = Logger::Level;

TEST(Logger, FilteredEntriesAreNeverEvaluated) {
    auto record = std::make_shared<LogRecord>();
    const Logger logger("lazy", RecordingLogHandler::factory(record, Level::info));
    int messages = 0;
    int metadata = 0;
    const auto message = [&] { return "m" + std::to_string(++messages); };
    const auto meta = [&] { return Logger::Metadata{{"n", std::to_string(++metadata)}}; };

    logger.trace(message, meta);
    logger.debug(message);
    logger.log(Level::debug, message, meta, "Sources", "F", "f", 1);
    EXPECT_EQ(messages, 0);
    EXPECT_EQ(metadata, 0);

    logger.info(message);
    logger.notice(message, meta);
    logger.critical(message);
    EXPECT_EQ(messages, 3);
    EXPECT_EQ(metadata, 1);
    EXPECT_EQ(record->messages(), (std::vector<std::string>{"m1", "m2", "m3"}));
}

TEST(Logger, RecordsSourceFileFunctionAndLine) {
    auto record = std::make_shared<LogRecord>();
    const Logger logger("where", RecordingLogHandler::factory(record));
    const auto line = __LINE__ + 1;
    logger.warning("implicit");  // explicit places are pinned through the progress reporter

    const auto entries = record->entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].label, "where");
    EXPECT_EQ(entries[0].source, "reporting");
    EXPECT_EQ(entries[0].file, __FILE__);
    EXPECT_NE(entries[0].function.find("TestBody"), std::string::npos);
    EXPECT_EQ(entries[0].line, line);
}

TEST(Logger, CopiesCloneTheHandler) {
    auto record = std::make_shared<LogRecord>();
    Logger original("copy", RecordingLogHandler::factory(record, Level::info));
    Logger copy = original;
    copy.setLogLevel(Level::error);
    copy.setMetadataValue("k", "v");
    EXPECT_EQ(original.logLevel(), Level::info);
    EXPECT_FALSE(original.metadataValue("k").has_value());
    original.info("both handlers share the record");
    copy.error("so this one lands there too");
    EXPECT_EQ(record->count(), 2u);
}

TEST(Logger, LevelTextsAndModuleRule) {
    for (auto level : {Level::trace, Level::debug, Level::info, Level::notice, Level::warning,
                       Level::error, Level::critical}) {
        EXPECT_EQ(parseLevel(toString(level)), level);
    }
    EXPECT_FALSE(parseLevel("Info").has_value());

    EXPECT_EQ(Logger::currentModule("a.txt"), "n/a");
    EXPECT_EQ(Logger::currentModule("y/z.txt"), "n/a");
    EXPECT_EQ(Logger::currentModule("x/y/z.txt"), "y");
    EXPECT_EQ(Logger::currentModule("/a/Sources/LoggingProgressReporter.cpp"), "Sources");
}

std::unique_ptr<MultiplexLogHandler> multiplexOf(std::shared_ptr<LogRecord> first, Level level1,
                                                 std::shared_ptr<LogRecord> second, Level level2) {
    std::vector<std::unique_ptr<LogHandler>> handlers;
    handlers.push_back(std::make_unique<RecordingLogHandler>(first, "", level1));
    handlers.push_back(std::make_unique<RecordingLogHandler>(second, "", level2));
    return std::make_unique<MultiplexLogHandler>(std::move(handlers));
}

TEST(MultiplexLogHandler, RoutesByEachHandlersLevel) {
    auto errors = std::make_shared<LogRecord>();
    auto debugs = std::make_shared<LogRecord>();
    Logger logger("mux", multiplexOf(errors, Level::error, debugs, Level::debug));
    EXPECT_EQ(logger.logLevel(), Level::debug);

    logger.warning("warning");
    logger.trace("trace");
    EXPECT_EQ(errors->count(), 0u);
    EXPECT_EQ(debugs->messages(), std::vector<std::string>{"warning"});

    logger.setLogLevel(Level::critical);
    logger.error("error");
    EXPECT_EQ(errors->count() + debugs->count(), 1u);
}

TEST(MultiplexLogHandler, EarliestHandlerWinsMetadataKeys) {
    auto record = std::make_shared<LogRecord>();
    auto multiplex = multiplexOf(record, Level::info, record, Level::info);
    multiplex->handlers()[0]->setMetadata({{"a", "1"}, {"b", "1"}});
    multiplex->handlers()[1]->setMetadata({{"b", "2"}, {"c", "2"}});
    EXPECT_EQ(multiplex->metadata(), (Logger::Metadata{{"a", "1"}, {"b", "1"}, {"c", "2"}}));
    EXPECT_EQ(multiplex->metadataValue("b"), Logger::MetadataValue("1"));

    multiplex->setMetadataValue("b", "set");
    EXPECT_EQ(multiplex->handlers()[1]->metadataValue("b"), Logger::MetadataValue("set"));
    multiplex->setMetadata({{"z", "0"}});
    EXPECT_EQ(multiplex->handlers()[1]->metadata(), (Logger::Metadata{{"z", "0"}}));
}

// The process-wide logging system, bootstrapped in a death-test child so that the test process
// itself never bootstraps.
TEST(LoggingSystemTest, LoggerMadeBeforeBootstrapKeepsItsHandler) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
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

}  // namespace
}  // namespace pellorin
