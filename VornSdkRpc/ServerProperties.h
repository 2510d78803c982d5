#pragma once

#include <string>

namespace VornSdkRpc {

// The agent's server-wide settings. The agent owns them and keeps them alive as long as its
// GrpcServer; every service can read them once it is started.
struct ServerProperties {
  // The network namespace that the server listens in, by the name that `ip netns` knows it under.
  // Empty: the namespace of the thread that calls GrpcServer::setup(). The thread is inside only
  // while the server is built: connections that an agent opens itself go out where it was started.
  // Threads that gRPC starts for synchronous services, its reflection among them, stay inside.
  std::string nsName;
};

}  // namespace VornSdkRpc
