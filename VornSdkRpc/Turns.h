#pragma once

#include <VornSdkRpc/RequestHandler.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <unordered_map>

namespace VornSdkRpc {

// The calls that wait for their turn, by client. A client's calls are served as they arrive for as
// long as it takes a quarter of the thread's time; what is beyond waits, and is served one call a
// client in turn, when nothing else is to be done. One thread.
class Turns {
 public:
  using Clock = std::chrono::steady_clock;

  // Whose turn it is: the tag of a call, and its client.
  struct Call {
    OpaqueId tag;
    std::string client;
  };

  // Who calls: an IP address or, on a Unix socket, a proven user.
  static std::string clientOf(const grpc::ServerContext& context);

  // Whether a call of the client is served at once.
  bool admits(const std::string& client, Clock::time_point now) const;

  void add(Call call);

  // The call whose turn it is; there must be one.
  Call take();

  // A call of the client has used the thread's time, and gRPC's work for it.
  void used(const std::string& client, Clock::time_point from, Clock::time_point to);

  bool waiting() const { return !order_.empty(); }

 private:
  struct Client {
    std::deque<OpaqueId> calls;
    // When it has paid for what it has used, at a quarter of the time that passes.
    Clock::time_point evenAt;
    unsigned served = 0;  // since it was even
  };

  void forgetIdle(Clock::time_point now);

  std::unordered_map<std::string, Client> clients_;
  std::deque<std::string> order_;  // of those that have calls
  std::size_t forgetAt_ = 64;
};

}  // namespace VornSdkRpc
