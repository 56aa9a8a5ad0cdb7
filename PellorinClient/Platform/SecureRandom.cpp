#include "Platform/SecureRandom.h"

#include <openssl/err.h>
#include <openssl/rand.h>

#include <climits>

#include "Platform/Fatal.h"

namespace pellorin {

std::vector<uint8_t> secureRandomBytes(int64_t count) {
    if (count < 0) {
        fatalError("secureRandomBytes: negative length " + std::to_string(count));
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(count));
    size_t filled = 0;
    while (filled < bytes.size()) {
        const int chunk = static_cast<int>(std::min<size_t>(bytes.size() - filled, INT_MAX));
        if (RAND_bytes(bytes.data() + filled, chunk) != 1) {
            PlatformError error;
            error.domain = std::string(kOSStatusErrorDomain);
            error.code = static_cast<int64_t>(ERR_get_error());
            error.localizedDescription = "The secure random source failed.";
            throw error;
        }
        filled += static_cast<size_t>(chunk);
    }
    return bytes;
}

}  // namespace pellorin
