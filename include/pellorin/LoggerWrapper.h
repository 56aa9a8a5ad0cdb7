// LoggerWrapper: anything that can supply a Logger, so that a host which cannot build a Logger
// itself can hand one to the library (a ConsoleLogger, for instance).
#pragma once

#include <pellorin/Export.h>
#include <pellorin/Logging.h>

namespace pellorin {

class PELLORIN_EXPORT LoggerWrapper {
  public:
    virtual ~LoggerWrapper() = default;
    // The supplied logger; callers that keep it take a copy. Any thread.
    virtual const Logger& logger() const = 0;

  protected:
    LoggerWrapper() = default;
    LoggerWrapper(const LoggerWrapper&) = default;
    LoggerWrapper& operator=(const LoggerWrapper&) = default;
};

}  // namespace pellorin
