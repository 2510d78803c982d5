#pragma once

#include <string>

namespace routing_agent {

// Sends what gRPC itself has to say to the trace handle "grpc", level 8, instead of standard error:
// an operator reads the agent's own lines. To be called before any other use of gRPC.
void grpcLogToTrace();

// The operating system's error in the last line that gRPC logged as an error, such as "Address
// already in use"; empty when there was none.
std::string lastSystemError();

}  // namespace routing_agent
