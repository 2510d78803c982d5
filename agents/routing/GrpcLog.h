#pragma once

namespace routing_agent {

// Sends what gRPC itself has to say to the trace handle "grpc", level 8, instead of standard error:
// an operator reads the agent's own lines. To be called before any other use of gRPC.
void grpcLogToTrace();

}  // namespace routing_agent
