#include "client/Localization.h"

#include <cctype>

namespace pellorin {

std::string localizedString(std::string_view key, std::string_view /*comment*/) {
    // The library ships its English texts only; translations would be looked up here.
    return std::string(key);
}

std::string formatLocalized(std::string_view format, const std::vector<std::string>& arguments) {
    std::string out;
    out.reserve(format.size() + 32);
    size_t nextArgument = 0;
    size_t i = 0;
    while (i < format.size()) {
        if (format[i] != '%' || i + 1 == format.size()) {
            out += format[i++];
            continue;
        }
        if (format[i + 1] == '%') {
            out += '%';
            i += 2;
            continue;
        }
        // Optional position "<n>$", then the conversion letter.
        size_t j = i + 1;
        size_t position = 0;
        while (j < format.size() && std::isdigit(static_cast<unsigned char>(format[j]))) {
            position = position * 10 + static_cast<size_t>(format[j] - '0');
            ++j;
        }
        const bool positional = j > i + 1 && j < format.size() && format[j] == '$';
        j = positional ? j + 1 : i + 1;
        if (j == format.size() || (format[j] != '@' && format[j] != 'd')) {
            out += format[i++];
            continue;
        }
        // "%0$" names no argument: position 0 maps past the end.
        const size_t index = positional ? position - 1 : nextArgument++;
        if (index < arguments.size()) {
            out += arguments[index];
        } else {
            out.append(format.substr(i, j + 1 - i));
        }
        i = j + 1;
    }
    return out;
}

}  // namespace pellorin
