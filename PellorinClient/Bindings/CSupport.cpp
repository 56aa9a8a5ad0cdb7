#include "Bindings/CSupport.h"

#include <utility>

namespace pellorin::bindings {

namespace {
thread_local std::string lastErrorText;
}  // namespace

void setLastError(std::string message) {
    lastErrorText = std::move(message);
}

const char* lastError() {
    return lastErrorText.c_str();
}

}  // namespace pellorin::bindings
