#include "client/ErrorConversion.h"

#include <cstdio>
#include <string>

#include "client/Localization.h"

namespace pellorin {

namespace {

std::shared_ptr<const ErrorMessage> clientError(int64_t code, std::string message) {
    return std::make_shared<const ErrorMessage>(std::string(kPellorinClientErrorDomain), code,
                                                std::move(message), std::nullopt);
}

std::string localized(std::string_view key, const std::vector<std::string>& arguments,
                      std::string_view comment = {}) {
    return formatLocalized(localizedString(key, comment), arguments);
}

}  // namespace

std::string secondsText(double seconds) {
    char buffer[512];  // room for the widest double in fixed notation
    std::snprintf(buffer, sizeof buffer, "%.3f", seconds);
    std::string number = buffer;
    // Whole numbers read without decimals, others without trailing zeros.
    if (number.find('.') != std::string::npos) {
        number.erase(number.find_last_not_of('0') + 1);
        if (number.back() == '.') {
            number.pop_back();
        }
    }
    if (number == "-0") {
        number = "0";
    }
    return number + (number == "1" ? " second" : " seconds");
}

std::shared_ptr<const ErrorMessage> toErrorMessage(const PellorinError& error) {
    using Kind = PellorinError::Kind;
    switch (error.kind()) {
        case Kind::retryCountExceeded:
            return clientError(
                1, localized("Exceeded retry count: %d", {std::to_string(error.retries())}));
        case Kind::checksumFailed:
            return clientError(2, localized("Checksum mismatch, local: %@, remote: %@",
                                            {error.local(), error.remote()}));
        case Kind::noRemoteChecksum:
            return clientError(3, localizedString("Remote server did not provide a checksum"));
        case Kind::retryAfter:
            return clientError(
                4, localized("Remote server wants to retry after: %1$@, HTTP status code: %2$d",
                             {secondsText(error.wait()), std::to_string(error.code())},
                             "Param 1 is 'n seconds', param 2 is an integer code"));
        case Kind::unknownServerResponseCode:
            return clientError(
                5, localized("Remote server returned an unhandled HTTP response code of: %d",
                             {std::to_string(error.code())}));
        case Kind::cancelledByUser:
            return clientError(6, localizedString("Cancelled by user."));
        case Kind::error:
            return std::make_shared<const ErrorMessage>(
                "Unknown", 99999,
                localized("Unknown error received: %@", {error.wrappedDescription()}),
                std::nullopt);
        case Kind::nsError: {
            const PlatformError& platform = error.platformError();
            return std::make_shared<const ErrorMessage>(
                platform.domain, platform.code, platform.localizedDescription, platform.userInfo);
        }
    }
    return std::make_shared<const ErrorMessage>(
        "Unknown", 99999, localized("Unknown error received: %@", {error.description()}),
        std::nullopt);
}

}  // namespace pellorin
