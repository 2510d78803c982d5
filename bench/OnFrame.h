#pragma once

#include <VornSdkRpc/GrpcServer.h>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "bench/EchoServers.h"

namespace bench {

// Runs a service on VornSdkRpc::GrpcServer.
class OnFrame : public Server {
 public:
  OnFrame(Counts& counts, std::shared_ptr<VornSdkRpc::GrpcService> service)
      : Server(counts), service_(std::move(service)) {}

  void run(grpc::ServerBuilder& builder, const std::function<void()>& listening) override {
    server_ = std::make_unique<VornSdkRpc::GrpcServer>(
        builder,
        std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>{service_,
                                                              std::make_shared<Last>(listening)},
        properties_);
    server_->run();
  }

  void stop() override { server_->stop(); }

 private:
  // Started after the others, when the server is ready.
  class Last : public VornSdkRpc::GrpcService {
   public:
    explicit Last(const std::function<void()>& listening)
        : GrpcService("Last"), listening_(listening) {}

   private:
    void registerWith(grpc::ServerBuilder&) override {}
    void serverStarted() override { listening_(); }

    std::function<void()> listening_;
  };

  std::shared_ptr<VornSdkRpc::GrpcService> service_;
  VornSdkRpc::ServerProperties properties_;
  std::unique_ptr<VornSdkRpc::GrpcServer> server_;
};

}  // namespace bench
