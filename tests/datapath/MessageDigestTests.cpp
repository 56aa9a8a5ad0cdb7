#include "datapath/MessageDigest.h"

#include <gtest/gtest.h>

#include "Platform/Encoding.h"

namespace pellorin {
namespace {

using Factory = std::unique_ptr<MessageDigest> (*)(DigestAlgorithm);
constexpr Factory kProviders[] = {newDigest, newFirstProviderDigest, newSecondProviderDigest};

// Digests of the empty message (RFC 1321, FIPS 180-4), in the order of allDigestAlgorithms.
const char* const kEmptyMessageDigests[] = {
    "d41d8cd98f00b204e9800998ecf8427e",
    "da39a3ee5e6b4b0d3255bfef95601890afd80709",
    "d14a028c2a3a2bc9476102bb288234c415a2b01f828ea62ac5b3e42f",
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",
    "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65fbd51ad2f14898b9"
    "5b",
    "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b0ff8318d2877eec"
    "2f"
    "63b931bd47417a81a538327af927da3e",
};

TEST(MessageDigest, EmptyMessageVectorsFromEveryProvider) {
    for (size_t i = 0; i < allDigestAlgorithms.size(); ++i) {
        for (Factory make : kProviders) {
            auto digest = make(allDigestAlgorithms[i]);
            ASSERT_TRUE(digest);
            EXPECT_EQ(digest->algorithm(), allDigestAlgorithms[i]);
            digest->update({});
            const std::vector<uint8_t> bytes = digest->finalize();
            EXPECT_EQ(std::ssize(bytes), length(allDigestAlgorithms[i]));
            EXPECT_EQ(hexString(bytes), kEmptyMessageDigests[i]);
        }
    }
}

TEST(MessageDigest, ProvidersAgreeWhetherFedAtOnceOrInPieces) {
    const std::vector<uint8_t> message = randomData(1000);  // differs run to run
    for (const DigestAlgorithm algorithm : allDigestAlgorithms) {
        auto oneShot = newFirstProviderDigest(algorithm);
        oneShot->update(message);
        const std::vector<uint8_t> expected = oneShot->finalize();
        for (Factory make : kProviders) {
            auto pieces = make(algorithm);
            for (size_t at = 0, step = 1; at < message.size(); at += step, step = step * 2 + 1) {
                pieces->update(std::span(message).subspan(at, std::min(step, message.size() - at)));
            }
            EXPECT_EQ(pieces->finalize(), expected);
        }
    }
}

}  // namespace
}  // namespace pellorin
