#pragma once

#include <grpc/grpc.h>

namespace VornSdkRpc {

// Tells the client of each connection to make its further calls on another one (HTTP/2's GOAWAY),
// while the server goes on to take those that are on their way: gRPC's own shutdown cancels these.
// A connection closes when its last call has ended. Returns at once: false where gRPC can't do it.
// Any thread.
bool tellClientsToLeave(grpc_server* server);

}  // namespace VornSdkRpc
