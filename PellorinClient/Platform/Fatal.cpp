#include "Platform/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace pellorin {

void fatalError(std::string_view message, std::source_location location) {
    // One write, so that the line is not interleaved with other output.
    std::string text = "Fatal error: ";
    text.append(message);
    text += "\n  at ";
    text += location.file_name();
    text += ":" + std::to_string(location.line()) + " in " + location.function_name() + "\n";
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace pellorin
