// Reads a reservation file (the JSON array of {"filePath", "operation"} pairs that reservations
// write) into the parts to upload, checking every operation against its file before anything is
// sent. Runs on the host thread before the transfer.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "PartPlan.h"

namespace pellorin::host {

// Reads and checks the file at `path`. Relative file paths in it are taken against the
// reservation file's folder. Throws InputError with one line "<path>: <place>: <problem>", the
// place being the JSON path of the fault ("[3].operation.offset"), when the file cannot be read,
// does not decode, reserves nothing (null or an empty array), or holds an operation that cannot be
// sent as it stands: a method other than OPTIONS, GET, HEAD, POST, PUT, DELETE, TRACE, CONNECT, a
// URL that is not http or https, a negative part number, offset or length, a header that cannot be
// sent, a file that cannot be read, a range past the end of its file, or a part number given twice
// for the same file.
std::vector<PlannedPart> readReservationFile(const std::filesystem::path& path);

// As readReservationFile, from text already read; `name` stands for the file in messages and
// relative file paths are taken against `base` (the working directory when empty).
std::vector<PlannedPart> planReservation(std::string_view jsonText, const std::string& name,
                                         const std::filesystem::path& base = {});

// Why a request header cannot be sent as given: one the client sets itself (Content-Length,
// Transfer-Encoding, Host, X-PLNX-Part-Number, X-PLNX-Retry-Count, in any case), a name that is
// not a token or a value with a line break; no value when it can be sent.
std::optional<std::string> headerProblem(std::string_view name, std::string_view value);

}  // namespace pellorin::host
