#pragma once

#include <string>

namespace kestro::test {

/// A certificate and its private key, both PEM, for a test server.
struct TlsIdentity {
    std::string certificatePem;
    std::string keyPem;
};

/// A certificate authority made by a test: a key of its own and a self-signed CA certificate.
/// It issues server certificates for 127.0.0.1 and localhost, so that a test can decide which
/// authorities a client trusts and see which servers it accepts.
///
/// Not synchronised; keep one per test.
class CertificateAuthority {
  public:
    explicit CertificateAuthority(const std::string& name);
    ~CertificateAuthority();
    CertificateAuthority(const CertificateAuthority&) = delete;
    CertificateAuthority& operator=(const CertificateAuthority&) = delete;

    /// The authority's certificate.
    const std::string& pem() const { return pem_; }
    /// The name OpenSSL looks the certificate up by in a certificate folder ("1a2b3c4d.0").
    std::string hashedFileName() const;
    /// A new key and a certificate for 127.0.0.1 and localhost, signed by this authority.
    TlsIdentity issueServerIdentity() const;

  private:
    struct Keys;
    Keys* keys_;
    std::string pem_;
};

}  // namespace kestro::test
