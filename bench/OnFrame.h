#pragma once

#include <VornSdkRpc/GrpcServer.h>

#include <algorithm>
#include <chrono>
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
    server_->listenerIs(listener_);
    server_->clientsTakeTurnsIs(turns_);
    if (!counts_.timesPolls) return server_->run();
    server_->setup();
    while (!server_->stopRequested())
      poll();
    server_->teardown();
  }

  void listenerIs(std::shared_ptr<VornSdkRpc::Listener> listener) override {
    listener_ = std::move(listener);
  }

  void clientsTakeTurns() override { turns_ = true; }

  void stop() override { server_->stop(); }

 private:
  void poll() {
    const auto before = std::chrono::steady_clock::now();
    server_->dequeue();
    const std::chrono::duration<double, std::milli> took =
        std::chrono::steady_clock::now() - before;
    counts_.longestPollMs = std::max(counts_.longestPollMs.load(), took.count());
  }

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
  std::shared_ptr<VornSdkRpc::Listener> listener_;
  bool turns_ = false;
  VornSdkRpc::ServerProperties properties_;
  std::unique_ptr<VornSdkRpc::GrpcServer> server_;
};

}  // namespace bench
