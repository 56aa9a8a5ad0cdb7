// What the host writes about URLs and servers, made safe to show: the query strings and user-info
// of URLs (signatures, tokens, passwords) are replaced unless the user asked to see secrets, and
// text that came from a server loses its control characters before it reaches a terminal.
//
// The switch is set once on the host thread before any transfer starts; the functions are pure
// otherwise and run on any thread.
#pragma once

#include <string>
#include <string_view>

namespace pellorin::host {

// Whether URLs are shown whole (--show-secrets). Off by default.
void setShowSecrets(bool show);
bool showSecrets();

// `text` with every URL in it ("scheme://...", up to white space or a quote) stripped of its
// user-info ("user:password@" becomes "***@") and query string ("?..." becomes "?***"), unless
// secrets are shown.
std::string redactUrls(std::string_view text);
// As redactUrls, whatever the switch says (for what is stored, such as the journal).
std::string stripUrlSecrets(std::string_view text);

// redactUrls, then every control character (other than tab) and escape byte written as "\xHH",
// so that nothing a server says can move the cursor or change the terminal's state.
std::string forTerminal(std::string_view text);

}  // namespace pellorin::host
