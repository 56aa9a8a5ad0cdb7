// Reads a reservation file (the JSON array of {"filePath", "operation"} pairs that reservations
// write) into the parts to upload, checking every operation against its file before anything is
// sent. Runs on the host thread before the transfer.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "PartPlan.h"

namespace pellorin::host {

// Reads and checks the file at `path`. Relative file paths in it are taken against the working
// directory. Throws InputError with one line "<path>: <place>: <problem>", the place being the
// JSON path of the fault ("[3].operation.offset"), when the file cannot be read, does not decode,
// reserves nothing (null or an empty array), or holds an operation that cannot be sent as it
// stands: an empty or malformed method, a URL that is not http or https, a negative part number,
// offset or length, a header that cannot be sent, a file that cannot be read, a range past the
// end of its file, or a part number given twice for the same file.
std::vector<PlannedPart> readReservationFile(const std::filesystem::path& path);

// As readReservationFile, from text already read; `name` stands for the file in messages.
std::vector<PlannedPart> planReservation(std::string_view jsonText, const std::string& name);

}  // namespace pellorin::host
