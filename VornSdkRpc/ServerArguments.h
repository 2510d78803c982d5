#pragma once

#include <grpcpp/server_builder.h>
#include <vorn/export.h>

#include <chrono>

namespace VornSdkRpc {

// What a server should tell gRPC that does not suit it by itself. gRPC's own defaults let a stop
// wait for a quarter of an hour, one client hold any amount of memory, and two agents share a port
// without a word. An agent names what it wants otherwise:
//
//   VornSdkRpc::installArguments(builder, {.maxConcurrentStreams = 16384});
//
// A time or number that is not positive means no limit.
struct ServerArguments {
  // A connection that has been silent for so long is pinged, with calls or without, and closed when
  // the ping is not answered within the timeout. A stop waits until every connection is closed, and
  // this is what closes one whose peer has vanished or reads no more.
  std::chrono::milliseconds keepaliveTime = std::chrono::seconds(10);
  std::chrono::milliseconds keepaliveTimeout = std::chrono::seconds(1);

  // A peer that connects and says nothing is given up after so long.
  std::chrono::milliseconds handshakeTimeout = std::chrono::seconds(10);

  // How many calls one connection may have in progress; gRPC's client waits before it starts more.
  int maxConcurrentStreams = 1000;

  // A larger message ends its call with RESOURCE_EXHAUSTED. In bytes, as sent.
  int maxReceiveMessageBytes = 1 << 20;

  // Whether another process may listen on the same TCP port, each with a share of the connections.
  // If not, a taken port is a ServerFailedError.
  bool sharedPort = false;
};

// Gives the arguments to the builder, in place of gRPC's own. To be called once, before
// GrpcServer::setup().
VORN_EXPORT void installArguments(grpc::ServerBuilder& builder,
                                  const ServerArguments& arguments = {});

}  // namespace VornSdkRpc
