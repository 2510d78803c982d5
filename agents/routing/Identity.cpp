#include "agents/routing/Identity.h"

#include <grpcpp/security/auth_context.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <random>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace routing_agent {

namespace {

constexpr char kUser[] = "peer-authenticated";
constexpr char kSession[] = "session-id";
constexpr char kClaim[] = "username";
constexpr char kLocal[] = "local";

std::string readPem(const std::string& path) {
  const auto refuse = [&path](int error) {
    throw std::system_error(error, std::generic_category(), "cannot read " + path);
  };
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"),
                                                             &std::fclose);
  if (!file) refuse(errno);
  std::string text;
  std::array<char, 4096> part;
  while (std::feof(file.get()) == 0 && std::ferror(file.get()) == 0) {
    text.append(part.data(), std::fread(part.data(), 1, part.size(), file.get()));
  }
  if (std::ferror(file.get()) != 0) refuse(errno);
  if (text.find("-----BEGIN ") == std::string::npos)
    throw std::invalid_argument(path + " holds no PEM");
  return text;
}

std::shared_ptr<grpc::ServerCredentials> tlsCredentials(const IdentityOptions& options) {
  if (options.tlsCert.empty() || options.tlsKey.empty() || options.clientCa.empty()) {
    throw std::invalid_argument(
        "TLS takes all three of the certificate, its key and the client authority");
  }
  grpc::SslServerCredentialsOptions tls(GRPC_SSL_REQUEST_AND_REQUIRE_CLIENT_CERTIFICATE_AND_VERIFY);
  tls.pem_root_certs = readPem(options.clientCa);
  tls.pem_key_cert_pairs.push_back({readPem(options.tlsKey), readPem(options.tlsCert)});
  return grpc::SslServerCredentials(tls);
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

bool isLocal(const grpc::AuthContext& connection) {
  return propertyOf(connection, "transport_security_type") == kLocal;
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

std::shared_ptr<grpc::ServerCredentials> serverCredentials(const std::string& address,
                                                           const IdentityOptions& options) {
  const bool tls = !options.tlsCert.empty() || !options.tlsKey.empty() || !options.clientCa.empty();
  std::shared_ptr<grpc::ServerCredentials> credentials;
  if (address.starts_with("unix:") || address.starts_with("unix-abstract:")) {
    credentials = grpc::experimental::LocalServerCredentials(UDS);
  } else if (options.loopback && isLoopback(address)) {
    credentials = grpc::experimental::LocalServerCredentials(LOCAL_TCP);
  } else if (tls) {
    credentials = tlsCredentials(options);
  } else {
    return grpc::InsecureServerCredentials();
  }
  credentials->SetAuthMetadataProcessor(std::make_shared<ConnectionIdentity>());
  return credentials;
}

ConnectionIdentity::ConnectionIdentity() : run_(runName()) {}

grpc::Status ConnectionIdentity::Process(const InputMetadata& metadata,
                                         grpc::AuthContext* connection, OutputMetadata*,
                                         OutputMetadata*) {
  const std::lock_guard lock(mutex_);
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
