// ConsoleLogger: a LoggerWrapper whose logger is made by label through the logging system, so it
// gets whatever handler LoggingSystem::bootstrap chose (standard output by default).
#pragma once

#include <string>

#include <pellorin/Export.h>
#include <pellorin/LoggerWrapper.h>
#include <pellorin/Logging.h>

namespace pellorin {

class PELLORIN_EXPORT ConsoleLogger : public LoggerWrapper {
  public:
    ConsoleLogger() = delete;
    // Makes the logger once, as Logger(label). Any thread.
    explicit ConsoleLogger(std::string label);

    const Logger& logger() const override { return logger_; }

  private:
    const Logger logger_;
};

}  // namespace pellorin
