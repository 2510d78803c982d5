#pragma once

#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/Accounting.grpc.pb.h"

namespace test {

using accounting_test::Call;
using accounting_test::Reply;
using Stub = accounting_test::Probe::Stub;

inline Call callFor(int status) {
  Call call;
  call.set_status(status);
  return call;
}

inline void accountingIs(grpc::ServerBuilder& builder) {
  std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> creators;
  creators.push_back(std::make_unique<VornSdkRpc::LoggingInterceptorFactory>());
  builder.experimental().SetInterceptorCreators(std::move(creators));
}

// Answers every call with the status that its last message asks for.
class ProbeService : public accounting_test::Probe::Service {
 public:
  // How many unary calls have arrived that wait until they are cancelled.
  int waiting() const { return waiting_; }

  // The most values of "session-id" that a unary call's connection has had.
  std::size_t sessionsPerConnection() const { return sessionsPerConnection_; }

 private:
  grpc::Status Unary(grpc::ServerContext* context, Call const* call, Reply*) override {
    if (const auto caller = context->auth_context()) {
      const auto sessions = caller->FindPropertyValues("session-id").size();
      if (sessions > sessionsPerConnection_) sessionsPerConnection_ = sessions;
    }
    if (call->until_cancelled()) ++waiting_;
    while (call->until_cancelled() && !context->IsCancelled())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return answer(*call);
  }
  grpc::Status Up(grpc::ServerContext*, grpc::ServerReader<Call>* reader, Reply*) override {
    Call call;
    while (reader->Read(&call)) {
    }
    return answer(call);
  }
  grpc::Status Down(grpc::ServerContext*, Call const* call,
                    grpc::ServerWriter<Reply>* writer) override {
    for (int i = 0; i < 3; ++i)
      writer->Write(Reply());
    return answer(*call);
  }
  grpc::Status Both(grpc::ServerContext*, grpc::ServerReaderWriter<Reply, Call>* stream) override {
    Call call;
    while (stream->Read(&call))
      stream->Write(Reply());
    return answer(call);
  }

  static grpc::Status answer(Call const& call) {
    return {static_cast<grpc::StatusCode>(call.status()), "text that is not recorded"};
  }

  std::atomic<int> waiting_ = 0;
  std::atomic<std::size_t> sessionsPerConnection_ = 0;
};

// A server of gRPC's own threads, with accounting.
class ProbeServer {
 public:
  explicit ProbeServer(std::shared_ptr<grpc::ServerCredentials> const& credentials =
                           grpc::InsecureServerCredentials(),
                       std::string const& address = "127.0.0.1:0")
      : address_(address) {
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address, credentials, &port_);
    builder.RegisterService(&service_);
    accountingIs(builder);
    server_ = builder.BuildAndStart();
  }

  // Lets the calls in progress end, and returns when the accounting is complete.
  void stop() {
    server_->Shutdown();
    server_.reset();
  }

  ProbeService const& service() const { return service_; }
  std::string address() const {
    if (!address_.ends_with(":0")) return address_;
    return address_.substr(0, address_.size() - 1) + std::to_string(port_);
  }

  // A channel with a connection of its own.
  std::shared_ptr<grpc::Channel> channel(std::shared_ptr<grpc::ChannelCredentials> const& with =
                                             grpc::InsecureChannelCredentials()) const {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return grpc::CreateCustomChannel(address(), with, arguments);
  }

 private:
  ProbeService service_;
  std::string address_;
  int port_ = 0;
  std::unique_ptr<grpc::Server> server_;
};

// One unary call; answers its status.
inline grpc::Status callUnary(
    Stub& stub, Call const& call = Call(),
    std::unique_ptr<grpc::ClientContext> context = std::make_unique<grpc::ClientContext>()) {
  Reply reply;
  return stub.Unary(context.get(), call, &reply);
}

// A call of a method that nobody implements.
inline grpc::Status callUnknownMethod(std::shared_ptr<grpc::Channel> const& channel) {
  grpc::TemplatedGenericStub<Call, Reply> stub(channel);
  grpc::ClientContext context;
  Call call;
  Reply reply;
  std::promise<grpc::Status> answer;
  stub.UnaryCall(&context, "/no.such.Service/Method", grpc::StubOptions(), &call, &reply,
                 [&](grpc::Status status) { answer.set_value(std::move(status)); });
  return answer.get_future().get();
}

}  // namespace test
