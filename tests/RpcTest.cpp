#include <Kiv/Trace.h>
#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/RpcEvents.h>
#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <map>
#include <thread>

#include "tests/Calls.h"
#include "tests/Capture.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

namespace rpc = VornSdkRpc::rpc;
using VornSdkRpc::testing::call;
using VornSdkRpc::testing::TestServer;
using namespace std::chrono_literals;

// Counts what is alive: a local of every coroutine, so that a frame that is leaked is seen.
class Alive {
 public:
  explicit Alive(std::atomic<int>& count) : count_(count) { ++count_; }
  Alive(const Alive&) = delete;
  Alive& operator=(const Alive&) = delete;
  ~Alive() { --count_; }

 private:
  std::atomic<int>& count_;
};

// The Probe service on the kit. What a call does is in the text of its request.
class KitService : public rpc::Service<Probe> {
 public:
  explicit KitService(rpc::MethodOptions options = {}) : Service("Kit") {
    method(
        &Async::RequestEcho,
        [this](rpc::Call& call, const Text& text, Text& reply) { return echo(call, text, reply); },
        options);
    method(&Async::RequestCollect, [this](rpc::Reader<Text>& texts, Count& count) -> rpc::Task<> {
      const Alive local(alive);
      Text text;
      while (co_await texts.read(text))
        count.set_count(count.count() + 1);
      ended(texts);
      co_return grpc::Status::OK;
    });
    method(&Async::RequestTick,
           [this](rpc::Writer<Text>& ticks, const Count& count) -> rpc::Task<> {
             const Alive local(alive);
             co_await writeAll(ticks, count.count());
             ended(ticks);
             co_return grpc::Status::OK;
           });
    method(&Async::RequestChat, [this](rpc::ReaderWriter<Text, Text>& chat) -> rpc::Task<> {
      const Alive local(alive);
      Text text;
      while (co_await chat.read(text)) {
        if (!co_await chat.write(text)) break;
        if (text.text() == "leave") co_return grpc::Status(grpc::StatusCode::ABORTED, "left");
      }
      ended(chat);
      co_return grpc::Status::OK;
    });
  }

  rpc::Events wake;  // of every call that listens
  std::thread::id servingThread;
  std::atomic<int> alive = 0;
  std::atomic<int> cancelled = 0;
  std::atomic<int> elsewhere = 0;  // steps that ran on another thread than the serving one

 private:
  void opened() override { servingThread = std::this_thread::get_id(); }

  rpc::Task<> echo(rpc::Call& call, const Text& text, Text& reply) {
    // Before the first await, in the plain part of the function.
    if (text.text() == "throw first") throw vorn::unsupported_error("not here", "echo");
    if (text.text() == "no task") return {};
    return echoLater(call, text, reply);
  }

  rpc::Task<> echoLater(rpc::Call& call, const Text& text, Text& reply) {
    const Alive local(alive);
    static const std::map<std::string, std::function<void()>> throws = {
        {"argument", [] { throw vorn::invalid_argument_error("a bad tag", "tag"); }},
        {"range", [] { throw vorn::invalid_range_error("too large", "label", 1 << 20); }},
        {"unsupported", [] { throw vorn::unsupported_error("not here", "echo"); }},
        {"configuration", [] { throw vorn::configuration_error("no table"); }},
        {"unconfigured", [] { throw vorn::unconfigured_agent_error("not set up", "kit"); }},
        {"lock", [] { throw vorn::no_scoped_lock_obtained_error("busy"); }},
        {"secret", [] { throw std::runtime_error("password is hunter2"); }},
        {"number", [] { throw 7; }},
        {"long", [] { throw vorn::configuration_error(std::string(100000, 'x')); }},
    };
    const auto thrower = throws.find(text.text());
    if (thrower != throws.end()) thrower->second();
    if (text.text() == "pause") {
      if (!co_await call.wait(1ms)) co_return grpc::Status::CANCELLED;
    } else if (text.text() == "forever") {
      EXPECT_FALSE(co_await call.wait(std::chrono::hours::max()));
      EXPECT_FALSE(co_await call.wait(1ms)) << "a wait on a dead call answers at once";
      ended(call);
    } else if (text.text() == "listen") {
      rpc::Event event;
      const rpc::Events::Subscription listening(wake, event);
      co_await call.wait(event);
      ended(call);
    } else if (text.text() == "no task later") {
      co_await rpc::Task<void>();
    } else if (text.text() == "task throws") {
      co_await throwingTask();
    } else if (text.text() == "many tasks") {
      for (int i = 0; i < 200000; ++i)
        co_await noTask();
    }
    reply = text;
    co_return grpc::Status::OK;
  }

  rpc::Task<void> noTask() { co_return; }
  rpc::Task<void> throwingTask() {
    throw vorn::configuration_error("no table");
    co_return;
  }

  rpc::Task<void> writeAll(rpc::Writer<Text>& ticks, std::uint32_t count) {
    Text text;
    if (count == 0) {  // endless, as fast as the client reads
      text.set_text(std::string(10000, 'x'));
      while (co_await ticks.write(text)) {
      }
    }
    for (std::uint32_t i = 0; i < count; ++i) {
      text.set_text(std::to_string(i));
      // Of use to handlers that have the next item at hand; a coroutine is not to wait for it.
      const auto later = grpc::WriteOptions().set_buffer_hint().set_last_message();
      if (!co_await ticks.write(text, later)) co_return;
    }
  }

  void ended(const rpc::Call& call) {
    if (std::this_thread::get_id() != servingThread) ++elsewhere;
    if (call.cancelled()) ++cancelled;
  }
};

// An Echo of a plain function.
class FunctionService : public rpc::Service<Probe> {
 public:
  FunctionService() : Service("Function") {
    method(&Async::RequestEcho, [](grpc::ServerContext& context, const Text& text, Text& reply) {
      if (text.text() == "throw") throw vorn::invalid_argument_error("thrown", "text");
      reply.set_text(context.peer().substr(0, 5) + text.text());
      return text.text() == "fail" ? grpc::Status(grpc::StatusCode::NOT_FOUND, "failed")
                                   : grpc::Status::OK;
    });
  }
};

TEST(Rpc, ServesEveryKindOfCall) {
  const auto kit = std::make_shared<KitService>();
  TestServer server({kit});
  const auto stub = server.stub<Probe>();
  for (const char* text : {"hello", "pause"})
    EXPECT_EQ(echo(*stub, text).reply.text(), text);
  streamAHundredEachWay(*stub);
  {
    Text reply;
    const Chatting chat(*stub);
    for (const char* text : {"a", "b", "leave"}) {
      ASSERT_TRUE(chat->Write(textOf(text)));
      ASSERT_TRUE(chat->Read(&reply));
      EXPECT_EQ(reply.text(), text);
    }
    EXPECT_EQ(chat->Finish().error_code(), grpc::StatusCode::ABORTED);
  }
  EXPECT_TRUE(server.settle());
  EXPECT_EQ(kit->alive, 0);
  EXPECT_EQ(kit->elsewhere, 0);
  EXPECT_EQ(kit->cancelled, 0);
}

TEST(Rpc, AFunctionAnswersAtOnce) {
  TestServer server({std::make_shared<FunctionService>()}, {.socket = true});
  const auto stub = server.stub<Probe>();
  EXPECT_EQ(echo(*stub, "hello").reply.text(), "unix:hello");
  EXPECT_EQ(echo(*stub, "fail").status.error_code(), grpc::StatusCode::NOT_FOUND);
  EXPECT_EQ(echo(*stub, "throw").status.error_message(), "thrown");
  // The other methods have no function.
  const Collecting collect(*stub);
  while (collect->Write(Text())) {
  }
  EXPECT_EQ(collect->Finish().error_code(), grpc::StatusCode::UNIMPLEMENTED);
  EXPECT_EQ(Ticking(*stub)->Finish().error_code(), grpc::StatusCode::UNIMPLEMENTED);
  EXPECT_EQ(Chatting(*stub)->Finish().error_code(), grpc::StatusCode::UNIMPLEMENTED);
  EXPECT_TRUE(server.settle());
}

TEST(Rpc, RefusesASecondFunctionForAnRpc) {
  struct Twice : FunctionService {
    Twice() {
      method(&Async::RequestEcho, [](const Text&, Text&) { return grpc::Status::OK; });
    }
  };
  EXPECT_THROW(Twice(), std::logic_error);
}

TEST(Rpc, LivesBesideAServiceWrittenByHand) {
  struct MirrorService : rpc::Service<Mirror> {
    MirrorService() : Service("Mirror") {
      method(&Async::RequestReflect,
             [](rpc::Call& call, const Text& text, Text& reply) -> rpc::Task<> {
               const rpc::Woke woke = co_await call.wait(1ms);
               if (!woke) co_return grpc::Status::CANCELLED;
               reply.set_text({text.text().rbegin(), text.text().rend()});
               co_return grpc::Status::OK;
             });
    }
  };
  const auto probe = std::make_shared<ProbeService>();
  TestServer server({probe, std::make_shared<MirrorService>()});
  const auto connection = server.channel();
  std::vector<std::jthread> clients;
  for (int client = 0; client < 4; ++client) {
    clients.emplace_back([&, client] {
      const auto byHand = Probe::NewStub(connection);
      const auto kit = Mirror::NewStub(connection);
      for (int i = 0; i < 50; ++i) {
        const std::string text = std::to_string(1000 * client + i);
        EXPECT_EQ(echo(*byHand, text).reply.text(), text);
        EXPECT_EQ(call(*kit, &Mirror::Stub::Reflect, textOf(text)).reply.text(),
                  std::string(text.rbegin(), text.rend()));
      }
    });
  }
  clients.clear();
  EXPECT_TRUE(server.settle());
  server.stop();
  EXPECT_EQ(probe->alive, 0);
}

TEST(Rpc, AnExceptionBecomesAStatusThatTheClientCanActOn) {
  const Capture trace(Kiv::traceLogger());
  const auto kit = std::make_shared<KitService>();
  TestServer server({kit});
  const auto stub = server.stub<Probe>();
  for (const auto& [text, code, message] : {
           std::tuple{"argument", grpc::StatusCode::INVALID_ARGUMENT, "a bad tag"},
           {"range", grpc::StatusCode::INVALID_ARGUMENT, "too large"},
           {"unsupported", grpc::StatusCode::UNIMPLEMENTED, "not here"},
           {"configuration", grpc::StatusCode::FAILED_PRECONDITION, "no table"},
           {"unconfigured", grpc::StatusCode::FAILED_PRECONDITION, "not set up"},
           {"lock", grpc::StatusCode::UNAVAILABLE, "busy"},
           {"secret", grpc::StatusCode::INTERNAL, "internal error"},
           {"number", grpc::StatusCode::INTERNAL, "internal error"},
           {"throw first", grpc::StatusCode::UNIMPLEMENTED, "not here"},
           {"task throws", grpc::StatusCode::FAILED_PRECONDITION, "no table"},
           {"no task", grpc::StatusCode::INTERNAL, "internal error"},
           {"no task later", grpc::StatusCode::INTERNAL, "internal error"},
       }) {
    const grpc::Status status = echo(*stub, text).status;
    EXPECT_EQ(status.error_code(), code) << text;
    EXPECT_EQ(status.error_message(), message) << text;
  }
  const grpc::Status status = echo(*stub, "long").status;
  EXPECT_EQ(status.error_code(), grpc::StatusCode::FAILED_PRECONDITION);
  EXPECT_LT(status.error_message().size(), 2000U) << "more than a client takes";
  EXPECT_TRUE(server.settle());
  EXPECT_EQ(kit->alive, 0);
  EXPECT_EQ(trace.count("failed: password is hunter2"), 1U);
  EXPECT_EQ(trace.count("Kit-service/0: /test.Probe/Echo of "), 4U);
}

TEST(Rpc, ACancelledCallRunsToItsEndOnTheServingThread) {
  const auto kit = std::make_shared<KitService>();
  TestServer server({kit});
  const auto stub = server.stub<Probe>();
  for (const char* text : {"forever", "listen"})
    EXPECT_EQ(echo(*stub, text, 1s).status.error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
  {
    Text text;
    Collecting collect(*stub);
    Ticking ticks(*stub);  // a client that stops reading
    Chatting chat(*stub);
    ASSERT_TRUE(collect->Write(text));
    ASSERT_TRUE(ticks->Read(&text));
    ASSERT_TRUE(chat->Write(text));
    ASSERT_TRUE(chat->Read(&text));
    for (auto* context : {&collect.context, &ticks.context, &chat.context})
      context->TryCancel();
    ticks.readAll(text);
    for (const auto& status : {collect->Finish(), ticks->Finish(), chat->Finish()})
      EXPECT_EQ(status.error_code(), grpc::StatusCode::CANCELLED);
  }
  EXPECT_TRUE(server.settle());
  EXPECT_EQ(kit->alive, 0);
  EXPECT_EQ(kit->cancelled, 5) << "each is told from the end of a stream at once";
  EXPECT_EQ(kit->elsewhere, 0);
  EXPECT_EQ(kit->wake.subscriptions(), 0U);
}

// Tasks that end without a wait leave nothing on the stack, however many there are.
TEST(Rpc, ALoopOverTasksThatNeverWaitDoesNotGrowTheStack) {
  const auto kit = std::make_shared<KitService>();
  TestServer server({kit});
  EXPECT_TRUE(echo(*server.stub<Probe>(), "many tasks").status.ok());
}

TEST(Rpc, RefusesWhatIsOverTheLimitAndGivesEverySlotBack) {
  const auto kit = std::make_shared<KitService>(rpc::MethodOptions{.limit = 2, .ahead = 3});
  TestServer server({kit});
  EXPECT_GT(server.server().tagManager().size(),
            TestServer({std::make_shared<KitService>()}).server().tagManager().size())
      << "more calls are asked for";
  const auto stub = server.stub<Probe>();
  for (int round = 0; round < 3; ++round) {
    std::vector<std::jthread> held;
    for (int i = 0; i < 2; ++i)
      held.emplace_back([&] { EXPECT_TRUE(echo(*stub, "listen").status.ok()); });
    waitUntil([&] { return kit->wake.subscriptions() == 2; }, "two calls listen");
    const auto refused = echo(*stub, "hello").status;
    EXPECT_EQ(refused.error_code(), grpc::StatusCode::RESOURCE_EXHAUSTED);
    EXPECT_THAT(refused.error_details(), testing::HasSubstr("google.rpc.RetryInfo"));
    kit->wake.set();
    held.clear();
    for (const auto& [text, timeout, code] :
         {std::tuple{"argument", 60000ms, grpc::StatusCode::INVALID_ARGUMENT},
          {"throw first", 60000ms, grpc::StatusCode::UNIMPLEMENTED},
          {"forever", 20ms, grpc::StatusCode::DEADLINE_EXCEEDED}})
      EXPECT_EQ(echo(*stub, text, timeout).status.error_code(), code);
    EXPECT_TRUE(server.settle());
  }
}

// A stop with calls that wait for everything there is to wait for, many of them at once.
TEST(Rpc, AStopDestroysEveryCallWhereverItWaits) {
  constexpr int kEach = 50;
  const auto kit = std::make_shared<KitService>();
  {
    TestServer server({kit});
    const auto stub = server.stub<Probe>();
    grpc::CompletionQueue queue;
    struct Open {
      grpc::ClientContext context;
      Text reply;
      Count count;
      std::unique_ptr<grpc::ClientAsyncResponseReader<Text>> echo;
      std::unique_ptr<grpc::ClientAsyncReader<Text>> ticks;
      std::unique_ptr<grpc::ClientAsyncWriter<Text>> collect;
      grpc::Status status;
    };
    std::vector<std::unique_ptr<Open>> open;
    for (int i = 0; i < 4 * kEach; ++i) {
      auto& call = *open.emplace_back(std::make_unique<Open>());
      if (i % 4 == 0) call.ticks = stub->AsyncTick(&call.context, Count(), &queue, &call);
      if (i % 4 == 1) call.collect = stub->AsyncCollect(&call.context, &call.count, &queue, &call);
      if (i % 4 >= 2) {
        call.echo =
            stub->AsyncEcho(&call.context, textOf(i % 4 == 2 ? "forever" : "listen"), &queue);
        call.echo->Finish(&call.reply, &call.status, &call);
      }
    }
    waitUntil([&] { return kit->alive == 4 * kEach; }, "every call waits");
    server.stop();
    for (auto& call : open)
      call->context.TryCancel();
    queue.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (queue.Next(&tag, &ok)) {
    }
  }
  EXPECT_EQ(kit->alive, 0);
  EXPECT_EQ(kit->wake.subscriptions(), 0U);
}

}  // namespace
}  // namespace test
