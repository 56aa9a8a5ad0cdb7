// Conversion of the client's errors into the ErrorMessage records that delegates receive.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <pellorin/Messages.h>
#include <pellorin/PellorinError.h>

namespace pellorin {

// The domain of the client's own errors.
inline constexpr std::string_view kPellorinClientErrorDomain = "PellorinClient";

// One ErrorMessage per error; never fails. The client's own cases carry domain "PellorinClient"
// and codes 1 to 6, a wrapped foreign error "Unknown" and 99999, a platform error its own domain,
// code, description and details. Texts are localised. Pure function, any thread.
std::shared_ptr<const ErrorMessage> toErrorMessage(const PellorinError& error);

// A wait written for people: "1 second", "30 seconds", "2.5 seconds".
std::string secondsText(double seconds);

}  // namespace pellorin
