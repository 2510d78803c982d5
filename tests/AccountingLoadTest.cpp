// Many calls at once through the whole of the library's server: as many records as answers. The
// environment variable VORN_LOAD_CALLS sets how many; 100000 is the size to try before a release.
#include <Kiv/Log.h>
#include <VornSdkRpc/GrpcServer.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <mutex>

#include "Capture.h"
#include "ProbeServer.h"

namespace {

using accounting_test::Probe;

int loadCalls() {
  char const* text = std::getenv("VORN_LOAD_CALLS");
  return text != nullptr ? std::atoi(text) : 2000;
}

// Answers Probe.Unary on the library's server and counts its answers.
class ProbeService : public VornSdkRpc::GrpcService {
 public:
  ProbeService() : GrpcService("probe") {}

  int answers() const { return answers_; }

 private:
  class Unary : public VornSdkRpc::RequestHandler {
   public:
    Unary(ProbeService& service, VornSdkRpc::OpaqueId tag) : service_(service) {
      opaqueId_ = tag;
      service_.async_.RequestUnary(&context_, &call_, &responder_, service_.cq_, service_.cq_, tag);
    }
    void proceed(VornSdkRpc::OpaqueId tag) override {
      ++service_.answers_;
      responder_.Finish(test::Reply(), grpc::Status::OK, tag);
    }
    VornSdkRpc::RequestHandlerPtr spawn(VornSdkRpc::OpaqueId tag) override {
      return std::make_shared<Unary>(service_, tag);
    }

   private:
    ProbeService& service_;
    grpc::ServerContext context_;
    test::Call call_;
    grpc::ServerAsyncResponseWriter<test::Reply> responder_{&context_};
  };

  void registerWith(grpc::ServerBuilder& builder) override { builder.RegisterService(&async_); }
  void serverStarted() override { registerHandler(std::make_shared<Unary>(*this, nextOpaqueId())); }

  Probe::AsyncService async_;
  std::atomic<int> answers_ = 0;
};

// The library's server on a thread of its own.
class Agent {
 public:
  Agent() {
    builder_.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port_);
    test::accountingIs(builder_);
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
    stopping_ = true;
    server_->stop();
    thread_.join();
    server_.reset();
  }

  int answers() const { return service_->answers(); }

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
  std::shared_ptr<ProbeService> service_ = std::make_shared<ProbeService>();
  std::unique_ptr<VornSdkRpc::GrpcServer> server_;
  std::atomic<bool> stopping_ = false;
  std::jthread thread_;
};

// Four clients that make `calls` calls between them, or as many as are answered.
class Load {
 public:
  template <typename Server>
  Load(Server const& server, int calls) : left_(calls) {
    for (int i = 0; i < 4; ++i) {
      clients_.emplace_back([this, stub = std::make_shared<test::Stub>(server.channel())] {
        while (left_-- > 0) {
          const bool ok = test::callUnary(*stub).ok();
          ++(ok ? answered_ : failed_);
          answered_.notify_all();
          if (!ok) return;
        }
      });
    }
  }

  void waitForAnswers(int count) const {
    for (int seen = answered_; seen < count; seen = answered_)
      answered_.wait(seen);
  }
  void finish() { clients_.clear(); }

  int answered() const { return answered_; }
  int failed() const { return failed_; }

 private:
  std::atomic<int> left_;
  std::atomic<int> answered_ = 0;
  std::atomic<int> failed_ = 0;
  std::vector<std::jthread> clients_;
};

int records(test::Capture const& log) {
  return static_cast<int>(log.count("rpc: /accounting_test.Probe/Unary, status: 0"));
}

TEST(AccountingLoad, EveryAnswerIsOneRecord) {
  const test::Capture log(Kiv::platformLogger());
  Agent agent;
  Load load(agent, loadCalls());
  load.finish();
  EXPECT_EQ(test::callUnknownMethod(agent.channel()).error_code(), grpc::UNIMPLEMENTED);
  agent.stop();
  EXPECT_EQ(load.answered(), loadCalls());
  EXPECT_EQ(records(log), loadCalls());
  EXPECT_EQ(log.count("rpc: /no.such.Service/Method, status: 12"), 1U);
  EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(loadCalls()) + 1);
}

// An answer that is under way when the connections are cut may not get to its client: the records
// are exactly the answers sent, and the clients bound them from both sides.
TEST(AccountingLoad, AStopInTheMiddleLosesNoRecord) {
  const test::Capture log(Kiv::platformLogger());
  Agent agent;
  Load load(agent, loadCalls());
  load.waitForAnswers(loadCalls() / 2);
  agent.stop();
  load.finish();
  EXPECT_EQ(records(log), agent.answers());
  EXPECT_GE(records(log), load.answered());
  EXPECT_LE(records(log), load.answered() + load.failed());
  EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(records(log)));
}

// A stop that lets calls in progress end, so that every answer does get to its client.
TEST(AccountingLoad, AGracefulStopInTheMiddleLeavesARecordForEachAnswer) {
  const test::Capture log(Kiv::platformLogger());
  test::ProbeServer server;
  Load load(server, loadCalls());
  load.waitForAnswers(loadCalls() / 2);
  server.stop();
  load.finish();
  EXPECT_EQ(records(log), load.answered());
  EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(records(log)));
}

}  // namespace
