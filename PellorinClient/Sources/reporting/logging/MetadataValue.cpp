#include <pellorin/Logging.h>

namespace pellorin {

using MetadataValue = Logger::MetadataValue;

MetadataValue::MetadataValue(std::string value) : kind_(Kind::string), string_(std::move(value)) {}

MetadataValue::MetadataValue(const char* value) : MetadataValue(std::string(value)) {}

MetadataValue::MetadataValue(Dictionary value)
    : kind_(Kind::dictionary), dictionary_(std::make_shared<const Dictionary>(std::move(value))) {}

MetadataValue::MetadataValue(Array value)
    : kind_(Kind::array), array_(std::make_shared<const Array>(std::move(value))) {}

MetadataValue::MetadataValue(std::shared_ptr<const StringConvertible> value)
    : kind_(Kind::stringConvertible), convertible_(std::move(value)) {}

const std::string* MetadataValue::string() const {
    return kind_ == Kind::string ? &string_ : nullptr;
}

const Logger::StringConvertible* MetadataValue::convertible() const {
    return convertible_.get();
}

const MetadataValue::Dictionary* MetadataValue::dictionary() const {
    return dictionary_.get();
}

const MetadataValue::Array* MetadataValue::array() const {
    return array_.get();
}

std::string MetadataValue::description() const {
    switch (kind_) {
        case Kind::string:
            return string_;
        case Kind::stringConvertible:
            return convertible_ ? convertible_->description() : std::string();
        case Kind::dictionary: {
            if (dictionary_->empty()) {
                return "[:]";
            }
            std::string text = "[";
            for (const auto& [key, value] : *dictionary_) {
                if (text.size() > 1) {
                    text += ", ";
                }
                text += "\"" + key + "\": \"" + value.description() + "\"";
            }
            return text + "]";
        }
        case Kind::array: {
            std::string text = "[";
            for (const auto& value : *array_) {
                if (text.size() > 1) {
                    text += ", ";
                }
                text += "\"" + value.description() + "\"";
            }
            return text + "]";
        }
    }
    return {};
}

bool MetadataValue::operator==(const MetadataValue& other) const {
    if (kind_ != other.kind_) {
        return false;
    }
    switch (kind_) {
        case Kind::string:
            return string_ == other.string_;
        case Kind::stringConvertible:
            return description() == other.description();
        case Kind::dictionary:
            return *dictionary_ == *other.dictionary_;
        case Kind::array:
            return *array_ == *other.array_;
    }
    return false;
}

}  // namespace pellorin
