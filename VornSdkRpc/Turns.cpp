#include <VornSdkRpc/Turns.h>

#include <grpcpp/server_context.h>

#include <algorithm>
#include <utility>

namespace VornSdkRpc {

namespace {

constexpr int kShare = 4;  // a client may take one in so many of the thread's time
// What it may take at a stretch: so long, or so few calls, lest one that was interrupted be counted
// against a client that has no other.
constexpr std::chrono::milliseconds kBurst{2};
constexpr unsigned kFew = 8;
// What a call costs besides, in gRPC.
constexpr std::chrono::microseconds kByGrpc{10};

}  // namespace

std::string Turns::clientOf(const grpc::ServerContext& context) {
  std::string peer = context.peer();
  if (!peer.starts_with("unix")) return peer.erase(std::min(peer.rfind(':'), peer.size()));
  const auto users = context.auth_context()->FindPropertyValues("peer-authenticated");
  if (users.empty()) return peer;
  return "user " + std::string(users.front().data(), users.front().size());
}

bool Turns::admits(const std::string& client, Clock::time_point now) const {
  const auto found = clients_.find(client);
  if (found == clients_.end()) return true;
  const auto& [calls, evenAt, served] = found->second;
  return calls.empty() && (served < kFew || evenAt <= now + kShare * kBurst);
}

void Turns::add(Call call) {
  auto& calls = clients_[call.client].calls;
  calls.push_back(call.tag);
  if (calls.size() == 1) order_.push_back(std::move(call.client));
}

Turns::Call Turns::take() {
  std::string client = std::move(order_.front());
  order_.pop_front();
  auto& calls = clients_[client].calls;
  const OpaqueId tag = calls.front();
  calls.pop_front();
  if (!calls.empty()) order_.push_back(client);
  return {tag, std::move(client)};
}

void Turns::used(const std::string& client, Clock::time_point from, Clock::time_point to) {
  auto& [calls, evenAt, served] = clients_[client];
  served = evenAt <= from ? 1 : served + 1;
  evenAt = std::max(evenAt, from) + kShare * (to - from + kByGrpc);
  if (clients_.size() >= forgetAt_) forgetIdle(to);
}

void Turns::forgetIdle(Clock::time_point now) {
  std::erase_if(clients_, [now](const auto& entry) {
    return entry.second.calls.empty() && entry.second.evenAt <= now;
  });
  forgetAt_ = 2 * clients_.size() + 64;
}

}  // namespace VornSdkRpc
