#include <VornSdkRpc/ConnectionTexts.h>

#include <cstring>

namespace VornSdkRpc {

std::string_view proofOf(std::string_view told, std::string_view transport, bool authenticated) {
  if (!told.empty()) return told;
  // The name follows the kind of credentials; what is spoken is the same.
  if (transport == GRPC_SSL_TRANSPORT_SECURITY_TYPE ||
      transport == GRPC_TLS_TRANSPORT_SECURITY_TYPE)
    return authenticated ? "certificate" : "tls";
  return transport == "local" ? "local" : "none";
}

std::string_view ConnectionTexts::proof() const {
  return proofOf(first(kProof, ""), first(kTransport, ""),
                 context_ != nullptr && grpc_auth_context_peer_is_authenticated(context_) != 0);
}

std::string_view ConnectionTexts::first(const char* name, std::string_view missing) const {
  if (context_ == nullptr) return missing;
  auto values = grpc_auth_context_find_properties_by_name(context_, name);
  const auto* const value = grpc_auth_property_iterator_next(&values);
  if (value == nullptr) return missing;
  return {value->value, strnlen(value->value, value->value_length)};
}

}  // namespace VornSdkRpc
