#pragma once

#include <grpcpp/server_builder.h>
#include <vorn/export.h>

namespace VornSdkRpc {

// Turns RPC accounting on for the server that the builder builds: every call that it answers is one
// line in the platform log (see VornSdkRpcAgentRpcLogger.h). To be called before
// GrpcServer::setup().
//
// A builder has one list of interceptor factories, and this is all of it: an agent with
// interceptors of its own puts a LoggingInterceptorFactory into its list instead. Throws
// std::system_error when the thread that writes the records can't be started.
VORN_EXPORT void installAccounting(grpc::ServerBuilder& builder);

}  // namespace VornSdkRpc
