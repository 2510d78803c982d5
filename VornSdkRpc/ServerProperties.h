#pragma once

#include <string>

namespace VornSdkRpc {

// The agent's server-wide settings. The agent owns them and keeps them alive as long as its
// GrpcServer; every service can read them once it is started.
struct ServerProperties {
  // The network namespace that the server listens in, by the name that `ip netns` knows it under.
  // Empty: the namespace of the thread that calls GrpcServer::setup().
  std::string nsName;
};

}  // namespace VornSdkRpc
