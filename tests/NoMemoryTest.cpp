// What is left as it was when an allocation fails. A program of its own: with an allocator of the
// program's, the thread sanitizer can't tell any more which allocations are gRPC's.
#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/TagManager.h>
#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <limits>

#include "tests/Capture.h"
#include "tests/FailingNew.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(NoMemory, LeavesTheTagRegistryAsItWas) {
  constexpr std::size_t kTags = 200;  // the registry outgrows its table several times
  VornSdkRpc::TagManager tags;
  std::vector<VornSdkRpc::OpaqueId> live;
  live.reserve(kTags);
  int failures = 0;
  while (live.size() < kTags) {
    failures += failEachAllocation([&] { live.push_back(tags.newTag(live.size())); },
                                   [&] { EXPECT_EQ(tags.size(), live.size()); });
  }
  EXPECT_GE(failures, 400) << "each tag takes two allocations at least";
  for (std::size_t id = 0; id < kTags; ++id) {
    std::size_t found = kTags;
    VornSdkRpc::RequestHandlerPtr none;
    allocationsLeft = 0;  // neither the look-up nor the removal needs memory
    const bool known = tags.find(live[id], found, none);
    tags.removeHandler(id, live[id]);
    allocationsLeft = -1;
    EXPECT_TRUE(known && found == id);
  }
  EXPECT_EQ(tags.size(), 0U);
}

TEST(NoMemory, LeavesNoTagWithoutItsHandler) {
  struct Bare : VornSdkRpc::GrpcService {
    Bare() : GrpcService("Bare") {}
    void registerWith(grpc::ServerBuilder&) override {}
    void serverStarted() override {}
  };
  struct Handler : VornSdkRpc::RequestHandler {
    explicit Handler(VornSdkRpc::OpaqueId tag) { opaqueId_ = tag; }
    void proceed(VornSdkRpc::OpaqueId) override {}
    VornSdkRpc::RequestHandlerPtr spawn(VornSdkRpc::OpaqueId tag) override {
      return std::make_shared<Handler>(tag);
    }
  };
  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  const auto service = std::make_shared<Bare>();
  VornSdkRpc::GrpcServer server(builder, {service}, properties);
  server.setup();
  const Capture trace(Kiv::traceLogger());
  Kiv::traceSettingIs("Bare-service/8");  // so that storing a handler needs memory as well
  const auto& tags = server.tagManager();
  const auto handler = std::make_shared<Handler>(service->nextOpaqueId());
  service->registerHandler(handler);
  const auto unchanged = [&] { EXPECT_EQ(tags.size(), 1U); };
  VornSdkRpc::OpaqueId extra = nullptr;
  EXPECT_GE(failEachAllocation([&] { extra = service->assignExtraTag(handler); }, unchanged), 3);
  service->removeHandler(extra);
  const auto arrive = [&] { service->process(handler->opaqueId_, handler.get()); };
  EXPECT_GE(failEachAllocation(arrive, unchanged), 4) << "the last of which makes the successor";
  Kiv::traceSettingIs("");
}

TEST(NoMemory, LeavesTheAccountingQueueAsItWas) {
  constexpr int kRecords = 200;
  SynchronizedQueue<VornSdkRpc::LogMessageData> queue;
  std::deque<VornSdkRpc::LogMessageData> taken;
  int failures = 0;
  for (int i = 0; i < kRecords; ++i) {
    const std::string text(40, static_cast<char>('a' + i % 26));  // too long to be stored in place
    const VornSdkRpc::LogMessageData record{text, text, text, text, i};
    failures += failEachAllocation([&] { queue.push(record); }, [] {});
  }
  EXPECT_GE(failures, 4 * kRecords) << "each record takes four allocations at least";
  ASSERT_TRUE(queue.swap(taken));
  ASSERT_EQ(taken.size(), std::size_t{kRecords});
  for (int i = 0; i < kRecords; ++i) {
    const auto& record = taken[static_cast<std::size_t>(i)];
    EXPECT_EQ(record.status, i);
    for (const auto& text : {record.user, record.session, record.peer, record.rpc})
      EXPECT_EQ(text, std::string(40, static_cast<char>('a' + i % 26)));
  }
}

// A server whose serving thread has no memory for a message of `kTooLarge` bytes: the parser throws
// inside of gRPC, which is left with a call that never completes. Does not return unless the stop
// has an end after all.
constexpr std::size_t kTooLarge = 1'000'000;

void serveWithoutMemory(bool leavesRun) {
  alarm(60);  // a hang is a death by another signal
  grpc::ServerBuilder builder;
  int port = 0;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  VornSdkRpc::ServerProperties properties;
  const auto probe = std::make_shared<ProbeService>();
  std::jthread caller;
  VornSdkRpc::GrpcServer server(builder, {probe}, properties);
  server.stopTimeoutIs(std::chrono::milliseconds(100));
  server.setup();
  caller = std::jthread([&] {
    const auto stub = Probe::NewStub(connected("127.0.0.1:" + std::to_string(port)));
    EXPECT_EQ(callEcho(*stub, "one that goes well"), grpc::OK);
    callEcho(*stub, std::string(kTooLarge, 'x'));
  });
  allocationTooLarge = kTooLarge;
  try {
    for (;;)
      server.dequeue();
  } catch (const std::bad_alloc&) {
    allocationTooLarge = std::numeric_limits<std::size_t>::max();
    if (!leavesRun) server.teardown();
  }
}

// What may not be is a process that serves nobody and never ends.
TEST(NoMemoryDeathTest, InsideOfGrpcHangsNoServer) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const bool leavesRun : {true, false}) {
    EXPECT_EXIT(serveWithoutMemory(leavesRun), testing::KilledBySignal(SIGABRT),
                "The server has not ended 100 ms after everything was cancelled: aborted");
  }
}

// A server that accounts for calls whose lines take memory: the methods' names are no plain text.
class OddlyCalled {
 public:
  void call(int number) const {
    EXPECT_EQ(callUnknownMethod(connection_, "/é/" + std::to_string(number)), grpc::UNIMPLEMENTED);
  }
  void stop() { server_.reset(); }

 private:
  std::unique_ptr<RunningServer> server_ = std::make_unique<RunningServer>(
      std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>(), true);
  std::shared_ptr<grpc::Channel> connection_ = server_->connection();
};

TEST(NoMemory, ForAMomentLosesNoAccountingRecord) {
  std::vector<int> left;  // -1 once the allocation has failed
  const Capture log(Kiv::platformLogger(), [&left] {
    left.push_back(allocationsLeft);
    if (left.size() == 1) allocationsLeft = 0;
  });
  OddlyCalled server;
  for (int number = 0; number < 3; ++number)
    server.call(number);
  server.stop();
  EXPECT_THAT(log.lines(),
              ElementsAre(HasSubstr("rpc: /é/0,"), HasSubstr("rpc: /é/1,"), HasSubstr("/é/2,")));
  EXPECT_THAT(left, ElementsAre(-1, -1, -1));
}

// A record is tried again a hundred times; the others of the same outage, once.
TEST(NoMemory, GivesAnOutageOneBudgetAndTellsWhatItCost) {
  constexpr int kLost = 50, kCalls = 60;
  const Capture trace(Kiv::traceLogger());
  const Capture log(Kiv::platformLogger(), [first = true]() mutable {
    if (std::exchange(first, false)) allocationsFailing = 100 + kLost;
  });
  OddlyCalled server;
  for (int i = 0; i <= kCalls; ++i)
    server.call(i);
  waitUntil([&] { return log.lines().size() >= 1 + kCalls - kLost; },
            "what is not lost is written");
  server.stop();
  EXPECT_EQ(log.lines().size(), std::size_t{1 + kCalls - kLost});
  EXPECT_EQ(trace.count("50 records could not be written and are lost"), 1U);
}

TEST(NoMemory, DoesNotHoldUpAStop) {
  const int before = allocationsFailed;
  const Capture log(Kiv::platformLogger(), [] { allocationsFailing = 1'000'000; });
  OddlyCalled server;
  for (int i = 0; i <= 20; ++i)
    server.call(i);
  server.stop();
  EXPECT_EQ(log.lines().size(), 1U);
  EXPECT_LT(allocationsFailed - before, 200) << "a record of a closed queue is tried twice";
}

}  // namespace
}  // namespace test
