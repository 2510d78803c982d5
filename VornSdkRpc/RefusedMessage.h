#pragma once

#include <grpcpp/support/server_interceptor.h>

namespace VornSdkRpc {

// Whether a read that has brought no message has failed because gRPC has refused one, which is over
// the server's limit; the call has been ended with RESOURCE_EXHAUSTED then. (To a handler it looks
// like the end of the client's stream, where a read succeeds without a message.) To be asked by an
// interceptor, at POST_RECV_MESSAGE; false in a server that is no GrpcServer.
bool isRefusedMessage(grpc::experimental::ServerRpcInfo& info);

}  // namespace VornSdkRpc
