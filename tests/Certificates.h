#pragma once

#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

namespace test {

// A directory with throw-away authorities and certificates, which goes with the test.
class Certificates {
 public:
  Certificates() {
    std::string pattern = testing::TempDir() + "identityXXXXXX";
    directory_ = mkdtemp(pattern.data());
    make("ca", "/CN=ca", "");
    issue("server", "/CN=server", "IP:127.0.0.1");
  }
  ~Certificates() { std::filesystem::remove_all(directory_); }
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  std::string path(const std::string& name) const { return directory_ + "/" + name; }

  // NAME.pem and NAME.key, signed by the authority "ca".
  void issue(const std::string& name, const std::string& subject,
             const std::string& alternative = "") const {
    make(name, subject,
         " -CA " + path("ca.pem") + " -CAkey " + path("ca.key") +
             (alternative.empty() ? "" : " -addext subjectAltName=" + alternative));
  }

  // NAME.pem and NAME.key, signed by itself.
  void make(const std::string& name, const std::string& subject, const std::string& more,
            const std::string& key = "ec -pkeyopt ec_paramgen_curve:prime256v1") const {
    const std::string command = "openssl req -x509 -newkey " + key + " -nodes -days 30 -keyout " +
                                path(name + ".key") + " -out " + path(name + ".pem") + " -subj '" +
                                subject + "'" + more + " 2>" + path("openssl.log");
    if (std::system(command.c_str()) != 0)
      throw std::runtime_error("openssl: " + read("openssl.log"));
  }

  // Gives the certificate NAME.pem another common name, with any bytes, and signs it again.
  void rename(const std::string& name, const std::string& commonName) const {
    change(name, [&](X509* certificate) {
      auto* const subject = X509_get_subject_name(certificate);
      X509_NAME_ENTRY_free(X509_NAME_delete_entry(subject, 0));
      X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_UTF8,
                                 reinterpret_cast<const unsigned char*>(commonName.data()),
                                 static_cast<int>(commonName.size()), -1, 0);
    });
  }

  // Gives the certificate NAME.pem other dates, in seconds from now, and signs it again.
  void redate(const std::string& name, long begins, long ends,
              const std::string& authority = "ca") const {
    change(
        name,
        [&](X509* certificate) {
          X509_gmtime_adj(X509_getm_notBefore(certificate), begins);
          X509_gmtime_adj(X509_getm_notAfter(certificate), ends);
        },
        authority);
  }

  // NAME: a list of revocations of the authority "ca" that holds the certificate of that name,
  // valid for so many seconds, and signed with the key of `signer`.
  void revoke(const std::string& name, const std::string& certificate, long valid = 3600,
              const std::string& signer = "ca") const {
    const std::unique_ptr<X509_CRL, decltype(&X509_CRL_free)> list(X509_CRL_new(), &X509_CRL_free);
    const std::unique_ptr<ASN1_TIME, decltype(&ASN1_TIME_free)> time(ASN1_TIME_new(),
                                                                     &ASN1_TIME_free);
    X509_CRL_set_version(list.get(), 1);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(certificateOf("ca").get()));
    X509_CRL_set1_lastUpdate(list.get(), X509_gmtime_adj(time.get(), -7200));
    X509_CRL_set1_nextUpdate(list.get(), X509_gmtime_adj(time.get(), valid));
    auto* const entry = X509_REVOKED_new();
    X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(certificateOf(certificate).get()));
    X509_REVOKED_set_revocationDate(entry, X509_gmtime_adj(time.get(), -3600));
    X509_CRL_add0_revoked(list.get(), entry);
    X509_CRL_sign(list.get(), keyOf(signer).get(), EVP_sha256());
    PEM_write_X509_CRL(open(name, "w").get(), list.get());
  }

  void write(const std::string& name, const std::string& text) const {
    std::ofstream(path(name)) << text;
  }

  std::string read(const std::string& name) const {
    std::ifstream file(path(name));
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // The credentials of a client with the certificate of that name; without a name, of one without.
  std::shared_ptr<grpc::ChannelCredentials> client(const std::string& name = "") const {
    grpc::SslCredentialsOptions tls;
    tls.pem_root_certs = read("ca.pem");
    if (!name.empty()) {
      tls.pem_cert_chain = read(name + ".pem");
      tls.pem_private_key = read(name + ".key");
    }
    return grpc::SslCredentials(tls);
  }

 private:
  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;
  using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;
  using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;

  File open(const std::string& name, const char* mode) const {
    return {std::fopen(path(name).c_str(), mode), &std::fclose};
  }
  Certificate certificateOf(const std::string& name) const {
    return {PEM_read_X509(open(name + ".pem", "r").get(), nullptr, nullptr, nullptr), &X509_free};
  }
  Key keyOf(const std::string& name) const {
    return {PEM_read_PrivateKey(open(name + ".key", "r").get(), nullptr, nullptr, nullptr),
            &EVP_PKEY_free};
  }

  template <typename Change>
  void change(const std::string& name, Change change, const std::string& authority = "ca") const {
    const auto certificate = certificateOf(name);
    change(certificate.get());
    X509_sign(certificate.get(), keyOf(authority).get(), EVP_sha256());
    PEM_write_X509(open(name + ".pem", "w").get(), certificate.get());
  }

  std::string directory_;
};

}  // namespace test
