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

  // Whether clients may compress their messages (gzip, deflate). gRPC inflates a message before it
  // looks at its size: a megabyte becomes a gigabyte. If not, a compressed one ends its call with
  // UNIMPLEMENTED, and no answer is compressed.
  bool compression = false;

  // How many threads gRPC may start for the services that it serves on threads of its own, its
  // reflection for one, where every open stream takes one. One call more ends with
  // RESOURCE_EXHAUSTED. An agent with synchronous services of its own names how many it needs.
  int maxThreads = 16;

  // How much memory gRPC may take for its connections and calls, in bytes. Beyond it gRPC closes
  // connections and cancels calls, and not only those of whoever took it: a limit for where the end
  // of the process would be worse.
  long long maxMemoryBytes = 0;

  // Whether another process may listen on the same TCP port, each with a share of the connections.
  // If not, a taken port is a ServerFailedError.
  bool sharedPort = false;
};

// Gives the arguments to the builder, in place of gRPC's own. To be called once, before
// GrpcServer::setup().
VORN_EXPORT void installArguments(grpc::ServerBuilder& builder,
                                  const ServerArguments& arguments = {});

}  // namespace VornSdkRpc
