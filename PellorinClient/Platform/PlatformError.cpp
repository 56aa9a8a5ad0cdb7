#include <pellorin/PlatformError.h>

namespace pellorin {

std::string PlatformError::description() const {
    return "Error Domain=" + domain + " Code=" + std::to_string(code) + " \"" +
           localizedDescription + "\"";
}

}  // namespace pellorin
