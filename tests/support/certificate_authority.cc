#include "support/certificate_authority.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace kestro::test {

namespace {

std::string toText(BIO* bio) {
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio, &data);
    std::string s(data, static_cast<std::size_t>(n));
    BIO_free(bio);
    return s;
}

std::string certificateText(X509* cert) {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(bio, cert);
    return toText(bio);
}

std::string keyText(EVP_PKEY* key) {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    return toText(bio);
}

// A certificate for `key` named `commonName`, signed by `issuerKey` in the name of `issuer`
// (itself when null), with the given extensions.
X509* makeCertificate(EVP_PKEY* key, const std::string& commonName, X509* issuer,
                      EVP_PKEY* issuerKey,
                      std::initializer_list<std::pair<int, const char*>> extensions) {
    static std::atomic<long> serial{1};
    X509* cert = X509_new();
    if (!cert) throw std::runtime_error("openssl: cannot make a certificate");
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial.fetch_add(1));
    X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert), 30L * 24 * 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                               0);
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Kestro tests"), -1, -1, 0);
    X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer) : name);
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer ? issuer : cert, cert, nullptr, nullptr, 0);
    for (const auto& [nid, value] : extensions) {
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
        if (!ext) throw std::runtime_error("openssl: bad extension");
        X509_add_ext(cert, ext, -1);
        X509_EXTENSION_free(ext);
    }
    if (X509_sign(cert, issuerKey, EVP_sha256()) == 0) throw std::runtime_error("openssl: sign");
    return cert;
}

}  // namespace

struct CertificateAuthority::Keys {
    EVP_PKEY* key = nullptr;
    X509* cert = nullptr;
};

CertificateAuthority::CertificateAuthority(const std::string& name) : keys_(new Keys) {
    keys_->key = EVP_EC_gen("P-256");
    if (!keys_->key) throw std::runtime_error("openssl: cannot make a key");
    keys_->cert = makeCertificate(keys_->key, name, nullptr, keys_->key,
                                  {{NID_basic_constraints, "critical,CA:TRUE"},
                                   {NID_key_usage, "critical,keyCertSign,cRLSign"},
                                   {NID_subject_key_identifier, "hash"}});
    pem_ = certificateText(keys_->cert);
}

CertificateAuthority::~CertificateAuthority() {
    X509_free(keys_->cert);
    EVP_PKEY_free(keys_->key);
    delete keys_;
}

std::string CertificateAuthority::hashedFileName() const {
    char name[16];
    std::snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(keys_->cert));
    return name;
}

TlsIdentity CertificateAuthority::issueServerIdentity() const {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    if (!key) throw std::runtime_error("openssl: cannot make a key");
    X509* cert = makeCertificate(key, "127.0.0.1", keys_->cert, keys_->key,
                                 {{NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost"},
                                  {NID_basic_constraints, "critical,CA:FALSE"},
                                  {NID_ext_key_usage, "serverAuth"},
                                  {NID_authority_key_identifier, "keyid:always"}});
    TlsIdentity identity{certificateText(cert), keyText(key)};
    X509_free(cert);
    EVP_PKEY_free(key);
    return identity;
}

}  // namespace kestro::test
