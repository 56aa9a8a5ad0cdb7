#include "Bindings/CSupport.h"

#include <utility>

namespace pellorin::bindings {

namespace {
thread_local int32_t lastErrorValue = PLN_OK;
thread_local std::string lastErrorText;
}  // namespace

void setLastError(int32_t code, std::string message) {
    lastErrorValue = code;
    lastErrorText = std::move(message);
}

int32_t lastErrorCode() {
    return lastErrorValue;
}

const char* lastError() {
    return lastErrorText.c_str();
}

}  // namespace pellorin::bindings
