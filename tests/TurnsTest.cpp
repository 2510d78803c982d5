// Clients that take turns: what one client has in flight does not hold up another one.
#include <Kiv/Log.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/InstallAccounting.h>
#include <VornSdkRpc/Rpc.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/Capture.h"
#include "tests/RawClient.h"
#include "tests/RawFrames.h"
#include "tests/Test.grpc.pb.h"

namespace test {
namespace {

namespace rpc = VornSdkRpc::rpc;

constexpr int kMany = 40;

// Notes whose calls are served, each after a millisecond's work.
class Busy : public rpc::Service<Probe> {
 public:
  explicit Busy(bool coroutine) : Service("Busy") {
    if (coroutine) {
      method(&Async::RequestEcho, [this](rpc::Call&, const Text& text, Text&) -> rpc::Task<> {
        serve(text);
        co_return grpc::Status::OK;
      });
    } else {
      method(&Async::RequestEcho, [this](const Text& text, Text&) {
        serve(text);
        return grpc::Status::OK;
      });
    }
  }

  std::vector<std::string> served;

 private:
  void serve(const Text& text) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
    while (std::chrono::steady_clock::now() < end) {
    }
    served.push_back(text.text());
  }
};

// A server that the test drives, with two clients: one is busy, over TCP, and one is quiet, on a
// Unix socket. What they send is there for the server as soon as it is sent.
class Scene {
 public:
  explicit Scene(bool coroutine) : busyService(std::make_shared<Busy>(coroutine)) {
    const std::string socket = "unix:" + directory_.string() + "/socket";
    int port = 0;
    builder_.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
    builder_.AddListeningPort(socket, grpc::InsecureServerCredentials());
    VornSdkRpc::installAccounting(
        builder_);  // whose interceptors hold up the notice of a call's end
    server = std::make_unique<VornSdkRpc::GrpcServer>(
        builder_, std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>{busyService}, properties_,
        true);
    server->clientsTakeTurnsIs(true);
    server->setup();
    tags = server->tagManager().size();
    address = "127.0.0.1:" + std::to_string(port);
    EXPECT_TRUE(busy.connectTo(address));
    EXPECT_TRUE(quiet.connectTo(socket));
    for (auto* client : {&busy, &quiet}) {
      EXPECT_TRUE(client->send(kHello));
      server->dequeue();  // until nothing happens
      EXPECT_TRUE(client->isServed());
    }
  }
  ~Scene() {
    server.reset();
    std::filesystem::remove_all(directory_);
  }

  static std::string echo(std::uint32_t stream, const std::string& text) {
    Text request;
    request.set_text(text);
    return call(stream, "Echo") + frame(DATA, stream, message(request.SerializeAsString()), 1);
  }
  static std::string many() {
    std::string calls;
    for (std::uint32_t i = 0; i < kMany; ++i)
      calls += echo(2 * i + 1, "busy");
    return calls;
  }
  void serve(std::size_t calls) {
    while (busyService->served.size() < calls)
      server->dequeue();
  }

  const Capture log{Kiv::platformLogger()};
  const std::shared_ptr<Busy> busyService;
  std::unique_ptr<VornSdkRpc::GrpcServer> server;
  std::string address;   // of TCP
  std::size_t tags = 0;  // of the calls that are asked for
  RawClient busy, quiet;

 private:
  static std::filesystem::path makeDirectory() {
    std::string path = (std::filesystem::temp_directory_path() / "turnsXXXXXX").string();
    return mkdtemp(path.data());
  }

  const std::filesystem::path directory_ = makeDirectory();
  grpc::ServerBuilder builder_;
  VornSdkRpc::ServerProperties properties_;
};

class Turns : public testing::TestWithParam<bool> {};
INSTANTIATE_TEST_SUITE_P(FunctionAndCoroutine, Turns, testing::Bool());

TEST_P(Turns, OneClientsCallsDoNotHoldUpAnothers) {
  Scene scene(GetParam());
  ASSERT_TRUE(scene.busy.send(Scene::many()));
  ASSERT_TRUE(scene.quiet.send(Scene::echo(1, "quiet")));
  scene.serve(kMany + 1);
  const auto& served = scene.busyService->served;
  EXPECT_EQ(std::ranges::count(served, "quiet"), 1);
  EXPECT_LT(std::ranges::find(served, "quiet") - served.begin(), kMany / 2);
}

TEST_P(Turns, ACallThatEndsWhileItWaitsLeavesNothing) {
  Scene scene(GetParam());
  ASSERT_TRUE(scene.busy.send(Scene::many()));
  while (scene.server->tagManager().size() < scene.tags + kMany / 2 &&
         scene.busyService->served.size() < kMany / 2)
    scene.server->dequeue();
  std::string resets;
  for (std::uint32_t i = kMany - 10; i < kMany; ++i)
    resets += frame(RST_STREAM, 2 * i + 1, number(8, 4));
  ASSERT_TRUE(scene.busy.send(resets));
  while (scene.server->tagManager().size() > scene.tags || scene.busyService->served.empty())
    scene.server->dequeue();
  EXPECT_GE(scene.busyService->served.size(), kMany - 10);
}

// The calls of a client that ends up with more of them than may be served at once.
class ManyCalls {
 public:
  explicit ManyCalls(const std::string& address)
      : stub_(Probe::NewStub(grpc::CreateChannel(address, grpc::InsecureChannelCredentials()))) {
    request_.set_text("many");
    for (auto& call : calls_)
      call.reader = stub_->AsyncEcho(&call.context, request_, &queue_);
    for (auto& call : calls_)
      call.reader->Finish(&call.reply, &call.status, &call);
  }
  ~ManyCalls() { queue_.Shutdown(); }

  // Waits until every call has ended, and returns how many were answered by the service.
  std::size_t answered() {
    void* tag = nullptr;
    bool ok = false;
    for (std::size_t i = 0; i < calls_.size(); ++i)
      EXPECT_TRUE(queue_.Next(&tag, &ok));
    return static_cast<std::size_t>(
        std::ranges::count_if(calls_, [](const Call& call) { return call.status.ok(); }));
  }

 private:
  struct Call {
    grpc::ClientContext context;
    Text reply;
    grpc::Status status;
    std::unique_ptr<grpc::ClientAsyncResponseReader<Text>> reader;
  };

  grpc::CompletionQueue queue_;
  const std::unique_ptr<Probe::Stub> stub_;
  Text request_;
  std::array<Call, kMany> calls_;
};

TEST_P(Turns, AStopAndADrainEndWhatWaits) {
  for (const bool drain : {false, true}) {
    SCOPED_TRACE(drain ? "drain" : "stop");
    Scene scene(GetParam());
    scene.busy = RawClient();  // which would not leave when it is told to
    scene.quiet = RawClient();
    ManyCalls calls(scene.address);
    scene.serve(4);
    const auto arrived = (scene.server->tagManager().size() - scene.tags) / 2;  // two tags each
    if (drain) {
      scene.server->stop(std::chrono::minutes(1));
      while (!scene.server->stopRequested())
        scene.server->dequeue();
    } else {
      scene.server->stop();
    }
    scene.server->teardown();
    const auto answered = calls.answered();
    EXPECT_EQ(answered, scene.busyService->served.size());
    EXPECT_TRUE(drain ? answered >= arrived : answered < kMany);
    scene.server.reset();
    EXPECT_EQ(scene.log.count("VORNSDKRPC_ACCOUNTING_RPC"), answered);
  }
}

}  // namespace
}  // namespace test
