#include "client/TransferState.h"

namespace pellorin {

const std::shared_ptr<FilePartRequest>& TransferState::request() const {
    return std::visit(
        [](const auto& state) -> const std::shared_ptr<FilePartRequest>& { return state.request; },
        value);
}

std::string TransferState::description() const {
    const std::string part = request() ? request()->debugDescription() : "no request";
    if (isWaiting())
        return "waiting(" + part + ")";
    if (executing())
        return "executing(" + part + ")";
    if (const auto* successful = std::get_if<Successful>(&value)) {
        return "successful(" + part + ", etag: " + successful->etag + ")";
    }
    return "failed(" + part + ")";
}

}  // namespace pellorin
