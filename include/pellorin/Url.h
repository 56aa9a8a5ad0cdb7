// Url: an absolute URL, checked by a real URL parser when it is made. Immutable value.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <pellorin/Export.h>

namespace pellorin {

class PELLORIN_EXPORT Url {
  public:
    // Parses an absolute URL (scheme and host required; any scheme is accepted). Returns no
    // value when the text does not form a URL.
    static std::optional<Url> parse(std::string_view text);

    // The URL as text, exactly as it was given to parse() (no added slash, no case change):
    // what messages and records show.
    const std::string& absoluteString() const { return text_; }
    // The URL in the parser's normalised form (e.g. "http://h" reads "http://h/"): what is sent.
    const std::string& normalizedString() const { return absolute_; }
    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }
    // The port as written, or no value when the URL relies on the scheme's default.
    std::optional<int> port() const { return port_; }
    // Path and query as sent in a request line ("/a/b?c=d"); "/" at least.
    const std::string& pathAndQuery() const { return pathAndQuery_; }

    // Equal when given as the same text.
    bool operator==(const Url& other) const { return text_ == other.text_; }

  private:
    Url() = default;
    std::string text_;
    std::string absolute_;
    std::string scheme_;
    std::string host_;
    std::optional<int> port_;
    std::string pathAndQuery_;
};

}  // namespace pellorin
