#pragma once

#include <string>

// What can be told about a place to listen before gRPC tries it. Both throw UsageError.
namespace routing_agent {

// A namespace that can't be entered would end the process in the middle of GrpcServer::setup().
void checkNamespace(const std::string& name);

// gRPC takes over the socket file of a server that still runs.
void checkSocketFile(const std::string& address);

}  // namespace routing_agent
