// What goes wrong around a server, and what the server makes of it: no disk, clients
// that misbehave, everybody stopping it at once.

#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <gmock/gmock.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <latch>
#include <string_view>

#include "agents/routing/SbfdService.h"
#include "tests/Capture.h"
#include "tests/ProbeService.h"
#include "tests/RawClient.h"
#include "tests/RawFrames.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

using namespace std::string_literals;

// A ProbeService asks for four calls; nothing else is left once every call is over.
void waitUntilNoCallIsLeft(RunningServer& running) {
  waitUntil([&] { return running.server().tagManager().size() == 4; },
            "only the pending calls have tags");
}

// ------------------------------------------------------------------------------------------------
// No disk

TEST(FullDisk, IsToldOnceAndCostsNoCallAndNoOtherSinkARecord) {
  constexpr int kCalls = 100;
  const Capture trace(Kiv::traceLogger());
  const Capture log(Kiv::platformLogger());
  auto& sinks = Kiv::platformLogger().sinks();
  sinks.insert(sinks.begin(), std::make_shared<spdlog::sinks::basic_file_sink_mt>("/dev/full"));
  Kiv::platformLogger().flush_on(spdlog::level::trace);
  {
    RunningServer running({std::make_shared<ProbeService>()}, true);
    const auto stub = running.stub();
    for (int i = 0; i < kCalls; ++i)
      ASSERT_EQ(callEcho(*stub, "hello"), grpc::StatusCode::OK);
  }
  Kiv::platformLogger().flush_on(spdlog::level::off);
  EXPECT_EQ(log.count("rpc: /test.Probe/Echo, status: 0"), std::size_t{kCalls});
  EXPECT_EQ(trace.count("No space left on device"), 1U);
}

// ------------------------------------------------------------------------------------------------
// Clients that misbehave

std::string forEachStream(const std::function<std::string(std::uint32_t)>& frames) {
  std::string all;
  for (std::uint32_t stream = 1; stream < 100; stream += 2)
    all += frames(stream);
  return all;
}

const std::string kPing = frame(PING, 0, "are you?");
const std::string kNothing;
const std::string kEnd = "the server never sends this";

TEST(Clients, WhateverTheyDoTheOthersAreServedAndNothingStays) {
  const auto cancel = [](std::uint32_t stream) { return frame(RST_STREAM, stream, number(8, 4)); };
  const auto chat = [](std::uint32_t stream) { return call(stream, "Chat"); };
  Count count;
  count.set_count(1000000);
  const struct {
    const char* what;
    std::string bytes;
    int calls;          // that arrive, and the server is waited for to have seen them
    std::string then;   // sent after that
    std::string until;  // the server is waited for to answer this, or to hang up for kEnd
  } cases[] = {
      {"connect and say nothing", kNothing, 0, kNothing, kNothing},
      {"send half a greeting", kHello.substr(0, 10), 0, kNothing, kNothing},
      {"speak another protocol", "GET / HTTP/1.1\r\nHost: probe\r\n\r\n", 0, kNothing, kEnd},
      {"send garbage", kHello + std::string(3000, '\xa5'), 0, kNothing, kEnd},
      {"send half a header", kHello + call(1, "Echo").substr(0, 60), 0, kNothing, kNothing},
      {"send half a message",
       kHello + call(1, "Collect") + frame(DATA, 1, message("ab")) +
           frame(DATA, 1, message(std::string(100, 'x'))).substr(0, 50),
       1, kNothing, kNothing},
      {"send no message", kHello + call(1, "Chat") + frame(DATA, 1, "", 1), 1, kNothing, kNothing},
      {"stop reading",
       kHello + call(1, "Tick") + frame(DATA, 1, message(count.SerializeAsString()), 1), 1,
       kNothing, kNothing},
      {"cancel everything at once",
       kHello + forEachStream([&](auto stream) { return chat(stream) + cancel(stream); }) + kPing,
       0, kNothing, "are you?"},
      {"cancel everything later", kHello + forEachStream(chat), 50, forEachStream(cancel) + kPing,
       "are you?"},
  };
  const auto probe = std::make_shared<ProbeService>();
  RunningServer running({probe});
  const auto stub = running.stub();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<RawClient> clients(5);
    for (auto& client : clients) {
      const int arrived = probe->made + c.calls;
      ASSERT_TRUE(client.connectTo(running.address()) && client.send(c.bytes));
      waitUntil([&] { return probe->made >= arrived; }, "the calls have arrived");
      client.send(c.then);
      EXPECT_EQ(client.readUntil(c.until), c.until != kEnd);
    }
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(callEcho(*stub, "hello"), grpc::StatusCode::OK);
    clients.clear();
    waitUntilNoCallIsLeft(running);
  }
}

// ------------------------------------------------------------------------------------------------
// Everybody stops it

TEST(Stop, FromEightThreadsAtOnceUnderLoad) {
  using namespace routing_agent;
  Tables tables;
  Election election;
  Backlog backlog(std::chrono::milliseconds(0), 1 << 20);
  SbfdMonitor monitor;
  for (const char* interface : {"eth0", "eth1"}) {
    sbfd_echo_session_msg session;
    session.mutable_session_key()->set_outgoing_interface(interface);
    session.set_rtt_enabled(true);
    monitor.set(session);
  }
  const auto probe = std::make_shared<ProbeService>();
  auto running =
      std::make_unique<RunningServer>(std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>{
          probe, std::make_shared<SbfdService>(Workings{tables, backlog, election, {}}, monitor)});
  std::latch busy(16);
  std::vector<std::jthread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, stub = running->stub()] {
      for (bool first = true; callEcho(*stub, "hello") == grpc::StatusCode::OK; first = false) {
        if (first) busy.count_down();
      }
    });
    threads.emplace_back([&] {
      const auto stub = Sbfd::NewStub(
          grpc::CreateChannel(running->address(), grpc::InsecureChannelCredentials()));
      grpc::ClientContext context;
      watch_sbfd_echo_session_config_msg config;
      config.set_request_rtt_updates(true);
      const auto watch = stub->WatchSessions(&context, config);
      watch_sbfd_echo_session_status_msg item;
      for (bool first = true; watch->Read(&item); first = false) {
        if (first) busy.count_down();
      }
    });
  }
  busy.wait();
  std::latch together(8);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      together.arrive_and_wait();
      running->server().stop();
    });
  }
  threads.clear();
  running.reset();
  EXPECT_EQ(probe->stopNotices, 1);
  EXPECT_EQ(probe->alive, 0);
}

// gRPC answers such calls itself, inside of the server's poll.
TEST(Stop, WhileClientsCallWhatNobodyServesWithoutAPause) {
  RunningServer running({std::make_shared<ProbeService>()});
  std::atomic<bool> stopped = false;
  std::latch busy(4);
  std::vector<std::jthread> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back([&, connection = running.connection()] {
      EXPECT_EQ(callUnknownMethod(connection), grpc::StatusCode::UNIMPLEMENTED);
      busy.count_down();
      while (!stopped)
        callUnknownMethod(connection);
    });
  }
  busy.wait();
  running.stop();
  stopped = true;
}

}  // namespace
}  // namespace test
