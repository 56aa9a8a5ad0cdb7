// The library's table of user-visible texts. The English text is both the key and the default,
// so a text with no translation reads as written. Pure functions, any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace pellorin {

// The text for `key` in the current language; `comment` tells translators what the
// placeholders hold. Returns `key` itself when there is no translation.
std::string localizedString(std::string_view key, std::string_view comment = {});

// Fills a localised template with arguments already written as text. Placeholders: "%@" and "%d"
// take the next argument in order; "%1$@", "%2$d", ... take the numbered argument (translations
// may reorder them); "%%" is a percent sign. A placeholder with no argument is written as is.
std::string formatLocalized(std::string_view format, const std::vector<std::string>& arguments);

}  // namespace pellorin
