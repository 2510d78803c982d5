#pragma once

#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/ServerArguments.h>
#include <vorn/export.h>

#include <chrono>
#include <memory>
#include <vector>

namespace VornSdkRpc {

// How serve() serves.
struct ServeOptions {
  ServerProperties properties = {};      // the network namespace to listen in
  ServerArguments arguments = {};        // what gRPC is told
  bool accounting = false;               // see InstallAccounting.h
  bool clientsTakeTurns = true;          // see GrpcServer::clientsTakeTurnsIs()
  std::chrono::milliseconds grace = {};  // of a drain, see StopOnSignal.h; none: a stop at once
  std::shared_ptr<Listener> listener =
      {};  // who accepts, beside gRPC's own listeners; none: nobody
};

// Serves the services until SIGINT or SIGTERM has come and the server has ended: what most agents'
// main() consists of.
//
//   grpc::ServerBuilder builder;
//   builder.AddListeningPort("127.0.0.1:50051", grpc::InsecureServerCredentials());
//   VornSdkRpc::serve(builder, {std::make_shared<MyService>()}, {.grace = 2s});
//
// It is made of parts that an agent with other needs puts together itself: checkNamespace(),
// installArguments(), installAccounting(), a GrpcServer and a StopOnSignal. Throws what these
// throw: vorn::configuration_error for the namespace, ServerFailedError when it can't listen. The
// services' last references that it was given go before it returns.
VORN_EXPORT void serve(grpc::ServerBuilder& builder,
                       std::vector<std::shared_ptr<GrpcService>> services,
                       const ServeOptions& options = {});

}  // namespace VornSdkRpc
