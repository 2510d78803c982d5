#pragma once

#include <grpc/grpc_security.h>
#include <grpc/grpc_security_constants.h>

#include <string_view>

namespace VornSdkRpc {

// The properties of a connection that say how its caller's identity is proven, and
// CallRecord::proof by their first values; an empty one stands for none.
constexpr const char* kProof = "peer-proof";
constexpr const char* kTransport = GRPC_TRANSPORT_SECURITY_TYPE_PROPERTY_NAME;
std::string_view proofOf(std::string_view told, std::string_view transport, bool authenticated);

// What a connection's authentication context tells about its caller. The texts are the context's.
class ConnectionTexts {
 public:
  // Takes over a reference to the context, which may be null.
  explicit ConnectionTexts(grpc_auth_context* context) : context_(context) {}
  ~ConnectionTexts() { grpc_auth_context_release(context_); }
  ConnectionTexts(const ConnectionTexts&) = delete;
  ConnectionTexts& operator=(const ConnectionTexts&) = delete;

  // The first value of "peer-authenticated", and of "session-id"; "unknown" without one.
  std::string_view user() const { return first("peer-authenticated", "unknown"); }
  std::string_view session() const { return first("session-id", "unknown"); }

  // CallRecord::proof.
  std::string_view proof() const;

 private:
  // A property's first value, up to its first NUL byte.
  std::string_view first(const char* name, std::string_view missing) const;

  grpc_auth_context* const context_;
};

}  // namespace VornSdkRpc
