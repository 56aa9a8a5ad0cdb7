// `pellorin upload FILE --to URL`: the parts of a file sent to any server, each to the URL made
// from a template by putting in the part's number, offset, length and the file's name. Plain
// functions; host thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "PartPlan.h"

namespace pellorin::host {

// `text` with {part}, {offset}, {length} and {name} (the file name, percent-encoded) replaced.
// Throws InputError for any other {word}.
std::string expandUrlTemplate(const std::string& text, uint64_t part, uint64_t offset,
                              uint64_t length, const std::string& name);

// Cuts `file` into parts of `partSize` bytes sent with `method` (one the library knows) and the
// `headers` given as "Name: value", each to its URL from `urlTemplate`. Throws InputError when
// the template gives something that is not an http or https URL, when two parts would go to the
// same URL, for an unknown method and for a header that cannot be sent.
std::vector<PlannedPart> planTemplateParts(const std::string& file, const std::string& urlTemplate,
                                           uint64_t partSize, const std::string& method,
                                           const std::vector<std::string>& headers);

}  // namespace pellorin::host
