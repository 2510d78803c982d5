#pragma once

#include <VornSdkRpc/GrpcServer.h>

#include <functional>

#include "examples/routing_agent/RouteTable.h"
#include "examples/routing_agent/RoutingAgent.grpc.pb.h"

namespace routing_agent {

// The Routing service on a route table. Its request handlers, one class per method, stand in the
// .cpp file.
class RoutingService : public VornSdkRpc::GrpcService {
 public:
  // `onStarted` is called on the serving thread once the server listens.
  RoutingService(RouteTable& table, std::function<void()> onStarted);

  // What the handlers use.
  RouteTable& table() { return table_; }
  Routing::AsyncService& async() { return async_; }
  grpc::ServerCompletionQueue* queue() { return cq_; }

 private:
  void registerWith(grpc::ServerBuilder& builder) override;
  void serverStarted() override;

  RouteTable& table_;
  std::function<void()> onStarted_;
  Routing::AsyncService async_;
};

}  // namespace routing_agent
