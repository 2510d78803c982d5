#pragma once

#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/Certificates.h>
#include <VornSdkRpc/PolicyGuard.h>
#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/security/server_credentials.h>
#include <vorn/mutex.h>

#include <cstdint>
#include <memory>
#include <string>

// Who calls and what they may: the credentials of a listening address, the name and session that
// accounting writes for each of its connections, and the policy.
namespace routing_agent {

// Paths of files, and what to do about callers on this host.
struct IdentityOptions {
  std::string tlsCert;    // PEM: the agent's certificate, with the chain above it if there is one
  std::string tlsKey;     // PEM: its private key
  std::string clientCa;   // PEM: the authorities whose client certificates are accepted
  std::string revoked;    // PEM: the authorities' lists of revocations; may be empty
  bool loopback = false;  // loopback addresses use gRPC's local credentials instead of TLS
  std::string policy;     // who may call what; empty: everybody everything
  bool policyDryRun = false;  // the policy only tells

  bool operator==(const IdentityOptions&) const = default;
};

// The credentials of the agent's addresses. Reads the certificates and the policy, and goes on
// looking whether they change. Must outlive the server.
class Access {
 public:
  // Throws std::invalid_argument when some but not all of the TLS files are given, or an option
  // that is of no use without another, and
  // std::system_error or vorn::configuration_error, which name the file and the reason, when one
  // can't be read or used.
  explicit Access(const IdentityOptions& options);

  // What callers of a listening address have, in gRPC's syntax: a ConnectionIdentity where their
  // credentials tell anything about them, and the policy if there is one.
  //
  //   address                             credentials              accounted user
  //   unix:PATH, unix-abstract:NAME       local, Unix socket       the user, proven by the kernel
  //   loopback, when options.loopback     local, loopback          local:NAME, a claim
  //   any other, with the three TLS files TLS, client certificate  the certificate's name, proven
  //                                       required
  //   any other, without                  none                     unknown
  //
  // What they refuse is recorded by `accounting`, if there is one. localCallers() goes with
  // Listener::addLocal(), and credentials() with a TCP address.
  std::shared_ptr<grpc::AuthMetadataProcessor> localCallers(
      VornSdkRpc::CallAccounting* accounting = nullptr) const;
  std::shared_ptr<grpc::ServerCredentials> credentials(
      const std::string& address, VornSdkRpc::CallAccounting* accounting = nullptr) const;

  // Null without a policy.
  const VornSdkRpc::PolicyFile* policy() const { return policy_.get(); }

  // Null without TLS.
  VornSdkRpc::Certificates* certificates() const { return certificates_.get(); }

 private:
  // With the policy, and with records of what is refused.
  std::shared_ptr<grpc::AuthMetadataProcessor> checked(
      std::shared_ptr<grpc::AuthMetadataProcessor> identity,
      VornSdkRpc::CallAccounting* accounting) const;

  const bool loopback_;
  std::unique_ptr<VornSdkRpc::Certificates> certificates_;
  std::unique_ptr<VornSdkRpc::PolicyFile> policy_;
};

// Gives each connection, once, the properties that accounting reads: "peer-authenticated", its
// user, and "session-id", a name for the connection that no other connection of any agent has.
//
// With TLS, the user is what the authority has put into the client's certificate: the common name,
// or the first subject alternative name when there is no common name. A certificate without either
// is refused, and so is a name with a NUL in it. On a Unix socket the listener has given the
// connection both already, as the kernel says. With local credentials on a loopback address all
// that is proven is that the caller is on this host: the user is "local:" followed by what the
// first call of the connection puts into its metadata as "username", or "local" when it puts
// nothing there. The prefix keeps a claim from passing for a proven name.
//
// The identity belongs to the connection, so a call whose "username" is another one is refused with
// UNAUTHENTICATED; a call that claims nothing is let through under the connection's user. So is a
// call whose "username" is the name that a certificate or the kernel proves. gRPC calls Process on
// any thread.
class ConnectionIdentity : public grpc::AuthMetadataProcessor {
 public:
  ConnectionIdentity();

  bool IsBlocking() const override { return false; }
  grpc::Status Process(const InputMetadata& metadata, grpc::AuthContext* connection,
                       OutputMetadata* consumed, OutputMetadata* response) override;

 private:
  std::string nextSession() VORN_REQUIRES(mutex_);

  vorn::mutex mutex_;  // guards the connections' properties while they are looked up and added
  const std::string run_;
  std::uint64_t sessions_ VORN_GUARDED_BY(mutex_) = 0;
};

}  // namespace routing_agent
