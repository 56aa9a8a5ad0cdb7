// Bytes from the system's secure random source. Any thread.
#pragma once

#include <cstdint>
#include <vector>

#include <pellorin/PlatformError.h>

namespace pellorin {

// `count` random bytes (empty for 0). A negative count is a fatal stop. When the source fails,
// throws a PlatformError in kOSStatusErrorDomain carrying the source's status and no details.
std::vector<uint8_t> secureRandomBytes(int64_t count);

}  // namespace pellorin
