#include "datapath/MessageDigest.h"

#include <gtest/gtest.h>

#include <functional>

#include "Platform/Encoding.h"

namespace pellorin {
namespace {

using DigestFactory = std::function<std::unique_ptr<MessageDigest>(DigestAlgorithm)>;

const std::vector<std::pair<const char*, DigestFactory>> kProviders{
    {"new", newDigest}, {"first", newFirstProviderDigest}, {"second", newSecondProviderDigest}};

// Digests of the empty message (RFC 1321, FIPS 180-4).
const char* emptyMessageDigest(DigestAlgorithm algorithm) {
    switch (algorithm) {
        case DigestAlgorithm::md5:
            return "d41d8cd98f00b204e9800998ecf8427e";
        case DigestAlgorithm::sha1:
            return "da39a3ee5e6b4b0d3255bfef95601890afd80709";
        case DigestAlgorithm::sha224:
            return "d14a028c2a3a2bc9476102bb288234c415a2b01f828ea62ac5b3e42f";
        case DigestAlgorithm::sha256:
            return "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
        case DigestAlgorithm::sha384:
            return "38b060a751ac96384cd9327eb1b1e36a21fdb71114be07434c0cc7bf63f6e1da274edebfe76f65f"
                   "bd5"
                   "1ad2f14898b95b";
        case DigestAlgorithm::sha512:
            return "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce47d0d13c5d85f2b"
                   "0ff"
                   "8318d2877eec2f63b931bd47417a81a538327af927da3e";
    }
    return "";
}

TEST(MessageDigest, EmptyMessageVectorsAndLengths) {
    const std::vector<int32_t> lengths{16, 20, 28, 32, 48, 64};
    for (size_t i = 0; i < allDigestAlgorithms.size(); ++i) {
        const DigestAlgorithm algorithm = allDigestAlgorithms[i];
        EXPECT_EQ(length(algorithm), lengths[i]);
        EXPECT_EQ(isInsecure(algorithm), i < 2);
        for (const auto& [provider, make] : kProviders) {
            auto digest = make(algorithm);
            ASSERT_TRUE(digest) << provider;
            EXPECT_EQ(digest->algorithm(), algorithm);
            digest->update({});
            const std::vector<uint8_t> bytes = digest->finalize();
            EXPECT_EQ(bytes.size(), static_cast<size_t>(digest->length())) << provider;
            EXPECT_EQ(hexString(bytes), emptyMessageDigest(algorithm)) << provider << " " << i;
        }
    }
}

TEST(MessageDigest, ProvidersAgreeWhetherFedAtOnceOrInPieces) {
    std::vector<uint8_t> message(1000);
    for (size_t i = 0; i < message.size(); ++i) {
        message[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    for (const DigestAlgorithm algorithm : allDigestAlgorithms) {
        auto oneShot = newFirstProviderDigest(algorithm);
        oneShot->update(message);
        const std::vector<uint8_t> expected = oneShot->finalize();
        for (const auto& [provider, make] : kProviders) {
            auto pieces = make(algorithm);
            for (size_t at = 0, step = 1; at < message.size(); at += step, step = step * 2 + 1) {
                pieces->update(std::span(message).subspan(at, std::min(step, message.size() - at)));
            }
            EXPECT_EQ(pieces->finalize(), expected) << provider;
        }
    }
}

TEST(MessageDigest, ProviderChoiceFollowsTheRunningOpenSSL) {
    EXPECT_EQ(cryptoFramework(DigestAlgorithm::sha224), CryptoFramework::tessaly);
    EXPECT_NE(name(CryptoFramework::corvane), name(CryptoFramework::tessaly));
}

TEST(Encoding, HexString) {
    EXPECT_EQ(hexString(std::vector<uint8_t>{0x00, 0xAB}), "00ab");
    EXPECT_EQ(hexString(std::vector<uint8_t>{0x0F, 0xF0, 0x7e}), "0ff07e");
    EXPECT_EQ(hexString({}), "");
}

TEST(MessageDigest, RandomData) {
    EXPECT_TRUE(randomData(0).empty());
    const auto a = randomData(32);
    EXPECT_EQ(a.size(), 32u);
    EXPECT_NE(a, randomData(32));
}

}  // namespace
}  // namespace pellorin
