#pragma once

#include <grpcpp/support/string_ref.h>
#include <vorn/export.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// An authorization policy: which callers may call which methods. It is a JSON object in gRPC's own
// format (proposal A43, version 1.0), so one file serves here and with gRPC's engine:
//
//   {
//     "name": "routes",
//     "deny_rules": [
//       {"name": "no writes by monitors",
//        "source": {"principals": ["spiffe://net.example/monitor/*"]},
//        "request": {"paths": ["/net.Routes/Set*"]}}
//     ],
//     "allow_rules": [
//       {"name": "operators", "source": {"principals": ["group:netops", "user:root"]}},
//       {"name": "anybody's health", "request": {"paths": ["/grpc.health.v1.Health/*"]}}
//     ]
//   }
//
// A call that a deny rule matches is denied; else one that an allow rule matches is allowed; else
// it is denied. "name" and "allow_rules" are required. A rule has a "name" and may have
//
//   source.principals  who calls: one must match
//   request.paths      what is called, /PACKAGE.SERVICE/METHOD: one must match
//   request.headers    objects with "key" and "values": all headers must match, each one of its
//                      values
//
// What is left out, or is an empty list, is not checked. Every string matches exactly ("abc"), by
// prefix ("abc*"), by suffix ("*abc") or by presence ("*": not empty). A header's key is matched in
// lower case, as HTTP/2 sends it; one that is sent several times is one value, joined by commas.
// Keys that begin with ":" or "grpc-", "host" and the headers of a hop ("connection", "te" and so
// on) can't be asked for.
//
// A principal is a name of the client's certificate: its URI names, its DNS names, its subject. A
// caller over TLS without a certificate is the empty string; one without TLS has no such name.
// Beside gRPC's format, a principal that begins with "uid:", "user:", "gid:" or "group:" is a
// caller on this host whom the kernel has proven, and no certificate's name matches it; no other
// string but "*" matches such a caller.
//
// A policy that holds anything else (an unknown field, a value of another type, a field twice, two
// rules of a list with one name) is refused as a whole: a rule that is not understood must not be
// passed over.
namespace VornSdkRpc {

// Who calls, as far as it is proven. The texts are the owner's of what they were taken from.
struct PolicyPeer {
  // What a certificate proves: its URI names, then its DNS names, then its subject. Over TLS
  // without a certificate one empty string; without TLS nothing.
  std::vector<std::string_view> names;

  // What the kernel proves of a caller on this host: "uid:1000", "user:alice", "gid:100",
  // "group:users".
  std::vector<std::string> local;
};

// Adds a principal as a policy writes it: what begins with "uid:", "user:", "gid:" or "group:" is a
// caller on this host, anything else a name of a certificate, whose text must outlive the peer.
VORN_EXPORT void addPrincipal(PolicyPeer& peer, std::string_view principal);

// A call that a policy decides on.
struct PolicyRequest {
  // The metadata of a call as gRPC hands it out, keys in lower case.
  using Headers = std::multimap<grpc::string_ref, grpc::string_ref>;

  const PolicyPeer& peer;
  std::string_view path;  // /PACKAGE.SERVICE/METHOD
  const Headers& headers;
};

// A rule's name and what it does.
struct PolicyRule {
  std::string name;
  bool allows;
};

struct PolicyDecision {
  // For `rule`, when no rule matched.
  static constexpr std::size_t kNoRule = static_cast<std::size_t>(-1);

  bool allowed;
  std::size_t rule;  // index into rules() of the one that decided
};

// A policy that has been read. Immutable, cheap to copy; any thread may use one.
class VORN_EXPORT Policy {
 public:
  // Reads a policy of at most 1 MiB. Throws vorn::configuration_error, whose text names the place
  // and what is wrong there: "allow_rules[0].request.path: unknown field".
  static Policy parse(std::string_view json);

  // Pure: nothing is counted.
  PolicyDecision decide(const PolicyRequest& request) const;

  const std::string& name() const;

  // The deny rules, then the allow rules, each in the order of the file.
  const std::vector<PolicyRule>& rules() const;

 private:
  struct VORN_NO_EXPORT Content;

  VORN_NO_EXPORT explicit Policy(std::shared_ptr<const Content> content)
      : content_(std::move(content)) {}

  std::shared_ptr<const Content> content_;
};

}  // namespace VornSdkRpc
