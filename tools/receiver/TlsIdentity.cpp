#include "receiver/TlsIdentity.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace pellorin::receiver {

namespace {

template <typename T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using CertificatePtr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;

void freeContext(ssl_ctx_st* context) {
    SSL_CTX_free(context);
}

// Throws with the text of the most recent OpenSSL error, if any.
[[noreturn]] void fail(const std::string& what) {
    std::string text = "Receiver cannot set up TLS: " + what;
    if (const unsigned long code = ERR_get_error(); code != 0) {
        std::array<char, 256> reason{};
        ERR_error_string_n(code, reason.data(), reason.size());
        text += " (";
        text += reason.data();
        text += ")";
    }
    ERR_clear_error();
    throw std::runtime_error(text);
}

void addExtension(X509* certificate, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    ExtensionPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) {
        fail(std::string("certificate extension ") + OBJ_nid2sn(nid));
    }
}

CertificatePtr makeCertificate(EVP_PKEY* key) {
    CertificatePtr certificate(X509_new());
    if (!certificate) {
        fail("X509_new");
    }
    X509_set_version(certificate.get(), X509_VERSION_3);
    std::array<uint8_t, 8> serial{};
    if (RAND_bytes(serial.data(), static_cast<int>(serial.size())) != 1) {
        fail("random serial number");
    }
    serial[0] &= 0x7f;  // positive
    BIGNUM* number = BN_bin2bn(serial.data(), static_cast<int>(serial.size()), nullptr);
    if (number == nullptr ||
        BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate.get())) == nullptr) {
        BN_free(number);
        fail("serial number");
    }
    BN_free(number);
    // Valid from an hour ago (clock skew) to a day from now.
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 86400);
    X509_NAME* name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Pellorin local receiver"),
                               -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_set_pubkey(certificate.get(), key);
    // The certificate is its own trust anchor, so it is marked as a CA that may also serve.
    addExtension(certificate.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(certificate.get(), NID_key_usage, "critical,digitalSignature,keyCertSign");
    addExtension(certificate.get(), NID_ext_key_usage, "serverAuth");
    addExtension(certificate.get(), NID_subject_key_identifier, "hash");
    addExtension(certificate.get(), NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    if (X509_sign(certificate.get(), key, EVP_sha256()) == 0) {
        fail("signing the certificate");
    }
    return certificate;
}

std::filesystem::path makeTemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pellorin-receiver-XXXXXX");
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("Receiver cannot create a temporary directory in " +
                                 std::filesystem::temp_directory_path().string());
    }
    return pattern;
}

void writeCertificate(X509* certificate, const std::filesystem::path& file) {
    BioPtr bio(BIO_new_file(file.c_str(), "w"));
    if (!bio || PEM_write_bio_X509(bio.get(), certificate) != 1) {
        fail("writing " + file.string());
    }
}

}  // namespace

TlsIdentity::TlsIdentity(std::optional<int> maxVersion) : context_(nullptr, freeContext) {
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key) {
        fail("generating a P-256 key");
    }
    const CertificatePtr certificate = makeCertificate(key.get());

    context_.reset(SSL_CTX_new(TLS_server_method()));
    if (!context_) {
        fail("SSL_CTX_new");
    }
    if (SSL_CTX_use_certificate(context_.get(), certificate.get()) != 1 ||
        SSL_CTX_use_PrivateKey(context_.get(), key.get()) != 1) {
        fail("loading the certificate");
    }
    SSL_CTX_set_mode(context_.get(),
                     SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (maxVersion) {
        if (SSL_CTX_set_max_proto_version(context_.get(), *maxVersion) != 1) {
            fail("highest TLS version " + std::to_string(*maxVersion));
        }
        if (*maxVersion < TLS1_2_VERSION) {
            // Old protocols need SHA-1 signatures and old ciphers, refused at the default
            // security level; the point of this mode is to let clients refuse them instead.
            SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
            if (SSL_CTX_set_cipher_list(context_.get(), "DEFAULT:@SECLEVEL=0") != 1) {
                fail("cipher list for old TLS versions");
            }
        }
    }

    directory_ = makeTemporaryDirectory();
    certificateFile_ = directory_ / "certificate.pem";
    try {
        writeCertificate(certificate.get(), certificateFile_);
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
        throw;
    }
}

TlsIdentity::~TlsIdentity() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

}  // namespace pellorin::receiver
