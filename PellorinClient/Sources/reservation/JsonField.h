// JsonField: one value of a parsed JSON document, seen while it is decoded into a record, together
// with the way it was reached from the document's top. Every accessor checks the JSON type (and
// for integers the range) and throws ReservationDecodeError naming the value's path, e.g.
// "[3].operation.offset: expected an integer, found string". Key lookups are case-sensitive.
//
// Fields live on the stack of one decode: each holds a reference to its value and a pointer to the
// field it was reached from, so a field must not outlive its parent or the document. The path
// text is built only when a decode fails. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace pellorin {

class JsonField {
  public:
    // The top of a document.
    explicit JsonField(const nlohmann::json& document) : value_(document) {}

    // Parses jsonText; text that is not JSON fails with the byte position of the fault.
    static nlohmann::json parse(std::string_view jsonText);

    bool isNull() const { return value_.is_null(); }

    // The member under key; a missing key fails.
    JsonField member(std::string_view key) const;
    // The member under key, or no value when the key is missing or its value is null.
    std::optional<JsonField> optionalMember(std::string_view key) const;

    std::string string() const;
    bool boolean() const;
    int64_t int64() const;                                 // integers in [-2^63, 2^63)
    uint64_t uint64() const;                               // integers in [0, 2^64)
    std::map<std::string, std::string> stringMap() const;  // an object of strings

    // An array, each element decoded by decodeElement(const JsonField&), in order.
    template <typename DecodeElement>
    auto array(DecodeElement&& decodeElement) const {
        requireArray();
        std::vector<decltype(decodeElement(*this))> result;
        result.reserve(value_.size());
        for (std::size_t index = 0; index < value_.size(); ++index) {
            result.push_back(decodeElement(JsonField(value_[index], this, index)));
        }
        return result;
    }

    // Throws ReservationDecodeError with "<path>: <problem>".
    [[noreturn]] void fail(std::string_view problem) const;
    // "Reservations[0].operations[2].uri"; empty at the top of the document.
    std::string path() const;

  private:
    JsonField(const nlohmann::json& value, const JsonField* parent, std::string_view key)
        : value_(value), parent_(parent), key_(key) {}
    JsonField(const nlohmann::json& value, const JsonField* parent, std::size_t index)
        : value_(value), parent_(parent), isElement_(true), index_(index) {}

    void requireArray() const;
    [[noreturn]] void failType(std::string_view expected) const;
    [[noreturn]] void failNumber() const;

    const nlohmann::json& value_;
    const JsonField* parent_ = nullptr;  // no parent at the top of the document
    bool isElement_ = false;             // reached by index_ rather than by key_
    std::string_view key_;               // member name
    std::size_t index_ = 0;              // array index
};

// An exception's text without nlohmann's "[json.exception.<kind>.<id>] " tag.
std::string jsonErrorText(const nlohmann::json::exception& error);

}  // namespace pellorin
