#include "reservation/JsonField.h"

#include <pellorin/Reservation.h>

#include <cmath>
#include <limits>

namespace pellorin {

namespace {

// 2^63 as a double: whole numbers of this size or more are past every signed 64-bit integer.
constexpr double kTwoTo63 = 9223372036854775808.0;

}  // namespace

std::string jsonErrorText(const nlohmann::json::exception& error) {
    // nlohmann's messages open with "[json.exception.<kind>.<id>] "; the rest reads on its own.
    std::string_view text(error.what());
    const auto end = text.find("] ");
    if (text.starts_with("[json.exception.") && end != std::string_view::npos) {
        text.remove_prefix(end + 2);
    }
    return std::string(text);
}

nlohmann::json JsonField::parse(std::string_view jsonText) {
    try {
        return nlohmann::json::parse(jsonText.begin(), jsonText.end());
    } catch (const nlohmann::json::parse_error& error) {
        throw ReservationDecodeError(
            "invalid JSON at byte " + std::to_string(error.byte) + ": " + jsonErrorText(error), {});
    } catch (const nlohmann::json::exception& error) {
        // A number too large for a double ("number overflow parsing '1e400'").
        throw ReservationDecodeError("invalid JSON: " + jsonErrorText(error), {});
    }
}

JsonField JsonField::member(std::string_view key) const {
    if (!value_.is_object()) {
        failType("an object");
    }
    const auto found = value_.find(key);
    if (found == value_.end()) {
        JsonField(value_, this, key).fail("required key is missing");
    }
    return JsonField(*found, this, key);
}

std::optional<JsonField> JsonField::optionalMember(std::string_view key) const {
    if (!value_.is_object()) {
        failType("an object");
    }
    const auto found = value_.find(key);
    if (found == value_.end() || found->is_null()) {
        return std::nullopt;
    }
    return JsonField(*found, this, key);
}

std::string JsonField::string() const {
    if (!value_.is_string()) {
        failType("a string");
    }
    return value_.get_ref<const std::string&>();
}

bool JsonField::boolean() const {
    if (!value_.is_boolean()) {
        failType("a boolean");
    }
    return value_.get<bool>();
}

int64_t JsonField::int64() const {
    if (value_.is_number_unsigned()) {
        const auto value = value_.get<uint64_t>();
        if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            fail("integer out of range");
        }
        return static_cast<int64_t>(value);
    }
    if (value_.is_number_integer()) {
        return value_.get<int64_t>();
    }
    failNumber();
}

uint64_t JsonField::uint64() const {
    if (value_.is_number_unsigned()) {
        return value_.get<uint64_t>();
    }
    if (value_.is_number_integer()) {
        fail("expected a non-negative integer, found " + std::to_string(value_.get<int64_t>()));
    }
    failNumber();
}

std::map<std::string, std::string> JsonField::stringMap() const {
    if (!value_.is_object()) {
        failType("an object");
    }
    std::map<std::string, std::string> result;
    for (const auto& [key, value] : value_.items()) {
        result.emplace(key, JsonField(value, this, key).string());
    }
    return result;
}

void JsonField::requireArray() const {
    if (!value_.is_array()) {
        failType("an array");
    }
}

void JsonField::fail(std::string_view problem) const {
    std::string where = path();
    std::string message =
        where.empty() ? std::string(problem) : where + ": " + std::string(problem);
    throw ReservationDecodeError(message, std::move(where));
}

std::string JsonField::path() const {
    if (parent_ == nullptr) {
        return {};
    }
    std::string text = parent_->path();
    if (isElement_) {
        text += "[" + std::to_string(index_) + "]";
    } else {
        if (!text.empty()) {
            text += '.';
        }
        text += key_;
    }
    return text;
}

void JsonField::failType(std::string_view expected) const {
    fail("expected " + std::string(expected) + ", found " + value_.type_name());
}

void JsonField::failNumber() const {
    if (value_.is_number_float()) {
        // Integers too large for 64 bits reach us as doubles; so do fractions and exponents.
        const double value = value_.get<double>();
        if (value == std::trunc(value) && std::fabs(value) >= kTwoTo63) {
            fail("integer out of range");
        }
        fail("expected an integer, found " + value_.dump());
    }
    failType("an integer");
}

}  // namespace pellorin
