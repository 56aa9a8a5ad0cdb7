#include <pellorin/Logging.h>

#include "Platform/Fatal.h"
#include "datapath/ReadWriteLock.h"

namespace pellorin {

namespace {

// The process-wide state; `lock` guards the other two fields.
struct SystemState {
    ReadWriteLock lock;
    Logger::HandlerFactory factory = [](const std::string& label) {
        return std::make_unique<StreamLogHandler>(StreamLogHandler::standardOutput(label));
    };
    bool bootstrapped = false;
};

SystemState& state() {
    static SystemState instance;
    return instance;
}

}  // namespace

void LoggingSystem::bootstrap(Logger::HandlerFactory factory) {
    if (!factory) {
        fatalError("LoggingSystem.bootstrap needs a handler factory, but an empty one was given");
    }
    SystemState& system = state();
    ReadWriteLock::WriteGuard guard(system.lock);
    if (system.bootstrapped) {
        fatalError("logging system can only be bootstrapped once per process");
    }
    system.factory = std::move(factory);
    system.bootstrapped = true;
}

Logger::HandlerFactory LoggingSystem::factory() {
    SystemState& system = state();
    // The factory is copied under the lock and called outside it, so that a factory may itself
    // create loggers.
    ReadWriteLock::ReadGuard guard(system.lock);
    return system.factory;
}

}  // namespace pellorin
