// Collectors that come and go: what they are told, together, is every record once.
#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/CallWatch.h>
#include <VornSdkRpcProtos/Accounting.grpc.pb.h>
#include <gmock/gmock.h>

#include <optional>

#include "tests/ProbeService.h"

namespace test {
namespace {

using namespace VornSdkRpc::accounting;
using testing::ElementsAre;
using VornSdkRpc::CallAccounting;
using VornSdkRpc::CallLog;

// Lets in who says so.
grpc::Status mayWatch(const grpc::ServerContext& call) {
  return call.client_metadata().contains("collector")
             ? grpc::Status::OK
             : grpc::Status(grpc::PERMISSION_DENIED, "collectors only");
}

// A server with accounting that is watched.
class Watched {
 public:
  explicit Watched(VornSdkRpc::CallLogOptions log = {.history = 64 << 20})
      : accounting_({.log = log}),
        server_({std::make_shared<ProbeService>(),
                 VornSdkRpc::callWatchService(accounting_.log(), mayWatch)},
                [this](auto& builder) { accounting_.install(builder); }),
        channel_(server_.connection()) {}

  const std::shared_ptr<CallLog>& log() const { return accounting_.log(); }
  RunningServer& server() { return server_; }
  const std::shared_ptr<grpc::Channel>& channel() const { return channel_; }

 private:
  CallAccounting accounting_;
  RunningServer server_;
  std::shared_ptr<grpc::Channel> channel_;
};

// One stream of a collector, which notes what it is told.
class Collector {
 public:
  Collector(const Watched& watched, const std::optional<cursor_msg>& from = {},
            bool authorized = true)
      : stub_(Accounting::NewStub(watched.channel())) {
    if (authorized) context_.AddMetadata("collector", "yes");
    watch_msg wanted;
    if (from) *wanted.mutable_from() = *from;
    stream_ = stub_->Watch(&context_, wanted);
  }
  ~Collector() {
    context_.TryCancel();
    while (read()) {
    }
    if (!ended_) stream_->Finish();
  }

  bool read() { return !ended_ && stream_->Read(&message_); }
  grpc::StatusCode end() {
    ended_ = true;
    return stream_->Finish().error_code();
  }
  const watched_msg& message() const { return message_; }

 private:
  const std::unique_ptr<Accounting::Stub> stub_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::ClientReader<watched_msg>> stream_;
  watched_msg message_;
  bool ended_ = false;
};

TEST(CallWatch, AsksWhoMayWatch) {
  const Watched watched;
  Collector stranger(watched, {}, false);
  EXPECT_FALSE(stranger.read());
  EXPECT_EQ(stranger.end(), grpc::PERMISSION_DENIED);
  EXPECT_THROW(VornSdkRpc::callWatchService(nullptr, nullptr), std::invalid_argument);
}

// A collector is killed again and again, amid calls, and goes on where it was.
TEST(CallWatch, GoesOnWhereTheCollectorWas) {
  constexpr std::uint64_t kCalls = 3000;
  auto watched = std::make_unique<Watched>();
  const auto log = watched->log();
  std::jthread client([&] {
    const auto stub = watched->server().stub();
    for (std::uint64_t i = 0; i < kCalls; ++i)
      callEcho(*stub, "x");
  });
  std::uint64_t last = 0, echoes = 0, watches = 0, lives = 0;
  std::optional<cursor_msg> from;
  while (echoes < kCalls) {
    ++lives;
    Collector collector(*watched, from);
    for (std::uint64_t messages = 0; messages < lives && echoes < kCalls; ++messages) {
      ASSERT_TRUE(collector.read());
      const auto& told = collector.message();
      ASSERT_FALSE(told.has_gap());
      for (const auto& record : told.records()) {
        ASSERT_EQ(record.number(), ++last);
        ++(record.method() == "/test.Probe/Echo" ? echoes : watches);
      }
      EXPECT_EQ(told.next().number(), last + 1);
      from = told.next();
    }
  }
  client.join();
  EXPECT_EQ(echoes, kCalls);
  EXPECT_LT(watches, lives);
  // A watch is one record, whatever it has sent.
  watched.reset();
  EXPECT_EQ(log->next() - 1, echoes + lives);
}

TEST(CallWatch, TellsWhatIsNotThereAnyMore) {
  Watched watched({.memory = 64 << 10});
  for (int i = 0; i < 2000; ++i)
    watched.log()->append({.method = "/x/\n", .user = "caf\xe9"});
  cursor_msg from;
  from.set_run(watched.log()->run());
  from.set_number(5);
  std::uint64_t next = 5;
  Collector collector(watched, from);
  ASSERT_TRUE(collector.read());
  ASSERT_TRUE(collector.message().has_gap());
  EXPECT_EQ(collector.message().gap().run(), watched.log()->run());
  EXPECT_EQ(collector.message().gap().first(), 5U);
  next += collector.message().gap().count();
  EXPECT_GT(next, 1000U);
  do {
    for (const auto& record : collector.message().records()) {
      ASSERT_EQ(record.number(), next++);
      EXPECT_EQ(record.method(), "/x/\\x0a");
      EXPECT_EQ(record.user(), "caf\\xe9");
    }
  } while (next <= 2000 && collector.read());
  EXPECT_EQ(next, 2001U);
}

TEST(CallWatch, TellsThatTheRunIsAnotherOne) {
  Watched watched;
  watched.log()->append({.method = "/x/y"});
  cursor_msg from;
  from.set_run("of before");
  from.set_number(77);
  Collector collector(watched, from);
  ASSERT_TRUE(collector.read());
  EXPECT_EQ(collector.message().gap().run(), "of before");
  EXPECT_EQ(collector.message().gap().first(), 77U);
  EXPECT_EQ(collector.message().gap().count(), 0U);
  EXPECT_EQ(collector.message().next().run(), watched.log()->run());
  ASSERT_TRUE(collector.read());
  EXPECT_EQ(collector.message().records(0).number(), 1U);
  watched.server().drain(std::chrono::seconds(60));
  EXPECT_FALSE(collector.read());
  EXPECT_EQ(collector.end(), grpc::UNAVAILABLE);
}

}  // namespace
}  // namespace test
