#pragma once

#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/support/server_interceptor.h>
#include <vorn/export.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// TLS whose certificates are rotated while the server runs. The files are looked at again and
// again; what they hold is put into use when it is good as a whole, and the last good set stays in
// use otherwise. So a pair that does not match, a file that is half written, expired or gone fails
// no handshake: it is traced ("Certificates/0"), and error() says it.
//
//   const VornSdkRpc::Certificates certificates({.certificate = "/etc/agent/tls/cert.pem",
//                                                .key = "/etc/agent/tls/key.pem",
//                                                .authorities = "/etc/agent/tls/ca.pem"});
//   builder.AddListeningPort("0.0.0.0:50051", certificates.credentials(identity));
//
// A target of its own, VornSdkRpc::VornSdkRpcCertificates, because it brings OpenSSL.
namespace VornSdkRpc {

// Paths of PEM files. A set is good when
//
// - every file is read to its end, with nothing damaged in it, and is the same in two looks (a
//   file that is being written is cut at a line as well as anywhere else);
// - the key is the certificate's, and each certificate of the chain is signed by the next one;
// - certificate and chain are valid now, and fit for a server;
// - all of them are as strong as OpenSSL's security level 2 asks: 2048 bits of RSA, no SHA-1;
// - at least one authority is valid now;
// - no list of revocations has been forged: it is signed by the authority that it names, if that
//   is one of `authorities`, and was to be replaced no earlier than now.
struct CertificateFiles {
  std::string certificate;       // the server's, with the chain above it if there is one
  std::string key;               // its private key, without a passphrase
  std::string authorities = {};  // whose client certificates are accepted; empty: none is asked for
  std::string revoked = {};      // certificate revocation lists (CRLs) of the authorities, if any
};

struct CertificateOptions {
  // A client without a certificate is refused. Without `authorities` of no meaning.
  bool clientCertificateRequired = true;

  // How often the files are looked at, on a thread of its own; never, when it is not positive. A
  // change is in use two looks and at most a second after the last file was written.
  std::chrono::milliseconds interval = std::chrono::seconds(1);

  // How long before the certificate, the last valid authority or a list of revocations expires the
  // trace begins to warn of it, once a day.
  std::chrono::hours warnBefore = std::chrono::hours(24 * 14);
};

// What is in use.
struct CertificateState {
  using Time = std::chrono::system_clock::time_point;

  std::string subject;       // the server certificate's, as in "CN=agent,O=net"
  std::string serial;        // in hexadecimal
  Time expires;              // the first of the certificate and its chain to expire
  Time authoritiesExpire;    // the last of the authorities to expire; Time::max() without any
  Time revocationsExpire;    // the first list to be replaced; Time::max() without any
  std::uint64_t generation;  // 1 for the first set, one more for each that came into use
  Time loaded;               // when it came into use
};

// Any thread may use one. It must outlive the server that has its credentials.
class VORN_EXPORT Certificates {
 public:
  // Reads the files, which must hold a good set: throws std::system_error when one can't be read
  // and vorn::configuration_error when one can't be used. Both name the file and the reason.
  explicit Certificates(CertificateFiles files, CertificateOptions options = {});
  ~Certificates();
  Certificates(const Certificates&) = delete;
  Certificates& operator=(const Certificates&) = delete;

  // Credentials for a listening address. A client certificate that has been revoked fails its
  // handshake. `processor` is asked on every call.
  std::shared_ptr<grpc::ServerCredentials> credentials(
      std::shared_ptr<grpc::AuthMetadataProcessor> processor = nullptr) const;

  // Ends what stands on a client certificate that is not accepted any more, because its authority
  // has been taken out of the files, or has revoked it, since its connection was made: the
  // connection's calls in progress, where the server has the interceptors, and every further call,
  // with UNAUTHENTICATED. Connections without a call stay open and are of no use. Holds for what is
  // in use now; a later change takes another call of this. Returns how many calls it has ended,
  // among them those that were ending by themselves.
  std::size_t withdraw();

  // What lets withdraw() end calls in progress, for the list of interceptors of a server's builder.
  std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface> interceptors() const;

  // Looks at the files now, without waiting for a second look to be the same. Returns whether what
  // they hold is in use.
  bool reload();

  // What is wrong with the files; empty when what they hold is in use.
  std::string error() const;

  CertificateState state() const;

 private:
  class VORN_NO_EXPORT Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace VornSdkRpc
