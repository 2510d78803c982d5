#include <VornSdkRpc/GrpcServer.h>

#include "examples/minimal_agent/Minimal.grpc.pb.h"

using namespace VornSdkRpc;

struct EchoService : GrpcService {
  EchoService() : GrpcService("Echo") {}
  void registerWith(grpc::ServerBuilder& builder) override { builder.RegisterService(&async); }
  void serverStarted() override;
  grpc::ServerCompletionQueue* queue() { return cq_; }
  minimal_agent::Minimal::AsyncService async;
};

struct EchoHandler : RequestHandler {  // one object per call
  EchoHandler(EchoService& service, OpaqueId tag) : service(service) {
    opaqueId_ = tag;
    service.async.RequestEcho(&context, &text, &writer, service.queue(), service.queue(), tag);
  }
  void proceed(OpaqueId tag) override { writer.Finish(text, grpc::Status::OK, tag); }
  RequestHandlerPtr spawn(OpaqueId tag) override {
    return std::make_shared<EchoHandler>(service, tag);
  }
  EchoService& service;
  grpc::ServerContext context;
  minimal_agent::text_msg text;
  grpc::ServerAsyncResponseWriter<minimal_agent::text_msg> writer{&context};
};

void EchoService::serverStarted() {
  registerHandler(std::make_shared<EchoHandler>(*this, nextOpaqueId()));
}

int main() {
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:50052", grpc::InsecureServerCredentials());
  ServerProperties properties;
  GrpcServer(builder, {std::make_shared<EchoService>()}, properties).run();
}
