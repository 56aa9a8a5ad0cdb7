#include <pellorin/ConsoleLogger.h>

namespace pellorin {

ConsoleLogger::ConsoleLogger(std::string label) : logger_(std::move(label)) {}

}  // namespace pellorin
