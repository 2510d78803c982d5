#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/Testing.h>
#include <gmock/gmock.h>

#include <latch>
#include <stdexcept>
#include <thread>

#include "tests/Calls.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using VornSdkRpc::testing::call;
using VornSdkRpc::testing::TestServer;

std::vector<std::string> recordsOf(TestServer& server) {
  std::vector<std::string> lines;
  for (const auto& record : server.records())
    lines.push_back(record.user + " " + record.session + " " + record.rpc + " " +
                    std::to_string(record.status));
  return lines;
}

TEST(Testing, ServesAndAccountsInTheProcessAndOnASocket) {
  for (const bool socket : {false, true}) {
    TestServer server({std::make_shared<ProbeService>()}, {.socket = socket});
    EXPECT_THAT(server.records(), testing::IsEmpty());
    const auto stub = server.stub<Probe>();
    EXPECT_EQ(echo(*stub, "hello").reply.text(), "hello");
    EXPECT_EQ(echo(*stub, "fail").status.error_code(), grpc::StatusCode::NOT_FOUND);
    streamAHundredEachWay(*stub);
    EXPECT_THAT(recordsOf(server), testing::ElementsAre("unknown unknown /test.Probe/Echo 0",
                                                        "unknown unknown /test.Probe/Echo 5",
                                                        "unknown unknown /test.Probe/Collect 0",
                                                        "unknown unknown /test.Probe/Tick 0"));
    EXPECT_EQ(server.finish(), "");
  }
}

TEST(Testing, GivesEachConnectionItsIdentity) {
  TestServer server({std::make_shared<ProbeService>()}, {.socket = true});
  const auto alice = server.stub<Probe>({{"peer-authenticated", "alice"}, {"session-id", "7"}});
  const auto nobody = server.stub<Probe>();
  for (int round = 0; round < 2; ++round) {
    for (auto* stub : {alice.get(), nobody.get()})
      EXPECT_TRUE(echo(*stub).status.ok());
  }
  EXPECT_THAT(
      recordsOf(server),
      testing::ElementsAre("alice 7 /test.Probe/Echo 0", "unknown unknown /test.Probe/Echo 0",
                           "alice 7 /test.Probe/Echo 0", "unknown unknown /test.Probe/Echo 0"));
}

TEST(Testing, RefusesWhatAChannelInTheProcessCantDo) {
  TestServer server({std::make_shared<ProbeService>()});
  EXPECT_THROW(server.channel({{"peer-authenticated", "alice"}}), std::logic_error);
  EXPECT_THROW(server.drain(1s), std::logic_error);
}

TEST(Testing, TurnsStepsByHand) {
  const auto probe = std::make_shared<ProbeService>();
  TestServer server({probe}, {.byHand = true});
  const auto stub = server.stub<Probe>();
  std::atomic<bool> answered = false;
  std::jthread client([&] {
    EXPECT_TRUE(call(*stub, &Probe::Stub::Echo, Text()).status.ok());
    answered = true;
  });
  EXPECT_EQ(probe->made, 4) << "nothing has been served yet";
  while (!server.step()) {
  }
  EXPECT_EQ(probe->made, 5) << "the call has arrived, and its successor is asked for";
  while (!answered)
    server.step();
  client.join();
  EXPECT_EQ(server.finish(), "");
}

TEST(Testing, DrainsOverASocket) {
  TestServer server({std::make_shared<ProbeService>()}, {.socket = true});
  const auto stub = server.stub<Probe>();
  grpc::ClientContext context;
  const auto chat = stub->Chat(&context);
  Text text;
  ASSERT_TRUE(chat->Write(text) && chat->Read(&text));
  std::jthread drain([&] { server.drain(1h); });
  while (call(*stub, &Probe::Stub::Echo, text).status.ok()) {
  }
  EXPECT_TRUE(chat->Write(text) && chat->Read(&text)) << "a call in progress goes on";
  chat->WritesDone();
  EXPECT_TRUE(chat->Finish().ok());
}

TEST(Testing, TellsWhatIsLeftBehind) {
  TestServer server({std::make_shared<ProbeService>()}, {.patience = 100ms});
  const auto stub = server.stub<Probe>();
  grpc::ClientContext context;
  const auto ticks = stub->Tick(&context, Count());  // without an end
  Text text;
  ASSERT_TRUE(ticks->Read(&text));
  EXPECT_FALSE(server.settle());
  std::latch goOn(1);
  std::jthread left([&] { goOn.wait(); });
  EXPECT_EQ(server.finish(), "calls are in progress\n1 threads run on\n");
  goOn.count_down();
  EXPECT_EQ(server.finish(), "") << "once";
}

// Answers an hour after it was asked.
struct LateService : VornSdkRpc::rpc::Service<Mirror> {
  LateService() : Service("Late") {
    method(&Async::RequestReflect,
           [this](VornSdkRpc::rpc::Call& call, const Text&, Text&) -> VornSdkRpc::rpc::Task<> {
             const auto end = call.now() + 1h;  // however late it waits once it has arrived
             ++arrived;
             co_await call.wait(end);
             co_return grpc::Status::OK;
           });
  }
  std::atomic<int> arrived = 0;
};

TEST(Testing, TurnsTimeByHand) {
  const auto late = std::make_shared<LateService>();
  TestServer server({late});
  server.advance(0s);
  const auto stub = server.stub<Mirror>();
  std::jthread client(
      [&] { EXPECT_TRUE(call(*stub, &Mirror::Stub::Reflect, Text()).status.ok()); });
  waitUntil([&] { return late->arrived != 0; }, "the call has arrived");
  server.advance(59min);
  server.advance(1min);
  client.join();
  EXPECT_EQ(server.finish(), "");
}

TEST(Testing, TellsWhatACallOfTheKitWaitsFor) {
  const auto late = std::make_shared<LateService>();
  TestServer server({late}, {.patience = 100ms});
  const auto stub = server.stub<Mirror>();
  std::jthread client(
      [&] { EXPECT_FALSE(call(*stub, &Mirror::Stub::Reflect, Text()).status.ok()); });
  waitUntil([&] { return late->arrived != 0; }, "the call has arrived");
  EXPECT_THAT(server.finish(), testing::AllOf(testing::StartsWith("/test.Mirror/Reflect of "),
                                              testing::HasSubstr(" waits for a time")));
}

TEST(TestingDeathTest, AbortsWhenNobodyHasAskedWhatIsLeft) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        std::jthread left;
        TestServer server({}, {.patience = 1ms});
        left = std::jthread([] { std::this_thread::sleep_for(1h); });
      },
      "A TestServer has left something behind:\n1 threads run on");
}

TEST(Testing, PassesOnWhatTheStartThrows) {
  struct Fails : VornSdkRpc::GrpcService {
    Fails() : GrpcService("Fails") {}
    void registerWith(grpc::ServerBuilder&) override {}
    void serverStarted() override { throw std::runtime_error("no table"); }
  };
  for (const bool byHand : {false, true})
    EXPECT_THROW(TestServer({std::make_shared<Fails>()}, {.byHand = byHand}), std::runtime_error);
}

}  // namespace
}  // namespace test
