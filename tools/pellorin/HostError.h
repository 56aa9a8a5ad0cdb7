// InputError: a usage or input fault of the command-line host (a missing file, a malformed
// reservation file, a part outside its file, a bad option value). Its text is the one line the
// host prints before exiting with status 2; it names the file and the place of the fault.
#pragma once

#include <stdexcept>

namespace pellorin::host {

class InputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The exit statuses of the host beside the client's own 0 and 1.
inline constexpr int kExitUsage = 2;
inline constexpr int kExitInterrupted = 130;

}  // namespace pellorin::host
