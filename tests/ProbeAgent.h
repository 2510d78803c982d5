#pragma once

#include <VornSdkRpc/GrpcServer.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ProbeServer.h"

namespace test {

// Answers Probe.Unary on the library's server, with calls asked for ahead, and counts its answers.
class AsyncProbeService : public VornSdkRpc::GrpcService {
 public:
  AsyncProbeService() : GrpcService("probe") {}

  int answers() const { return answers_; }

 private:
  class Unary : public VornSdkRpc::RequestHandler {
   public:
    Unary(AsyncProbeService& service, VornSdkRpc::OpaqueId tag) : service_(service) {
      opaqueId_ = tag;
      service_.async_.RequestUnary(&context_, &call_, &responder_, service_.cq_, service_.cq_, tag);
    }
    void proceed(VornSdkRpc::OpaqueId tag) override {
      ++service_.answers_;
      responder_.Finish(Reply(), grpc::Status::OK, tag);
    }
    VornSdkRpc::RequestHandlerPtr spawn(VornSdkRpc::OpaqueId tag) override {
      return std::make_shared<Unary>(service_, tag);
    }

   private:
    AsyncProbeService& service_;
    grpc::ServerContext context_;
    Call call_;
    grpc::ServerAsyncResponseWriter<Reply> responder_{&context_};
  };

  void registerWith(grpc::ServerBuilder& builder) override { builder.RegisterService(&async_); }
  void serverStarted() override { registerHandler(std::make_shared<Unary>(*this, nextOpaqueId())); }

  accounting_test::Probe::AsyncService async_;
  std::atomic<int> answers_ = 0;
};

// The library's server on a thread of its own, with accounting or without.
class ProbeAgent {
 public:
  explicit ProbeAgent(bool accounting = true) {
    builder_.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    if (accounting) accountingIs(builder_);
    server_ =
        std::make_unique<VornSdkRpc::GrpcServer>(builder_, std::vector{asService()}, properties_);
    server_->setup();
    thread_ = std::jthread([this] {
      while (!stopping_)
        server_->dequeue();
      server_->teardown();
    });
  }

  // Returns when the accounting is complete.
  void stop() {
    server_->stop();
    stopping_ = true;
    thread_.join();
    server_.reset();
  }

  int answers() const { return service_->answers(); }

  int port() const { return port_; }

  std::shared_ptr<grpc::Channel> channel() const {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return grpc::CreateCustomChannel("127.0.0.1:" + std::to_string(port_),
                                     grpc::InsecureChannelCredentials(), arguments);
  }

 private:
  std::shared_ptr<VornSdkRpc::GrpcService> asService() const { return service_; }

  grpc::ServerBuilder builder_;
  int port_ = 0;
  VornSdkRpc::ServerProperties properties_;
  std::shared_ptr<AsyncProbeService> service_ = std::make_shared<AsyncProbeService>();
  std::unique_ptr<VornSdkRpc::GrpcServer> server_;
  std::atomic<bool> stopping_ = false;
  std::jthread thread_;
};

}  // namespace test
