// The part handle of the C interface, shared by the client and reservation-file functions.
#pragma once

#include <pellorin/pellorin.h>

#include <memory>

#include <pellorin/FilePartRequest.h>

namespace pellorin::bindings {

// The C++ part behind a handle. Any thread.
const std::shared_ptr<FilePartRequest>& partRequestOf(const PLNFilePartRequest& part);
// A new handle (owned by the caller) for `request`.
PLNFilePartRequest* makePartHandle(std::shared_ptr<FilePartRequest> request);

}  // namespace pellorin::bindings
