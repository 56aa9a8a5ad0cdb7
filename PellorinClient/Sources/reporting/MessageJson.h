// JSON form of the event records: one object per record, keys exactly the field names.
//
// Rules kept here: ErrorMessage.userInfo is always written (null when absent); a retry nests its
// error object and a failure its array of error objects; a URL is written as its absolute
// string; MetricsMessage.otherInfo is never written. Pure functions, any thread.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include <pellorin/Messages.h>

namespace pellorin {

nlohmann::ordered_json toJson(const LoggingMessage& message);
nlohmann::ordered_json toJson(const ErrorMessage& message);
nlohmann::ordered_json toJson(const FileProgressMessage& message);
nlohmann::ordered_json toJson(const PartStartedMessage& message);
nlohmann::ordered_json toJson(const PartProgressMessage& message);
nlohmann::ordered_json toJson(const PartRetryMessage& message);
nlohmann::ordered_json toJson(const PartCompleteMessage& message);
nlohmann::ordered_json toJson(const PartFailureMessage& message);
nlohmann::ordered_json toJson(const MetricsMessage& message);

// Compact text of a JSON value (no blanks, no newline). Text that is not valid UTF-8 (a file
// path made of arbitrary bytes, say) is written with U+FFFD in place of each bad sequence, so
// this never throws.
std::string compactJson(const nlohmann::ordered_json& json);

}  // namespace pellorin
