#pragma once

#include <VornSdkRpc/InstallAccounting.h>
#include <grpcpp/grpcpp.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include "tests/Test.grpc.pb.h"

namespace test {

// A server of gRPC's own threads with accounting, whose Echo answers with the status code that its
// text spells.
class EchoServer {
 public:
  explicit EchoServer(const std::shared_ptr<grpc::ServerCredentials>& credentials =
                          grpc::InsecureServerCredentials(),
                      const std::string& address = "127.0.0.1:0")
      : address_(address) {
    int port = 0;
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address, credentials, &port);
    builder.RegisterService(&service_);
    VornSdkRpc::installAccounting(builder);
    server_ = builder.BuildAndStart();
    if (address_.ends_with(":0")) address_.replace(address_.size() - 1, 1, std::to_string(port));
  }

  // Lets the calls in progress end, and returns when the accounting is complete.
  void stop() {
    server_->Shutdown();
    server_.reset();
  }

  // A stub with a connection of its own.
  std::unique_ptr<Probe::Stub> stub(const std::shared_ptr<grpc::ChannelCredentials>& with =
                                        grpc::InsecureChannelCredentials()) const {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return Probe::NewStub(grpc::CreateCustomChannel(address_, with, arguments));
  }

  // The most values of "session-id" that the connection of a call has had.
  std::size_t sessionsPerConnection() const { return service_.sessionsPerConnection; }

 private:
  struct Service : Probe::Service {
    grpc::Status Echo(grpc::ServerContext* context, const Text* text, Text*) override {
      if (const auto caller = context->auth_context()) {
        const auto sessions = caller->FindPropertyValues("session-id").size();
        if (sessions > sessionsPerConnection) sessionsPerConnection = sessions;
      }
      return {static_cast<grpc::StatusCode>(std::stoi(text->text())), "text that is not recorded"};
    }

    std::atomic<std::size_t> sessionsPerConnection = 0;
  };

  std::string address_;
  Service service_;
  std::unique_ptr<grpc::Server> server_;
};

// One Echo; answers its status code.
inline int callEcho(Probe::Stub& stub, const std::string& text,
                    const std::multimap<std::string, std::string>& metadata = {}) {
  grpc::ClientContext context;
  for (const auto& [key, value] : metadata)
    context.AddMetadata(key, value);
  Text request;
  request.set_text(text);
  Text reply;
  return stub.Echo(&context, request, &reply).error_code();
}

}  // namespace test
