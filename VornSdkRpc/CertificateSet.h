#pragma once

#include <VornSdkRpc/Certificates.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace VornSdkRpc {

template <auto Free>
struct FreeBy {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using X509Pointer = std::unique_ptr<X509, FreeBy<X509_free>>;
using CrlPointer = std::unique_ptr<X509_CRL, FreeBy<X509_CRL_free>>;

// The contents of the files of CertificateFiles.
struct CertificateTexts {
  // Throws as readFile().
  static CertificateTexts read(const CertificateFiles& files);
  bool operator==(const CertificateTexts&) const = default;

  std::string certificate, key, authorities, revoked;
};

// A set of certificates that is good. Immutable.
class CertificateSet {
 public:
  // Throws vorn::configuration_error, whose text names the file and the reason.
  CertificateSet(const CertificateFiles& files, const CertificateTexts& texts);

  // The key, the certificate and its chain in one text, and the authorities in another, as PEM:
  // nothing but them, whatever else the files hold.
  const std::string& identityPem() const { return identityPem_; }
  const std::string& authoritiesPem() const { return authoritiesPem_; }

  // Without generation and loaded.
  CertificateState state() const;

  // Whether a client that has shown these, as PEM, would be let in: its certificate, and those that
  // it has sent along.
  bool accepts(std::string_view certificate, std::string_view chain) const;

  // Whether one of the certificates, as PEM, has been revoked.
  bool isRevoked(std::string_view certificates) const;

 private:
  std::vector<X509Pointer> chain_;
  std::vector<X509Pointer> authorities_;
  std::vector<CrlPointer> revoked_;
  std::string identityPem_;
  std::string authoritiesPem_;
};

}  // namespace VornSdkRpc
