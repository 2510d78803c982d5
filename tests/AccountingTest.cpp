#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <future>
#include <latch>

#include "tests/Calls.h"
#include "tests/Capture.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;
using namespace std::string_literals;

namespace {

using test::callEcho;
using test::EchoServer;

constexpr char kEcho[] = "/test.Probe/Echo";

std::string lineOf(const std::string& user, const std::string& session, const std::string& rpc,
                   int status) {
  return "VORNSDKRPC_ACCOUNTING_RPC: user: " + user + ", session: " + session +
         ", peer: PEER, rpc: " + rpc + ", status: " + std::to_string(status);
}

// The lines with each client's address, which the kernel chooses, replaced.
std::vector<std::string> linesOf(const test::Capture& log) {
  auto lines = log.lines();
  for (auto& line : lines) {
    const auto begin = line.find("peer: ") + 6;
    const auto size = line.find(", rpc: ") - begin;
    const auto peer = line.substr(begin, size);
    // gRPC has no address any more for a call that is given up as it arrives.
    const bool gone = peer == "unknown" && line.find("/test.Probe/Chat") != std::string::npos;
    if (peer.starts_with("ipv4:127.0.0.1:") || gone) line.replace(begin, size, "PEER");
  }
  return lines;
}

// A chat that the client gives up, by itself or at its deadline; the server then answers OK to
// nobody. On a busy machine it may be over before it gets to the server.
grpc::StatusCode abandonChat(test::Probe::Stub& stub, bool late) {
  grpc::ClientContext context;
  if (late) context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(100));
  const auto stream = stub.Chat(&context);
  test::Text text;
  stream->Write(text);
  stream->Read(&text);
  if (!late) context.TryCancel();
  return stream->Finish().error_code();
}

TEST(Accounting, EveryKindOfCallIsOneRecordHoweverItEnds) {
  const test::Capture log(Kiv::platformLogger());
  const auto service = std::make_shared<test::ProbeService>();
  auto server = std::make_unique<test::RunningServer>(
      std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>{service}, true);
  const auto stub = server->stub();
  EXPECT_EQ(callEcho(*stub, "fail"), grpc::NOT_FOUND);
  test::streamAHundredEachWay(*stub);
  const test::Chatting chat(*stub);
  chat->WritesDone();
  EXPECT_TRUE(chat->Finish().ok());
  EXPECT_EQ(abandonChat(*stub, false), grpc::CANCELLED);
  const int before = service->made;
  while (service->made == before)
    EXPECT_EQ(abandonChat(*stub, true), grpc::DEADLINE_EXCEEDED);
  // Behind the chats on the same connection: when it has been answered, they have all arrived.
  EXPECT_EQ(callEcho(*stub, "text"), grpc::OK);
  const int late = service->made - before - 1;
  test::waitUntil([&] { return service->alive <= 4; },
                  "only the handlers that wait for a call are left");
  EXPECT_EQ(test::callUnknownMethod(server->connection()), grpc::UNIMPLEMENTED);
  server.reset();
  std::vector<std::string> expected;
  for (const auto& [rpc, status] : {std::pair(kEcho, 0),
                                    {kEcho, 5},
                                    {"/test.Probe/Collect", 0},
                                    {"/test.Probe/Tick", 0},
                                    {"/no.such.Service/Method", 12}})
    expected.push_back(lineOf("unknown", "unknown", rpc, status));
  for (int chats = 2 + late; chats > 0; --chats)
    expected.push_back(lineOf("unknown", "unknown", "/test.Probe/Chat", 0));
  EXPECT_THAT(linesOf(log), UnorderedElementsAreArray(expected));
}

// gRPC refuses it and ends the call with 8; the handler sees the end of a stream, and answers 0.
TEST(Accounting, AnUploadWithAMessageOverTheLimitIsRecordedAsItsClientIsTold) {
  const test::Capture log(Kiv::platformLogger());
  {
    const test::RunningServer server({std::make_shared<test::ProbeService>()}, true);
    const auto stub = server.stub();
    test::Text small;
    const auto large = test::textOf(std::string(5 << 20, 'x'));
    for (const bool refused : {true, false}) {
      const auto told = refused ? grpc::RESOURCE_EXHAUSTED : grpc::OK;
      const test::Collecting upload(*stub);
      upload->Write(small);
      upload->Write(refused ? large : small);
      upload->WritesDone();
      EXPECT_EQ(upload->Finish().error_code(), told);
      const test::Chatting chat(*stub);
      chat->Write(small);
      chat->Read(&small);
      if (refused) chat->Write(large);
      chat->WritesDone();
      EXPECT_EQ(chat->Finish().error_code(), told);
    }
  }
  std::vector<std::string> expected;
  for (const auto& [rpc, status] : {std::pair("/test.Probe/Collect", 8),
                                    {"/test.Probe/Chat", 8},
                                    {"/test.Probe/Collect", 0},
                                    {"/test.Probe/Chat", 0}})
    expected.push_back(lineOf("unknown", "unknown", rpc, status));
  EXPECT_THAT(linesOf(log), ElementsAreArray(expected));
}

using Properties = std::vector<std::pair<std::string, std::string>>;

// Gives a connection the properties of a case, as an agent's own processor would.
class Identified : public grpc::AuthMetadataProcessor {
 public:
  explicit Identified(Properties properties) : properties_(std::move(properties)) {}

 private:
  grpc::Status Process(const InputMetadata&, grpc::AuthContext* context, OutputMetadata*,
                       OutputMetadata*) override {
    for (const auto& [name, value] : properties_)
      context->AddProperty(name, value);
    return grpc::Status::OK;
  }

  const Properties properties_;
};

TEST(Accounting, TheCallerIsTheFirstValueOfEachProperty) {
  struct {
    Properties properties;
    std::string user;
    std::string session;
  } const cases[] = {
      {{}, "unknown", "unknown"},
      {{{"session-id", "s1"}}, "unknown", "s1"},
      {{{"peer-authenticated", "alice"}, {"peer-authenticated", "bob"}}, "alice", "unknown"},
      {{{"peer-authenticated", ""}, {"session-id", "\0x"s}}, "", ""},
      {{{"peer-authenticated", "al\0ice"s}, {"session-id", "s1\0"s}}, "al", "s1"},
      {{{"peer-authenticated", std::string(1023, 'a') + "é"},
        {"session-id", std::string(1024, 's')}},
       std::string(1023, 'a') + "...[cut]",
       std::string(1024, 's')},
      {{{"peer-authenticated", "eve, status: 0\nVORNSDKRPC_ACCOUNTING_RPC: user: root"}},
       "eve, status: 0\\x0aVORNSDKRPC_ACCOUNTING_RPC: user: root",
       "unknown"},
  };
  for (const auto& c : cases) {
    const test::Capture log(Kiv::platformLogger());
    const auto credentials = grpc::experimental::LocalServerCredentials(LOCAL_TCP);
    credentials->SetAuthMetadataProcessor(std::make_shared<Identified>(c.properties));
    EchoServer server(credentials);
    callEcho(*server.stub(grpc::experimental::LocalCredentials(LOCAL_TCP)), "0");
    server.stop();
    EXPECT_THAT(linesOf(log), ElementsAre(lineOf(c.user, c.session, kEcho, 0)));
  }
}

// A method that nobody has may be of any text and length.
TEST(Accounting, AMethodOfAClientsOwnIsOneLineOfBoundedLength) {
  std::string cut = "/z/";
  for (int i = 0; i < 1021; ++i)
    cut += "\\xff";
  const std::pair<std::string, std::string> cases[] = {
      {"/x/\u009b31mred\u0085VORNSDKRPC_ACCOUNTING_RPC: user: root",
       "/x/\\xc2\\x9b31mred\\xc2\\x85VORNSDKRPC_ACCOUNTING_RPC: user: root"},
      {"/y/\\x0a", "/y/\\x5cx0a"},
      {"/z/" + std::string(6000, '\xff'), cut + "...[cut]"},
  };
  for (const auto& [method, written] : cases) {
    const test::Capture log(Kiv::platformLogger());
    {
      const test::RunningServer server({}, true);
      EXPECT_EQ(test::callUnknownMethod(server.connection(), method), grpc::UNIMPLEMENTED);
    }
    EXPECT_THAT(linesOf(log), ElementsAre(lineOf("unknown", "unknown", written, 12)));
  }
}

// The sizes of the batches that the consumer has traced, without those of spurious wake-ups.
std::vector<std::string> batchesOf(const test::Capture& trace) {
  std::vector<std::string> sizes;
  for (const auto& line : trace.lines()) {
    const auto at = line.find("(size ");
    if (at != std::string::npos && line.substr(at) != "(size 0)") sizes.push_back(line.substr(at));
  }
  return sizes;
}

TEST(Accounting, ABlockedLogHoldsUpNoCallAndLosesNothingAtTheEnd) {
  Kiv::traceSettingIs("RPCAccounting/8-9");
  const test::Capture trace(Kiv::traceLogger());
  std::latch blocked(1);
  std::latch open(1);
  const test::Capture log(Kiv::platformLogger(), [&, first = true]() mutable {
    if (!std::exchange(first, false)) return;
    blocked.count_down();
    open.wait();
  });
  EchoServer server;
  const auto stub = server.stub();
  std::vector<std::string> expected;
  for (int status = 0; status <= 16; ++status) {
    EXPECT_EQ(callEcho(*stub, std::to_string(status)), status);
    if (status == 0) blocked.wait();
    expected.push_back(lineOf("unknown", "unknown", kEcho, status));
  }
  const auto stopped = std::async(std::launch::async, [&] { server.stop(); });
  open.count_down();
  stopped.wait();
  EXPECT_THAT(linesOf(log), ElementsAreArray(expected));
  EXPECT_THAT(batchesOf(trace), ElementsAre("(size 1)", "(size 16)"));
  EXPECT_EQ(trace.count("RPCAccounting/9: LoggingInterceptor::Intercept: Enqueueing message"), 17U);
  Kiv::traceSettingIs("");
}

TEST(Accounting, AFactoryWithoutCallsWritesNothing) {
  Kiv::traceSettingIs("RPCAccounting/0-31");
  const test::Capture trace(Kiv::traceLogger());
  const test::Capture log(Kiv::platformLogger());
  for (int i = 0; i < 100; ++i)
    VornSdkRpc::LoggingInterceptorFactory factory;
  EXPECT_THAT(batchesOf(trace), IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
  Kiv::traceSettingIs("");
}

TEST(SynchronizedQueue, AClosedQueueHandsOutWhatItHoldsAndThenEnds) {
  SynchronizedQueue<int> queue;
  std::deque<int> taken;
  queue.push(1);
  queue.push(2);
  queue.close();
  queue.close();
  EXPECT_TRUE(queue.swap(taken));
  EXPECT_THAT(taken, ElementsAre(1, 2));
  EXPECT_DEATH(queue.swap(taken), "q.empty\\(\\)");
  taken.clear();
  EXPECT_FALSE(queue.swap(taken));
  EXPECT_THAT(taken, IsEmpty());
}

TEST(SynchronizedQueue, KeepsEveryItemOfEveryProducerInOrder) {
  constexpr int kItems = 5000;
  SynchronizedQueue<std::pair<std::size_t, int>> queue;
  std::array<int, 4> received = {};
  std::jthread consumer([&] {
    for (std::deque<std::pair<std::size_t, int>> batch; queue.swap(batch); batch.clear()) {
      for (const auto& [producer, item] : batch)
        EXPECT_EQ(item, received[producer]++);
    }
  });
  {
    std::vector<std::jthread> producers;
    for (std::size_t producer = 0; producer < received.size(); ++producer) {
      producers.emplace_back([&queue, producer] {
        for (int item = 0; item < kItems; ++item)
          queue.push({producer, item});
      });
    }
  }
  queue.close();
  consumer.join();
  EXPECT_THAT(received, testing::Each(kItems));
}

}  // namespace
