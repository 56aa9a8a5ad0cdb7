#include <pellorin/Logging.h>

namespace pellorin {

std::optional<Logger::MetadataValue> LogHandler::metadataValue(const std::string& key) const {
    const Logger::Metadata all = metadata();
    const auto found = all.find(key);
    if (found == all.end()) {
        return std::nullopt;
    }
    return found->second;
}

void LogHandler::setMetadataValue(const std::string& key,
                                  std::optional<Logger::MetadataValue> value) {
    Logger::Metadata all = metadata();
    if (value) {
        all.insert_or_assign(key, std::move(*value));
    } else {
        all.erase(key);
    }
    setMetadata(std::move(all));
}

}  // namespace pellorin
