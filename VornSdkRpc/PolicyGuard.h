#pragma once

#include <VornSdkRpc/Policy.h>
#include <grpcpp/security/auth_context.h>
#include <grpcpp/security/auth_metadata_processor.h>
#include <grpcpp/support/status.h>
#include <vorn/export.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// A policy that is enforced: on every call of every service (by hand, of the kit, health,
// reflection, channelz) that comes in at an address whose credentials have the guard's processor.
//
//   const auto policy = std::make_shared<VornSdkRpc::PolicyFile>("/etc/agent/policy.json");
//   builder.AddListeningPort("unix:/run/agent.sock",
//       VornSdkRpc::insecureServerCredentials(policyProcessor(policy->guard(), identity)));
//   auto tls = grpc::SslServerCredentials(options);
//   tls->SetAuthMetadataProcessor(policyProcessor(policy->guard(), identity));
//
// A denied call is answered PERMISSION_DENIED before any service or interceptor sees it. An
// in-process channel has no credentials, and a policy does not hold there.
namespace VornSdkRpc {

// A call that a policy has denied.
struct PolicyDenial {
  const grpc::AuthContext& connection;
  std::string_view method;  // /PACKAGE.SERVICE/METHOD
  std::string_view policy;  // the policy's name
  std::string_view rule;    // the deny rule's name; empty when no rule matched
  bool enforced;            // false in a dry run: the call goes on
};

struct PolicyOptions {
  // Deny nothing: what would be denied is counted, traced and told, and goes on.
  bool dryRun = false;

  // Told of every denial, on the thread that denies, before the client is; may not block. An
  // exception of its own is dropped, and the call stays denied.
  std::function<void(const PolicyDenial&)> denied = nullptr;
};

// What a guard has done since the process began.
struct PolicyState {
  struct Rule {
    std::string name;
    bool allows;
    std::uint64_t hits;  // calls that it has decided; kept when a new policy has the same rule
  };

  std::string name;
  std::uint64_t generation;                      // 1 for the first policy, one more for each next
  std::chrono::system_clock::time_point loaded;  // when it came into force
  std::vector<Rule> rules;
  std::uint64_t unmatched;  // calls that no rule matched
  bool dryRun;
};

// What the properties of a connection prove about its caller: with TLS the names of the client's
// certificate, and "local-uid", "local-user", "local-gid" and "local-group" (any number of each),
// which only a processor of the agent's or the library's can add, as the kernel's word on a caller
// on this host. A mere claim, such as a user name in the metadata, is not looked at. The texts of
// the names are the connection's.
VORN_EXPORT PolicyPeer policyPeerOf(const grpc::AuthContext& connection);

// The policy in force, and what it has decided. Any thread.
class VORN_EXPORT PolicyGuard {
 public:
  explicit PolicyGuard(Policy policy, PolicyOptions options = {});
  ~PolicyGuard();
  PolicyGuard(const PolicyGuard&) = delete;
  PolicyGuard& operator=(const PolicyGuard&) = delete;

  // Puts another policy into force, for every call from now on.
  void policyIs(Policy policy);

  Policy policy() const;
  PolicyState state() const;

  // Decides on a call, counts, traces and tells. Returns the status for the client: OK, or
  // PERMISSION_DENIED with a text that gives nothing away. Its error_details(), which gRPC does not
  // send, name the policy and the rule, for a record of the call.
  grpc::Status admit(const grpc::AuthContext& connection, std::string_view method,
                     const PolicyRequest::Headers& headers);

 private:
  class VORN_NO_EXPORT Impl;
  std::unique_ptr<Impl> impl_;
};

// A processor for the credentials of a listening address. `identity`, if there is one, is asked
// first: it may refuse the call, or add the properties of the connection that tell who calls.
VORN_EXPORT std::shared_ptr<grpc::AuthMetadataProcessor> policyProcessor(
    std::shared_ptr<PolicyGuard> guard,
    std::shared_ptr<grpc::AuthMetadataProcessor> identity = nullptr);

// A policy file that is read again when it changes. A change that is no good policy is traced, and
// the last good one stays in force.
class VORN_EXPORT PolicyFile {
 public:
  // Reads the file, which must hold a good policy: throws std::system_error when it can't be read
  // and vorn::configuration_error, whose text names the file and the place in it, when it can't be
  // used. Looks at it again each interval, on a thread of its own; never, when that is not
  // positive.
  explicit PolicyFile(std::string path, PolicyOptions options = {},
                      std::chrono::milliseconds interval = std::chrono::seconds(1));
  ~PolicyFile();
  PolicyFile(const PolicyFile&) = delete;
  PolicyFile& operator=(const PolicyFile&) = delete;

  // Outlives this object when a processor holds it.
  const std::shared_ptr<PolicyGuard>& guard() const { return guard_; }

  // Looks at the file now. Returns whether what it holds is in force. Any thread.
  bool reload();

  // What is wrong with the file; empty when what it holds is in force. Any thread.
  std::string error() const;

 private:
  class VORN_NO_EXPORT Impl;

  std::shared_ptr<PolicyGuard> guard_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace VornSdkRpc
