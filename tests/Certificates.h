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
  void make(const std::string& name, const std::string& subject, const std::string& more) const {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 "
        "-keyout " +
        path(name + ".key") + " -out " + path(name + ".pem") + " -subj '" + subject + "'" + more +
        " 2>" + path("openssl.log");
    if (std::system(command.c_str()) != 0)
      throw std::runtime_error("openssl: " + read("openssl.log"));
  }

  // Gives the certificate NAME.pem another common name, with any bytes, and signs it again.
  void rename(const std::string& name, const std::string& commonName) const {
    const auto open = [this](const std::string& file, const char* mode) {
      return std::unique_ptr<std::FILE, int (*)(std::FILE*)>(std::fopen(path(file).c_str(), mode),
                                                             &std::fclose);
    };
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        PEM_read_X509(open(name + ".pem", "r").get(), nullptr, nullptr, nullptr), &X509_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> authority(
        PEM_read_PrivateKey(open("ca.key", "r").get(), nullptr, nullptr, nullptr), &EVP_PKEY_free);
    auto* const subject = X509_get_subject_name(certificate.get());
    X509_NAME_ENTRY_free(X509_NAME_delete_entry(subject, 0));
    X509_NAME_add_entry_by_NID(subject, NID_commonName, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.data()),
                               static_cast<int>(commonName.size()), -1, 0);
    X509_sign(certificate.get(), authority.get(), EVP_sha256());
    PEM_write_X509(open(name + ".pem", "w").get(), certificate.get());
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
  std::string directory_;
};

}  // namespace test
