// What every C-interface function shares: the thread-local text behind PLNLastError, the error
// type that carries a PLN_ERROR_* code, and the guards that turn any exception into a result
// code or a NULL so that none crosses into C.
#pragma once

#include <pellorin/pellorin.h>

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

namespace pellorin::bindings {

// A refusal with its PLN_ERROR_* code; the message becomes PLNLastError's text.
class CError : public std::runtime_error {
  public:
    CError(int32_t code, const std::string& message) : std::runtime_error(message), code_(code) {}
    int32_t code() const { return code_; }

  private:
    int32_t code_;
};

[[noreturn]] inline void invalidArgument(const std::string& message) {
    throw CError(PLN_ERROR_INVALID_ARGUMENT, message);
}
[[noreturn]] inline void wrongState(const std::string& message) {
    throw CError(PLN_ERROR_STATE, message);
}

// The calling thread's last error: its PLN_ERROR_* code (PLN_OK after a success) and text.
void setLastError(int32_t code, std::string message);
int32_t lastErrorCode();
const char* lastError();

// `value`, or an invalid-argument error naming `name` when it is NULL.
inline const char* required(const char* value, const char* name) {
    if (value == nullptr) {
        invalidArgument(std::string(name) + " is NULL");
    }
    return value;
}
// As required(), refusing the empty text too.
inline const char* requiredText(const char* value, const char* name) {
    if (*required(value, name) == '\0') {
        invalidArgument(std::string(name) + " is empty");
    }
    return value;
}

// Runs `body`, which returns a result code; an exception becomes its code (PLN_ERROR_INTERNAL for
// one that is not a CError) and the error text. Clears the error text first.
template <typename Body>
int32_t guardedStatus(Body body) noexcept {
    try {
        setLastError(PLN_OK, {});
        return body();
    } catch (const CError& error) {
        setLastError(error.code(), error.what());
        return error.code();
    } catch (const std::exception& error) {
        setLastError(PLN_ERROR_INTERNAL, error.what());
    } catch (...) {
        setLastError(PLN_ERROR_INTERNAL, "unknown error");
    }
    return PLN_ERROR_INTERNAL;
}

// Runs `body`, which returns a pointer; an exception becomes NULL and the last error.
template <typename Body>
auto guardedPointer(Body body) noexcept -> decltype(body()) {
    try {
        setLastError(PLN_OK, {});
        return body();
    } catch (const CError& error) {
        setLastError(error.code(), error.what());
    } catch (const std::exception& error) {
        setLastError(PLN_ERROR_INTERNAL, error.what());
    } catch (...) {
        setLastError(PLN_ERROR_INTERNAL, "unknown error");
    }
    return nullptr;
}

}  // namespace pellorin::bindings
