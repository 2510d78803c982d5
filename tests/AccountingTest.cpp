#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <map>
#include <numeric>
#include <regex>
#include <stdexcept>

#include "Capture.h"
#include "FailingNew.h"
#include "ProbeServer.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;
using namespace std::string_literals;

namespace {

using test::callFor;
using test::callUnary;
using test::ProbeServer;
using test::Stub;

std::string lineOf(std::string const& user, std::string const& session, std::string const& rpc,
                   int status) {
  return "VORNSDKRPC_ACCOUNTING_RPC: user: " + user + ", session: " + session +
         ", peer: PEER, rpc: " + rpc + ", status: " + std::to_string(status);
}

// The lines with each client's address, which the kernel chooses, replaced.
std::vector<std::string> linesOf(test::Capture const& log) {
  static const std::regex peer("peer: ipv4:127\\.0\\.0\\.1:[0-9]+,");
  auto lines = log.lines();
  for (auto& line : lines)
    line = std::regex_replace(line, peer, "peer: PEER,");
  return lines;
}

void makeStreamingCalls(Stub& stub) {
  test::Reply reply;
  {
    grpc::ClientContext context;
    const auto writer = stub.Up(&context, &reply);
    writer->Write(callFor(0));
    writer->Write(callFor(3));
    writer->WritesDone();
    EXPECT_EQ(writer->Finish().error_code(), 3);
  }
  {
    grpc::ClientContext context;
    const auto reader = stub.Down(&context, callFor(0));
    while (reader->Read(&reply)) {
    }
    EXPECT_TRUE(reader->Finish().ok());
  }
  grpc::ClientContext context;
  const auto stream = stub.Both(&context);
  for (int i = 0; i < 3; ++i) {
    stream->Write(callFor(7));
    stream->Read(&reply);
  }
  stream->WritesDone();
  EXPECT_EQ(stream->Finish().error_code(), 7);
}

// A call that has reached the server and is then cancelled; the server answers ABORTED to nobody.
void makeCancelledCall(Stub& stub) {
  grpc::ClientContext context;
  test::Reply reply;
  const auto stream = stub.Both(&context);
  stream->Write(callFor(10));
  EXPECT_TRUE(stream->Read(&reply));
  context.TryCancel();
  EXPECT_EQ(stream->Finish().error_code(), grpc::CANCELLED);
}

// A call that is given up at its deadline. On a busy machine it may not get to the server in time.
void makeLateCall(Stub& stub) {
  auto call = callFor(10);
  call.set_until_cancelled(true);
  auto context = std::make_unique<grpc::ClientContext>();
  context->set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(100));
  EXPECT_EQ(callUnary(stub, call, std::move(context)).error_code(), grpc::DEADLINE_EXCEEDED);
}

TEST(Accounting, EveryKindOfCallIsOneRecordHoweverItEnds) {
  const test::Capture log(Kiv::platformLogger());
  ProbeServer server;
  const auto channel = server.channel();
  Stub stub(channel);
  EXPECT_TRUE(callUnary(stub).ok());
  EXPECT_EQ(callUnary(stub, callFor(5)).error_code(), 5);
  makeStreamingCalls(stub);
  makeCancelledCall(stub);
  while (server.service().waiting() == 0)
    makeLateCall(stub);
  EXPECT_EQ(test::callUnknownMethod(channel).error_code(), grpc::UNIMPLEMENTED);
  server.stop();
  const auto line = [](std::string const& rpc, int status) {
    return lineOf("unknown", "unknown", rpc, status);
  };
  std::vector<std::string> expected = {
      line("/accounting_test.Probe/Unary", 0),
      line("/accounting_test.Probe/Unary", 5),
      line("/accounting_test.Probe/Up", 3),
      line("/accounting_test.Probe/Down", 0),
      line("/accounting_test.Probe/Both", 7),
      line("/accounting_test.Probe/Both", 10),
      line("unknown", 12),  // what gRPC names it in a server that has no asynchronous service
  };
  const auto late = static_cast<std::size_t>(server.service().waiting());
  expected.insert(expected.end(), late, line("/accounting_test.Probe/Unary", 10));
  EXPECT_THAT(linesOf(log), UnorderedElementsAreArray(expected));
}

using Properties = std::vector<std::pair<std::string, std::string>>;

// Gives a connection the properties of a case, as an agent's own processor would.
class Identified : public grpc::AuthMetadataProcessor {
 public:
  explicit Identified(Properties properties) : properties_(std::move(properties)) {}

 private:
  grpc::Status Process(InputMetadata const&, grpc::AuthContext* context, OutputMetadata*,
                       OutputMetadata*) override {
    for (auto const& [name, value] : properties_)
      context->AddProperty(name, value);
    return grpc::Status::OK;
  }

  Properties const properties_;
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
      {{{"peer-authenticated", "eve, status: 0\nVORNSDKRPC_ACCOUNTING_RPC: user: root"}},
       "eve, status: 0\\x0aVORNSDKRPC_ACCOUNTING_RPC: user: root",
       "unknown"},
  };
  for (auto const& c : cases) {
    const test::Capture log(Kiv::platformLogger());
    const auto credentials = grpc::experimental::LocalServerCredentials(LOCAL_TCP);
    credentials->SetAuthMetadataProcessor(std::make_shared<Identified>(c.properties));
    ProbeServer server(credentials);
    Stub stub(server.channel(grpc::experimental::LocalCredentials(LOCAL_TCP)));
    EXPECT_TRUE(callUnary(stub).ok());
    server.stop();
    EXPECT_THAT(linesOf(log),
                ElementsAre(lineOf(c.user, c.session, "/accounting_test.Probe/Unary", 0)));
  }
}

// The sizes of the batches that the consumer has traced, without those of spurious wake-ups.
std::vector<std::string> batchesOf(test::Capture const& trace) {
  const std::string text = "Draining backlog (size ";
  std::vector<std::string> sizes;
  for (auto const& line : trace.lines()) {
    const auto at = line.find(text);
    if (at == std::string::npos) continue;
    const auto size = line.substr(at + text.size());
    if (size != "0)") sizes.push_back(size);
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
  ProbeServer server;
  Stub stub(server.channel());
  std::vector<std::string> expected;
  for (int status = 0; status <= 16; ++status) {
    EXPECT_EQ(callUnary(stub, callFor(status)).error_code(), status);
    if (status == 0) blocked.wait();
    expected.push_back(lineOf("unknown", "unknown", "/accounting_test.Probe/Unary", status));
  }
  const auto stopped = std::async(std::launch::async, [&] { server.stop(); });
  open.count_down();
  stopped.wait();
  EXPECT_THAT(linesOf(log), ElementsAreArray(expected));
  EXPECT_THAT(batchesOf(trace), ElementsAre("1)", "16)"));
  EXPECT_EQ(trace.count("RPCAccounting/9: LoggingInterceptor::Intercept: Enqueueing message"), 17U);
  Kiv::traceSettingIs("");
}

TEST(Accounting, ASinkThatThrowsIsToldOnceAndTheNextRecordIsWritten) {
  const test::Capture trace(Kiv::traceLogger());
  const test::Capture log(Kiv::platformLogger(), [] { throw std::runtime_error("disk full"); });
  ProbeServer server;
  Stub stub(server.channel());
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(callUnary(stub).ok());
  server.stop();
  EXPECT_EQ(log.lines().size(), 3U);
  EXPECT_EQ(trace.count("disk full"), 1U);
}

TEST(Accounting, ARecordOutlastsAMomentWithoutMemory) {
  std::vector<int> left;  // -1 once the allocation has failed
  const test::Capture log(Kiv::platformLogger(), [&left] {
    left.push_back(test::allocationsLeft);
    if (left.size() == 1) test::allocationsLeft = 0;
  });
  ProbeServer server;
  Stub stub(server.channel());
  std::vector<std::string> expected;
  for (int status = 0; status < 3; ++status) {
    callUnary(stub, callFor(status));
    expected.push_back(lineOf("unknown", "unknown", "/accounting_test.Probe/Unary", status));
  }
  server.stop();
  EXPECT_THAT(linesOf(log), ElementsAreArray(expected));
  EXPECT_THAT(left, ElementsAre(-1, -1, -1));
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
  taken.clear();
  EXPECT_FALSE(queue.swap(taken));
  EXPECT_THAT(taken, IsEmpty());
  EXPECT_DEATH(
      {
        taken.push_back(3);
        queue.swap(taken);
      },
      "q.empty\\(\\)");
}

TEST(SynchronizedQueue, KeepsEveryItemOfEveryProducerInOrder) {
  constexpr int kProducers = 4, kItems = 5000;
  SynchronizedQueue<std::pair<int, int>> queue;
  std::map<int, std::vector<int>> received;
  std::jthread consumer([&] {
    for (std::deque<std::pair<int, int>> batch; queue.swap(batch); batch.clear()) {
      for (auto const& [producer, item] : batch)
        received[producer].push_back(item);
    }
  });
  std::vector<std::jthread> producers;
  for (int producer = 0; producer < kProducers; ++producer) {
    producers.emplace_back([&queue, producer] {
      for (int item = 0; item < kItems; ++item)
        queue.push({producer, item});
    });
  }
  producers.clear();
  queue.close();
  consumer.join();
  std::vector<int> all(kItems);
  std::iota(all.begin(), all.end(), 0);
  EXPECT_EQ(received.size(), std::size_t{kProducers});
  for (auto const& [producer, items] : received)
    EXPECT_EQ(items, all);
}

}  // namespace
