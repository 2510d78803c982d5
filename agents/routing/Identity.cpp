#include "agents/routing/Identity.h"

#include <VornSdkRpc/InsecureCredentials.h>
#include <grpcpp/security/auth_context.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <random>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace routing_agent {

namespace {

constexpr char kUser[] = "peer-authenticated";
constexpr char kSession[] = "session-id";
constexpr char kClaim[] = "username";
constexpr char kLocal[] = "local";

std::unique_ptr<VornSdkRpc::Certificates> certificatesOf(const IdentityOptions& options) {
  if (options.tlsCert.empty() && options.tlsKey.empty() && options.clientCa.empty()) {
    if (!options.revoked.empty())
      throw std::invalid_argument("a list of revoked certificates takes TLS");
    return nullptr;
  }
  if (options.tlsCert.empty() || options.tlsKey.empty() || options.clientCa.empty()) {
    throw std::invalid_argument(
        "TLS takes all three of the certificate, its key and the client authority");
  }
  return std::make_unique<VornSdkRpc::Certificates>(
      VornSdkRpc::CertificateFiles{.certificate = options.tlsCert,
                                   .key = options.tlsKey,
                                   .authorities = options.clientCa,
                                   .revoked = options.revoked});
}

std::unique_ptr<VornSdkRpc::PolicyFile> policyOf(const IdentityOptions& options) {
  if (options.policy.empty()) {
    if (options.policyDryRun) throw std::invalid_argument("a dry run takes a policy");
    return nullptr;
  }
  return std::make_unique<VornSdkRpc::PolicyFile>(
      options.policy, VornSdkRpc::PolicyOptions{.dryRun = options.policyDryRun});
}

bool isLoopback(std::string_view address) {
  for (std::string_view scheme : {"dns:", "ipv4:", "ipv6:"}) {
    if (address.starts_with(scheme)) address.remove_prefix(scheme.size());
  }
  return address.starts_with("127.") || address.starts_with("localhost:") ||
         address.starts_with("[::1]:");
}

// The first value of a property that isn't empty.
std::optional<std::string> propertyOf(const grpc::AuthContext& connection, const char* name) {
  for (const grpc::string_ref& value : connection.FindPropertyValues(name)) {
    if (!value.empty()) return std::string(value.data(), value.size());
  }
  return {};
}

// The user that a call claims to be, on a connection with local credentials or another one.
std::string claimed(grpc::string_ref username, bool local) {
  const std::string name(username.data(), username.size());
  return local ? std::string(kLocal) + ":" + name : name;
}

// Whether nothing but the caller's word tells who it is.
bool isLocal(const grpc::AuthContext& connection) {
  return propertyOf(connection, "transport_security_type") == kLocal &&
         !propertyOf(connection, "peer-proof");
}

// What a connection's first call and its certificate tell about its user; nothing when nothing
// does.
std::optional<std::string> userOf(const grpc::AuthContext& connection,
                                  const grpc::AuthMetadataProcessor::InputMetadata& metadata) {
  if (isLocal(connection)) {
    const auto claim = metadata.find(kClaim);
    return claim == metadata.end() ? kLocal : claimed(claim->second, true);
  }
  auto user = propertyOf(connection, "x509_common_name");
  return user ? user : propertyOf(connection, "x509_subject_alternative_name");
}

// A name for this run of the process, so that sessions of different runs differ.
std::string runName() {
  std::random_device random;
  std::array<char, 17> text;
  std::snprintf(text.data(), text.size(), "%08x%08x", random(), random());
  return text.data();
}

}  // namespace

Access::Access(const IdentityOptions& options)
    : loopback_(options.loopback),
      certificates_(certificatesOf(options)),
      policy_(policyOf(options)) {}

std::shared_ptr<grpc::AuthMetadataProcessor> Access::checked(
    std::shared_ptr<grpc::AuthMetadataProcessor> identity,
    VornSdkRpc::CallAccounting* accounting) const {
  auto all = policy_ ? policyProcessor(policy_->guard(), std::move(identity)) : identity;
  return accounting ? accounting->recorded(std::move(all)) : all;
}

std::shared_ptr<grpc::AuthMetadataProcessor> Access::localCallers(
    VornSdkRpc::CallAccounting* accounting) const {
  return checked(std::make_shared<ConnectionIdentity>(), accounting);
}

std::shared_ptr<grpc::ServerCredentials> Access::credentials(
    const std::string& address, VornSdkRpc::CallAccounting* accounting) const {
  if (loopback_ && isLoopback(address)) {
    auto local = grpc::experimental::LocalServerCredentials(LOCAL_TCP);
    local->SetAuthMetadataProcessor(checked(std::make_shared<ConnectionIdentity>(), accounting));
    return local;
  }
  if (certificates_)
    return certificates_->credentials(checked(std::make_shared<ConnectionIdentity>(), accounting));
  return policy_ ? VornSdkRpc::insecureServerCredentials(checked(nullptr, accounting))
                 : grpc::InsecureServerCredentials();
}

ConnectionIdentity::ConnectionIdentity() : run_(runName()) {}

grpc::Status ConnectionIdentity::Process(const InputMetadata& metadata,
                                         grpc::AuthContext* connection, OutputMetadata*,
                                         OutputMetadata*) {
  const vorn::lock_guard lock(mutex_);
  auto user = propertyOf(*connection, kUser);
  const bool first = !user;
  if (first) user = userOf(*connection, metadata);
  if (!user) return {grpc::StatusCode::UNAUTHENTICATED, "the client certificate names nobody"};
  // Who reads a name up to its first NUL would take its holder for somebody else.
  if (user->find('\0') != std::string::npos)
    return {grpc::StatusCode::UNAUTHENTICATED, "the client certificate's name holds a NUL"};
  const auto [begin, end] = metadata.equal_range(kClaim);
  const bool agreed = std::all_of(begin, end, [&, local = isLocal(*connection)](const auto& claim) {
    return claimed(claim.second, local) == *user;
  });
  if (!agreed)
    return {grpc::StatusCode::UNAUTHENTICATED, "this connection belongs to another user"};
  if (first) {
    connection->AddProperty(kUser, *user);
    connection->AddProperty(kSession, nextSession());
  }
  return grpc::Status::OK;
}

std::string ConnectionIdentity::nextSession() { return run_ + "-" + std::to_string(++sessions_); }

}  // namespace routing_agent
