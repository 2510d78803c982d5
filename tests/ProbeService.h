#pragma once

#include <VornSdkRpc/GrpcServer.h>
#include <grpcpp/generic/generic_stub.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/Accounted.h"
#include "tests/Test.grpc.pb.h"

namespace test {

// The Probe service, written by hand on the frame: one handler class per method. It counts the
// handlers that are alive, and how many were ever made.
class ProbeService : public VornSdkRpc::GrpcService {
 public:
  ProbeService() : GrpcService("Probe") {}

  std::atomic<int> alive = 0;
  std::atomic<int> made = 0;
  std::atomic<int> stopNotices = 0;

  Probe::AsyncService async;

  grpc::ServerCompletionQueue* queue() const { return cq_; }

 private:
  void registerWith(grpc::ServerBuilder& builder) override { builder.RegisterService(&async); }
  void serverStarted() override;
  void stoppingChanged() override { ++stopNotices; }

  template <typename Handler>
  void open() {
    registerHandler(std::make_shared<Handler>(*this, nextOpaqueId()));
  }
};

// What the four handlers share.
template <typename Derived>
class ProbeHandler : public VornSdkRpc::RequestHandler {
 public:
  ProbeHandler(ProbeService& service, VornSdkRpc::OpaqueId tag) : service_(service) {
    opaqueId_ = tag;
    ++service_.alive;
    ++service_.made;
  }
  ~ProbeHandler() override { --service_.alive; }

  VornSdkRpc::RequestHandlerPtr spawn(VornSdkRpc::OpaqueId tag) override {
    return std::make_shared<Derived>(service_, tag);
  }

 protected:
  bool ok() const { return service_.completionOk(); }

  ProbeService& service_;
  grpc::ServerContext context_;
};

class EchoHandler : public ProbeHandler<EchoHandler> {
 public:
  EchoHandler(ProbeService& service, VornSdkRpc::OpaqueId tag) : ProbeHandler(service, tag) {
    service.async.RequestEcho(&context_, &text_, &writer_, service.queue(), service.queue(), tag);
  }

  void proceed(VornSdkRpc::OpaqueId tag) override {
    if (text_.text() == "fail") {
      writer_.FinishWithError({grpc::StatusCode::NOT_FOUND, "asked to fail"}, tag);
    } else {
      writer_.Finish(text_, grpc::Status::OK, tag);
    }
  }

 private:
  Text text_;
  grpc::ServerAsyncResponseWriter<Text> writer_{&context_};
};

class CollectHandler : public ProbeHandler<CollectHandler> {
 public:
  CollectHandler(ProbeService& service, VornSdkRpc::OpaqueId tag) : ProbeHandler(service, tag) {
    service.async.RequestCollect(&context_, &reader_, service.queue(), service.queue(), tag);
  }

  void proceed(VornSdkRpc::OpaqueId tag) override {
    if (state_ == IN_PROGRESS) {
      if (!ok()) {
        state_ = FINISHED;
        reader_.Finish(count_, grpc::Status::OK, tag);
        return;
      }
      count_.set_count(count_.count() + 1);
    }
    state_ = IN_PROGRESS;
    reader_.Read(&text_, tag);
  }

 private:
  Text text_;
  Count count_;
  grpc::ServerAsyncReader<Count, Text> reader_{&context_};
};

class TickHandler : public ProbeHandler<TickHandler> {
 public:
  TickHandler(ProbeService& service, VornSdkRpc::OpaqueId tag) : ProbeHandler(service, tag) {
    service.async.RequestTick(&context_, &count_, &writer_, service.queue(), service.queue(), tag);
  }

  void proceed(VornSdkRpc::OpaqueId tag) override {
    if (state_ == AWAITING_CALL) {
      endless_ = count_.count() == 0;
      state_ = IN_PROGRESS;
    } else if (!ok()) {
      state_ = FINISHED;
      writer_.Finish(grpc::Status::CANCELLED, tag);
      return;
    } else if (endless_) {
      return;  // the stream stays open, with nothing outstanding
    }
    if (!endless_ && sent_ == count_.count()) {
      state_ = FINISHED;
      writer_.Finish(grpc::Status::OK, tag);
      return;
    }
    text_.set_text(std::to_string(sent_++));
    writer_.Write(text_, tag);
  }

 private:
  Count count_;
  Text text_;
  std::uint32_t sent_ = 0;
  bool endless_ = false;
  grpc::ServerAsyncWriter<Text> writer_{&context_};
};

// Reads under its primary tag and writes under an extra one.
class ChatHandler : public ProbeHandler<ChatHandler>,
                    public std::enable_shared_from_this<ChatHandler> {
 public:
  ChatHandler(ProbeService& service, VornSdkRpc::OpaqueId tag) : ProbeHandler(service, tag) {
    service.async.RequestChat(&context_, &stream_, service.queue(), service.queue(), tag);
  }

  void proceed(VornSdkRpc::OpaqueId tag) override {
    if (state_ == AWAITING_CALL) {
      state_ = IN_PROGRESS;
      writeTag_ = service_.assignExtraTag(shared_from_this());
      stream_.Read(&text_, opaqueId_);
    } else if (!ok()) {
      state_ = FINISHED;
      service_.removeHandler(writeTag_);
      stream_.Finish(grpc::Status::OK, opaqueId_);
    } else if (tag == opaqueId_) {
      stream_.Write(text_, writeTag_);
    } else {
      stream_.Read(&text_, opaqueId_);
    }
  }

 private:
  Text text_;
  VornSdkRpc::OpaqueId writeTag_ = nullptr;
  grpc::ServerAsyncReaderWriter<Text, Text> stream_{&context_};
};

inline void ProbeService::serverStarted() {
  open<EchoHandler>();
  open<CollectHandler>();
  open<TickHandler>();
  open<ChatHandler>();
}

// A connection of its own to an address, once it is made. gRPC 1.51's client sometimes takes a
// stale errno for a refusal and then fails calls for a second; waiting for the connection is not
// hurt by it.
inline std::shared_ptr<grpc::Channel> connected(
    const std::string& address, const std::shared_ptr<grpc::ChannelCredentials>& credentials =
                                    grpc::InsecureChannelCredentials()) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  auto channel = grpc::CreateCustomChannel(address, credentials, arguments);
  channel->WaitForConnected(gpr_inf_future(GPR_CLOCK_REALTIME));
  return channel;
}

// A call of a method that nobody implements. (With gRPC's callbacks instead of a queue, the thread
// sanitizer takes what gRPC hands to a thread of its own for a race.)
inline grpc::StatusCode callUnknownMethod(const std::shared_ptr<grpc::Channel>& channel,
                                          const std::string& method = "/no.such.Service/Method") {
  grpc::TemplatedGenericStub<Text, Text> stub(channel);
  grpc::ClientContext context;
  grpc::CompletionQueue queue;
  Text reply;
  grpc::Status status;
  const auto call = stub.PrepareUnaryCall(&context, method, {}, &queue);
  call->StartCall();
  call->Finish(&reply, &status, nullptr);
  void* tag = nullptr;
  bool ok = false;
  queue.Next(&tag, &ok);
  return status.error_code();
}

// Has a hundred texts collected, and a hundred sent by Tick.
inline void streamAHundredEachWay(Probe::Stub& stub) {
  grpc::ClientContext collecting, ticking;
  Count count;
  Text text;
  const auto writer = stub.Collect(&collecting, &count);
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(writer->Write(text));
  writer->WritesDone();
  EXPECT_TRUE(writer->Finish().ok());
  EXPECT_EQ(count.count(), 100U);

  const auto reader = stub.Tick(&ticking, count);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(reader->Read(&text));
    EXPECT_EQ(text.text(), std::to_string(i));
  }
  EXPECT_FALSE(reader->Read(&text));
  EXPECT_TRUE(reader->Finish().ok());
}

// A server of the given services on a loopback port of its own, run by a thread until it is
// stopped. With accounting, the records are complete when it has been destroyed.
class RunningServer {
 public:
  using Configure = std::function<void(grpc::ServerBuilder&)>;

  explicit RunningServer(std::vector<std::shared_ptr<VornSdkRpc::GrpcService>> services,
                         bool accounting = false, std::string host = "127.0.0.1")
      : RunningServer(std::move(services),
                      accounting ? &VornSdkRpc::installAccounting : Configure(), std::move(host)) {}

  // `configure`, if given, has its turn with the builder.
  RunningServer(std::vector<std::shared_ptr<VornSdkRpc::GrpcService>> services,
                const Configure& configure, std::string host = "127.0.0.1")
      : host_(std::move(host)),
        server_(listening(builder_, host_, port_, configure), with(std::move(services), started_),
                properties_),
        thread_([this] { server_.run(); }) {
    started_->running.get_future().wait();
  }
  ~RunningServer() { stop(); }

  void stop() {
    if (!thread_.joinable()) return;
    server_.stop();
    thread_.join();
  }

  // Drains, and returns when run() has: when the calls in progress have ended, or the grace has.
  void drain(std::chrono::milliseconds grace) {
    server_.stop(grace);
    thread_.join();
  }

  VornSdkRpc::GrpcServer& server() { return server_; }
  std::string address() const { return host_ + ":" + std::to_string(port_); }

  // A connection of its own, made by now: a shared one would hide what a second one does.
  std::shared_ptr<grpc::Channel> connection() const { return connected(address()); }
  std::unique_ptr<Probe::Stub> stub() const { return Probe::NewStub(connection()); }

 private:
  // The last service of the list: once it is started, all are.
  struct Started : VornSdkRpc::GrpcService {
    Started() : GrpcService("Started") {}
    void registerWith(grpc::ServerBuilder&) override {}
    void serverStarted() override { running.set_value(); }
    std::promise<void> running;
  };

  static grpc::ServerBuilder& listening(grpc::ServerBuilder& builder, const std::string& host,
                                        int& port, const Configure& configure) {
    if (configure) configure(builder);
    return builder.AddListeningPort(host + ":0", grpc::InsecureServerCredentials(), &port);
  }
  static std::vector<std::shared_ptr<VornSdkRpc::GrpcService>> with(
      std::vector<std::shared_ptr<VornSdkRpc::GrpcService>> services,
      const std::shared_ptr<Started>& last) {
    services.push_back(last);
    return services;
  }

  const std::string host_;
  int port_ = 0;
  grpc::ServerBuilder builder_;
  VornSdkRpc::ServerProperties properties_;
  std::shared_ptr<Started> started_ = std::make_shared<Started>();
  VornSdkRpc::GrpcServer server_;
  std::thread thread_;
};

}  // namespace test
