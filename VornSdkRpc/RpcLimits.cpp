#include <VornSdkRpc/RpcLimits.h>

#include <VornSdkRpc/PeerInfo.h>

namespace VornSdkRpc::rpc {

std::optional<Limits::Claim> Limits::claim(const grpc::ServerContext& context) {
  Claim claim(*this);
  const std::string peer = context.peer();
  if (!take(claim, "connection " + peer, options_.perConnection)) return std::nullopt;
  if (options_.perAddress != 0 &&
      !take(claim, "address " + parsePeerURI(peer).addr, options_.perAddress))
    return std::nullopt;
  if (options_.perUser != 0) {
    const auto users = context.auth_context()->FindPropertyValues("peer-authenticated");
    if (!users.empty() &&
        !take(claim, "user " + std::string(users.front().data(), users.front().size()),
              options_.perUser))
      return std::nullopt;
  }
  return claim;
}

// The client chooses the keys, but only as many as it has calls.
bool Limits::take(Claim& claim, std::string key, std::size_t limit) {
  if (limit == 0) return true;
  const auto used = used_.try_emplace(key).first;
  if (used->second >= limit) return false;
  claim.keys_.push_back(std::move(key));
  ++used->second;
  return true;
}

Limits::Claim::~Claim() {
  if (!limits_) return;
  for (const auto& key : keys_) {
    const auto used = limits_->used_.find(key);
    if (--used->second == 0) limits_->used_.erase(used);
  }
}

}  // namespace VornSdkRpc::rpc
