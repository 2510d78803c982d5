#include <Kiv/Log.h>
#include <Kiv/Trace.h>
#include <VornSdkRpc/Rpc.h>
#include <gmock/gmock.h>
#include <grpcpp/generic/generic_stub.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/Calls.h"
#include "tests/Capture.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

namespace rpc = VornSdkRpc::rpc;
using namespace std::chrono_literals;
using grpc::StatusCode;

// A service whose methods a test names, and which its time is turned for by hand.
class Scripted : public rpc::Service<Probe> {
 public:
  Scripted() : Service("Scripted") { timeIs(kStart); }

  using Service::async;
  using Service::byHand;
  using Service::limitsAre;
  using Service::method;

  grpc::ServerCompletionQueue* queue() { return cq_; }

  std::function<std::optional<grpc::Status>(grpc::ServerContext&, const std::string&)> gate;

  static constexpr rpc::Clock::time_point kStart{1000h};

 private:
  std::optional<grpc::Status> admit(grpc::ServerContext& context,
                                    const std::string& method) override {
    return gate ? gate(context, method) : std::nullopt;
  }
};

using Async = Scripted::Async;
using Chat = rpc::ReaderWriter<Text, Text>;

// What the calls of a service have left behind: nothing but what is asked for.
void expectIdle(RunningServer& running) {
  waitUntil([&] { return running.server().tagManager().size() <= 9; }, "no call is left");
}

// Sends bytes that need not be a message, as the only or the second item of a call.
class Raw {
 public:
  Raw(const std::shared_ptr<grpc::Channel>& channel, const std::string& method)
      : stream_(grpc::GenericStub(channel).PrepareCall(&context_, method, &queue_)) {
    stream_->StartCall(this);
    next();
  }
  ~Raw() {
    context_.TryCancel();
    queue_.Shutdown();
    void* tag = nullptr;
    bool ok = false;
    while (queue_.Next(&tag, &ok)) {
    }
  }
  Raw(const Raw&) = delete;
  Raw& operator=(const Raw&) = delete;

  void write(const std::string& bytes) {
    const grpc::Slice slice(bytes);
    stream_->Write(grpc::ByteBuffer(&slice, 1), this);
    next();
  }
  grpc::Status finish() {
    stream_->WritesDone(this);
    next();
    grpc::Status status;
    stream_->Finish(&status, this);
    next();
    return status;
  }

 private:
  void next() {
    void* tag = nullptr;
    bool ok = false;
    queue_.Next(&tag, &ok);
  }

  grpc::ClientContext context_;
  grpc::CompletionQueue queue_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> stream_;
};

// Heartbeats from the client at any time, notices from the server at any time, and an end when no
// heartbeat has come for three seconds, however many notices there were.
TEST(RpcCall, WaitsForWhicheverComesFirst) {
  rpc::Event notice;
  const auto service = std::make_shared<Scripted>();
  service->method(&Async::RequestChat, [&](Chat& session) -> rpc::Task<> {
    Text beat;
    auto last = session.now();
    for (;;) {
      const rpc::Woke woke = co_await session.read(beat, notice, last + 3s);
      if (woke == rpc::Woke::time) co_return grpc::Status(StatusCode::DEADLINE_EXCEEDED, "silent");
      if (!woke) co_return grpc::Status::OK;
      if (woke == rpc::Woke::message) last = session.now();
      if (woke == rpc::Woke::event) beat.set_text("notice");
      // With hints to hold it back, which the client would wait for in vain.
      const auto hints = grpc::WriteOptions().set_buffer_hint().set_last_message();
      if (!co_await session.write(beat, hints)) break;
    }
    co_return grpc::Status::CANCELLED;
  });
  RunningServer running({service});
  const auto stub = running.stub();
  Text text;
  {
    const Chatting session(*stub);
    for (int second = 0; second < 10; ++second) {
      service->timeIs(Scripted::kStart + std::chrono::seconds(second));
      ASSERT_TRUE(session->Write(textOf(std::to_string(second))));
      ASSERT_TRUE(session->Read(&text));
      EXPECT_EQ(text.text(), std::to_string(second)) << "no message is lost across waits";
      notice.set();
      ASSERT_TRUE(session->Read(&text));
      EXPECT_EQ(text.text(), "notice");
    }
    service->timeIs(Scripted::kStart + 12s);
    EXPECT_FALSE(session->Read(&text));
    EXPECT_EQ(session->Finish().error_message(), "silent");
  }
  const Chatting session(*stub);
  session->WritesDone();
  EXPECT_TRUE(session->Finish().ok()) << "the end of the stream is told";
  expectIdle(running);
}

// The event is set exactly once a round, by another thread: one that is lost would hang the test.
TEST(RpcCall, AnEventBeatsATimeThatIsFarAndLosesToOneThatHasCome) {
  rpc::Event event;
  const auto service = std::make_shared<Scripted>();
  std::atomic<int> waiting = 0;
  service->method(&Async::RequestEcho,
                  [&](rpc::Call& call, const Text&, Text& reply) -> rpc::Task<> {
                    ++waiting;
                    const rpc::Woke woke = co_await call.wait(event, Scripted::kStart + 1h);
                    reply.set_text(woke == rpc::Woke::event  ? "event"
                                   : woke == rpc::Woke::time ? "time"
                                                             : "neither");
                    co_return grpc::Status::OK;
                  });
  RunningServer running({service});
  const auto stub = running.stub();
  for (int round = 1; round <= 200; ++round) {
    const bool early = round % 2 == 0;
    std::jthread waker([&] {
      if (!early) waitUntil([&] { return waiting == round; }, "the call waits");
      event.set();
    });
    ASSERT_EQ(echo(*stub).reply.text(), "event");
  }
  std::jthread clock([&] {
    waitUntil([&] { return waiting == 201; }, "the last call waits");
    service->timeIs(Scripted::kStart + 1h);
  });
  EXPECT_EQ(echo(*stub).reply.text(), "time");
}

TEST(RpcCall, BytesThatAreNoMessageEndTheCallAndAreAccounted) {
  const Capture log(Kiv::platformLogger());
  const auto service = std::make_shared<Scripted>();
  std::atomic<int> ended = 0;
  service->method(&Async::RequestEcho, [](const Text&, Text&) { return grpc::Status::OK; });
  service->method(&Async::RequestTick, [](rpc::Writer<Text>&, const Count&) -> rpc::Task<> {
    ADD_FAILURE() << "nothing to serve";
    co_return grpc::Status::OK;
  });
  service->method(&Async::RequestCollect, [&](rpc::Reader<Text>& texts, Count&) -> rpc::Task<> {
    Text text;
    while (co_await texts.read(text)) {
    }
    EXPECT_EQ(texts.endedBy(), rpc::EndedBy::malformed);
    EXPECT_FALSE(co_await texts.wait(1h)) << "and so does everything that is awaited after it";
    ++ended;
    co_return grpc::Status::OK;
  });
  service->method(&Async::RequestChat, [&](Chat& chat) -> rpc::Task<> {
    Text text;
    while (co_await chat.read(text)) {
    }
    EXPECT_FALSE(co_await chat.write(text));
    ++ended;
    co_return grpc::Status::OK;
  });
  const std::string good = textOf("good").SerializeAsString();
  const std::string bad = "\x0a\xff";  // a field that is longer than what follows
  {
    RunningServer running({service}, true);
    for (const char* method : {"Echo", "Tick", "Collect", "Chat"}) {
      Raw raw(running.connection(), std::string("/test.Probe/") + method);
      if (method[0] == 'C') raw.write(good);
      raw.write(bad);
      const grpc::Status status = raw.finish();
      EXPECT_EQ(status.error_code(), StatusCode::INVALID_ARGUMENT) << method;
      EXPECT_EQ(status.error_message(), "the request's bytes are no message of its type");
    }
    expectIdle(running);
  }
  EXPECT_EQ(ended, 2);
  for (const char* method : {"Echo", "Tick", "Collect", "Chat"}) {
    EXPECT_EQ(log.count(std::string("rpc: /test.Probe/") + method + ", status: 3"), 1U) << method;
  }
}

// A client that never reads holds neither the coroutine nor the call.
TEST(RpcCall, AWriteHasALimit) {
  const auto service = std::make_shared<Scripted>();
  std::atomic<int> written = 0;
  std::atomic<bool> ended = false;
  service->method(&Async::RequestTick, [&](rpc::Writer<Text>& ticks, const Count&) -> rpc::Task<> {
    const Text text = textOf(std::string(100000, 'x'));
    rpc::Woke woke = rpc::Woke::written;
    while (woke == rpc::Woke::written) {
      woke = co_await ticks.write(text, 1s);
      if (woke == rpc::Woke::written) ++written;
    }
    EXPECT_EQ(woke, rpc::Woke::time);
    ended = true;
    co_return grpc::Status(StatusCode::RESOURCE_EXHAUSTED, "the client does not read");
  });
  const Capture log(Kiv::platformLogger());
  {
    RunningServer running({service}, true);
    const auto stub = running.stub();
    const Ticking ticks(*stub);
    auto now = Scripted::kStart;
    const auto tickEnded = [&] {
      service->timeIs(now += 1s);
      std::this_thread::sleep_for(1ms);
      return ended.load();
    };
    waitUntil(tickEnded, "the write is given up");
    expectIdle(running);
    Text text;
    EXPECT_LE(ticks.readAll(text), written + 1);
    EXPECT_EQ(ticks->Finish().error_code(), StatusCode::CANCELLED);
    // The client hears of the end before the write has come back, behind which the status follows.
    waitUntil([&] { return log.count("rpc: /test.Probe/Tick, status: 8") == 1; }, "the record");
  }
  EXPECT_EQ(log.count("rpc: /test.Probe/Tick"), 1U);
}

// While a write waits for its client, the other side's message arrives.
TEST(RpcCall, ReadsWhileItWrites) {
  const auto service = std::make_shared<Scripted>();
  service->method(&Async::RequestChat, [&](Chat& chat) -> rpc::Task<> {
    const Text text = textOf(std::string(100000, 'x'));
    rpc::Event never;
    Text heard;
    // The read is outstanding from here on.
    EXPECT_EQ(co_await chat.read(heard, rpc::Limit(0s)), rpc::Woke::time);
    int written = 0;
    for (; written < 100; ++written) {
      if (!co_await chat.write(text)) break;
    }
    EXPECT_EQ(co_await chat.read(heard), rpc::Woke::message);
    EXPECT_EQ(heard.text(), "in between");
    co_return grpc::Status(StatusCode::ABORTED, std::to_string(written));
  });
  RunningServer running({service});
  const auto stub = running.stub();
  const Chatting chat(*stub);
  Text text;
  ASSERT_TRUE(chat->Read(&text));
  ASSERT_TRUE(chat->Write(textOf("in between")));
  chat.readAll(text);
  EXPECT_EQ(chat->Finish().error_message(), "100");
  expectIdle(running);
}

// A deadline travels rounded, by a share of its length: in an old call, a cancellation some seconds
// before it is the client's own clock.
TEST(RpcCall, IsAccountedAsWhatHasEndedIt) {
  const Capture log(Kiv::platformLogger());
  const auto service = std::make_shared<Scripted>();
  std::atomic<bool> waiting = false;
  std::atomic<rpc::EndedBy> endedBy = rpc::EndedBy::nothing;
  std::atomic<std::chrono::seconds> age{0s};
  service->method(&Async::RequestEcho, [&](rpc::Call& call, const Text&, Text&) -> rpc::Task<> {
    EXPECT_GT(call.remaining(), 0s);
    co_await call.sendInitialMetadata();
    service->timeIs(Scripted::kStart + age.load());
    waiting = true;
    co_await call.wait(1000h);
    endedBy = call.endedBy();
    EXPECT_TRUE(endedBy == rpc::EndedBy::cancelled || age.load() > 0s || call.remaining() < 100ms);
    co_return grpc::Status::OK;
  });
  struct Case {
    std::chrono::milliseconds deadline;
    std::chrono::seconds age;
    bool cancels;
    rpc::EndedBy endedBy;
  };
  const Case cases[] = {
      {500ms, 0s, false, rpc::EndedBy::deadline},
      {0ms, 0s, true, rpc::EndedBy::cancelled},
      {20s, 0s, true, rpc::EndedBy::cancelled},
      {20s, 1000s, true, rpc::EndedBy::deadline},
  };
  {
    RunningServer running({service}, true);
    const auto stub = running.stub();
    for (const auto& one : cases) {
      service->timeIs(Scripted::kStart);
      age = one.age;
      waiting = false;
      endedBy = rpc::EndedBy::nothing;
      grpc::ClientContext context;
      if (one.deadline > 0ms) context.set_deadline(std::chrono::system_clock::now() + one.deadline);
      std::jthread canceller([&] {
        waitUntil([&] { return waiting.load(); }, "the call waits");
        if (one.cancels) context.TryCancel();
      });
      Text reply;
      EXPECT_EQ(stub->Echo(&context, {}, &reply).error_code(),
                one.cancels ? StatusCode::CANCELLED : StatusCode::DEADLINE_EXCEEDED);
      waitUntil([&] { return endedBy != rpc::EndedBy::nothing; }, "the call has ended");
      EXPECT_EQ(endedBy, one.endedBy) << one.deadline.count() << " ms, " << one.age.count() << " s";
    }
    expectIdle(running);
  }
  EXPECT_EQ(log.count("rpc: /test.Probe/Echo, status: 4"), 2U);
  EXPECT_EQ(log.count("rpc: /test.Probe/Echo, status: 1"), 2U);
}

TEST(RpcCall, ADrainEndsWhatCanEndByItself) {
  const auto service = std::make_shared<Scripted>();
  std::atomic<int> waiting = 0;
  std::atomic<bool> stopped = false;
  rpc::Event never, finished;
  service->method(&Async::RequestChat, [&](Chat& chat) -> rpc::Task<> {
    rpc::Event silent;
    Text text;
    ++waiting;
    const rpc::Woke told = co_await chat.read(text, silent);
    EXPECT_EQ(told, rpc::Woke::draining);
    EXPECT_FALSE(told) << "there is nothing to go on with";
    EXPECT_EQ(co_await chat.read(text, silent), rpc::Woke::message) << "it is told once";
    co_return grpc::Status(StatusCode::ABORTED, "in its own words");
  });
  service->method(&Async::RequestEcho,  // will come to its end
                  [&](rpc::Call& call, const Text&, Text&) -> rpc::Task<> {
                    ++waiting;
                    EXPECT_EQ(co_await call.waitThroughDrain(finished), rpc::Woke::event);
                    co_return grpc::Status::OK;
                  });
  service->method(&Async::RequestTick,
                  [&](rpc::Writer<Text>& ticks, const Count& forEver) -> rpc::Task<> {
                    struct Told {
                      ~Told() { stopped = stopped || call.endedBy() == rpc::EndedBy::drained; }
                      rpc::Writer<Text>& call;
                      std::atomic<bool>& stopped;
                    };
                    const Told told{ticks, stopped};
                    ++waiting;
                    if (forEver.count() == 0) {
                      while (co_await ticks.wait(never)) {
                      }
                    } else {
                      co_await ticks.wait(1000h);
                    }
                    co_return ticks.endStatus();
                  });
  {
    RunningServer running({service});
    const auto stub = running.stub();
    const Chatting chat(*stub);
    const Ticking watch(*stub), ticks(*stub, 1);
    std::jthread sleeper([&] { EXPECT_TRUE(echo(*stub).status.ok()) << "through the drain"; });
    waitUntil([&] { return waiting == 4; }, "every call waits");
    std::jthread drain([&] { running.drain(1s); });
    waitUntil([&] { return service->draining(); }, "the drain has begun");
    EXPECT_EQ(watch->Finish().error_code(), StatusCode::UNAVAILABLE);
    finished.set();
    ASSERT_TRUE(chat->Write(textOf("go on")));
    EXPECT_EQ(chat->Finish().error_message(), "in its own words");
    Text text;
    EXPECT_FALSE(ticks->Read(&text)) << "what goes on is cancelled after the grace";
    EXPECT_FALSE(ticks->Finish().ok());
  }
  EXPECT_TRUE(stopped) << "the locals of what was destroyed are told why";
}

TEST(RpcCall, SendsMetadataAtAnyTime) {
  const auto service = std::make_shared<Scripted>();
  rpc::Event goOn;
  service->method(&Async::RequestEcho,
                  [&](rpc::Call& call, const Text& text, Text& reply) -> rpc::Task<> {
                    call.context().set_compression_algorithm(GRPC_COMPRESS_GZIP);
                    call.context().AddInitialMetadata("early", "yes");
                    EXPECT_EQ(co_await call.sendInitialMetadata(), rpc::Woke::written);
                    EXPECT_EQ(co_await call.wait(goOn), rpc::Woke::event);
                    call.context().AddTrailingMetadata("late", "too");
                    reply = text;
                    if (text.text() == "twice") co_await call.sendInitialMetadata();
                    co_return grpc::Status::OK;
                  });
  RunningServer running({service});
  const auto stub = running.stub();
  grpc::CompletionQueue queue;
  for (const char* text : {"once", "twice"}) {
    grpc::ClientContext context;
    Text reply;
    grpc::Status status;
    const auto call = stub->AsyncEcho(&context, textOf(text), &queue);
    void* tag = nullptr;
    bool ok = false;
    call->ReadInitialMetadata(&queue);
    ASSERT_TRUE(queue.Next(&tag, &ok));  // while the coroutine waits
    EXPECT_EQ(context.GetServerInitialMetadata().count("early"), 1U);
    goOn.set();
    call->Finish(&reply, &status, &queue);
    ASSERT_TRUE(queue.Next(&tag, &ok));
    EXPECT_EQ(status.error_code(),
              text == std::string("once") ? StatusCode::OK : StatusCode::INTERNAL);
    EXPECT_EQ(context.GetServerTrailingMetadata().count("late"), 1U);
  }
}

// One coroutine of each operation with a captured string, which g++ 12 must not destroy twice: a
// sanitizer sees it, and so does the reply.
TEST(RpcCall, NoOperationHarmsWhatACoroutineHolds) {
  const auto service = std::make_shared<Scripted>();
  const std::string kLong(100, 'c');
  service->method(&Async::RequestChat, [captured = kLong](Chat& chat) -> rpc::Task<> {
    const std::string local = captured;
    rpc::Event event;
    Text text;
    event.set();
    EXPECT_EQ(co_await chat.wait(event), rpc::Woke::event);
    EXPECT_EQ(co_await chat.wait(event, rpc::Limit(0s)), rpc::Woke::time);
    EXPECT_EQ(co_await chat.wait(rpc::Limit(0s)), rpc::Woke::time);
    EXPECT_EQ(co_await chat.sendInitialMetadata(), rpc::Woke::written);
    EXPECT_EQ(co_await chat.write(textOf(captured + local)), rpc::Woke::written);
    EXPECT_EQ(co_await chat.write(textOf(captured + local), 1h), rpc::Woke::written);
    EXPECT_EQ(co_await chat.read(text), rpc::Woke::message);
    EXPECT_EQ(co_await chat.read(text, 1h), rpc::Woke::message);
    EXPECT_EQ(co_await chat.read(text, event, 1h), rpc::Woke::end);
    co_return grpc::Status(StatusCode::ABORTED, captured + local);
  });
  RunningServer running({service});
  const auto stub = running.stub();
  const Chatting chat(*stub);
  Text text;
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(chat->Write(text));
    ASSERT_TRUE(chat->Read(&text));
    EXPECT_EQ(text.text(), kLong + kLong);
  }
  chat->WritesDone();
  EXPECT_EQ(chat->Finish().error_message(), kLong + kLong);
}

// ------------------------------------------------------------------------------------------------
// What a call has to pass, and how it is shown

TEST(RpcCall, EveryCallPassesOnePlaceBeforeItsFunction) {
  const auto service = std::make_shared<Scripted>();
  service->gate = [](grpc::ServerContext& context,
                     const std::string& method) -> std::optional<grpc::Status> {
    if (context.client_metadata().count("throw") != 0)
      throw vorn::no_scoped_lock_obtained_error("no policy");
    if (context.client_metadata().count("let-in") != 0) return std::nullopt;
    return grpc::Status(StatusCode::PERMISSION_DENIED, method);
  };
  std::atomic<int> served = 0;
  service->method(&Async::RequestEcho, [&](const Text&, Text&) {
    ++served;
    return grpc::Status::OK;
  });
  service->method(&Async::RequestTick, [&](rpc::Writer<Text>&, const Count&) -> rpc::Task<> {
    ++served;
    co_return grpc::Status::OK;
  });
  RunningServer running({service});
  const auto stub = running.stub();
  const auto echoed = [&](const char* key) {
    grpc::ClientContext context;
    Text reply;
    context.AddMetadata(key, "");
    return stub->Echo(&context, Text(), &reply);
  };
  EXPECT_EQ(echoed("no-key").error_message(), "/test.Probe/Echo");
  EXPECT_EQ(echoed("throw").error_message(), "no policy");
  EXPECT_EQ(Ticking(*stub)->Finish().error_message(), "/test.Probe/Tick");
  EXPECT_EQ(served, 0);
  EXPECT_TRUE(echoed("let-in").ok());
  EXPECT_EQ(served, 1);
}

TEST(RpcCall, OneClientDoesNotHoldEveryCall) {
  const auto service = std::make_shared<Scripted>();
  const auto limits =
      std::make_shared<rpc::Limits>(rpc::Limits::Options{.perConnection = 2, .perAddress = 3});
  service->limitsAre(limits);
  std::atomic<int> held = 0;
  service->method(&Async::RequestTick, [&](rpc::Writer<Text>& ticks, const Count&) -> rpc::Task<> {
    ++held;
    co_await ticks.wait(rpc::forever);
    co_return grpc::Status::OK;
  });
  RunningServer running({service});
  const auto one = running.stub(), other = running.stub();
  for (int round = 0; round < 3; ++round) {
    held = 0;
    {
      const Ticking first(*one), second(*one), third(*other);
      waitUntil([&] { return held == 3; }, "three calls are held");
      for (auto* stub : {one.get(), other.get()})  // the connection's limit, the address's
        EXPECT_EQ(Ticking(*stub)->Finish().error_code(), StatusCode::RESOURCE_EXHAUSTED);
    }
    expectIdle(running);
  }
}

TEST(RpcCall, AStreamThatDoesNothingIsEnded) {
  const auto service = std::make_shared<Scripted>();
  std::atomic<int> read = 0;
  service->method(&Async::RequestCollect,
                  [&](rpc::Reader<Text>& texts, Count&) -> rpc::Task<> {
                    Text text;
                    while (co_await texts.read(text))
                      ++read;
                    EXPECT_EQ(texts.endedBy(), rpc::EndedBy::idle);
                    co_return grpc::Status::OK;
                  },
                  {.idle = 10s});
  RunningServer running({service});
  const auto stub = running.stub();
  const Collecting texts(*stub);
  for (int i = 1; i <= 5; ++i) {
    ASSERT_TRUE(texts->Write(Text()));
    waitUntil([&] { return read == i; }, "the text is read");
    service->timeIs(Scripted::kStart + i * 9s);  // a moment before its time
  }
  service->timeIs(Scripted::kStart + 4 * 9s + 10s);
  EXPECT_EQ(texts->Finish().error_code(), StatusCode::DEADLINE_EXCEEDED);
  expectIdle(running);
}

TEST(RpcCall, TheCallsInProgressCanBeListed) {
  const Capture trace(Kiv::traceLogger());
  const auto service = std::make_shared<Scripted>();
  rpc::Event event;
  std::atomic<int> waiting = 0;
  service->method(&Async::RequestTick, [&](rpc::Writer<Text>& ticks, const Count&) -> rpc::Task<> {
    co_await ticks.wait(0s);  // its age counts from its first wait
    ++waiting;
    co_await ticks.wait(event);
    co_return grpc::Status::OK;
  });
  service->method(&Async::RequestCollect, [&](rpc::Reader<Text>& texts, Count&) -> rpc::Task<> {
    Text text;
    ++waiting;
    co_await texts.read(text);
    co_return grpc::Status::OK;
  });
  std::promise<std::vector<rpc::CallInProgress>> listed;
  service->method(&Async::RequestEcho, [&](const Text&, Text&) {
    listed.set_value(service->calls());
    service->traceCalls();
    return grpc::Status::OK;
  });
  RunningServer running({service});
  const auto stub = running.stub();
  const Ticking ticks(*stub);
  waitUntil([&] { return waiting == 1; }, "the first call waits");
  service->timeIs(Scripted::kStart + 5s);
  const Collecting texts(*stub);
  waitUntil([&] { return waiting == 2; }, "the second call waits");
  ASSERT_TRUE(echo(*stub).status.ok());
  const auto calls = listed.get_future().get();
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].method, "/test.Probe/Tick");
  EXPECT_EQ(calls[0].age, 5s);
  EXPECT_EQ(calls[0].waitsFor, "an event");
  EXPECT_EQ(calls[1].method, "/test.Probe/Collect");
  EXPECT_EQ(calls[1].waitsFor, "a message");
  EXPECT_TRUE(calls[1].peer.starts_with("ipv4:127.0.0.1:"));
  EXPECT_EQ(trace.count(": 5.000 s, waits for an event"), 1U);
  event.set();
  EXPECT_TRUE(ticks->Finish().ok());
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wreturn-type"  // clang tells the author; g++ does not
TEST(RpcCall, ACoroutineThatEndsWithoutAStatusEndsItsCall) {
  const Capture trace(Kiv::traceLogger());
  const auto service = std::make_shared<Scripted>();
  service->method(&Async::RequestEcho, [](rpc::Call& call, const Text& text, Text&) -> rpc::Task<> {
    co_await call.wait(rpc::Limit(0s));
    if (text.text() == "status") co_return grpc::Status::OK;
  });
  RunningServer running({service});
  EXPECT_EQ(echo(*running.stub()).status.error_code(), StatusCode::INTERNAL);
  EXPECT_EQ(trace.count("a coroutine ended without co_return"), 1U);
}
#pragma GCC diagnostic pop

TEST(RpcCall, AStatusNamesTheFieldsThatAreWrongAndWhenToTryAgain) {
  const auto service = std::make_shared<Scripted>();
  service->method(&Async::RequestEcho, [](const Text& text, Text&) -> grpc::Status {
    if (text.text() == "argument") throw vorn::invalid_argument_error("no such text", "text");
    rpc::StatusError error(StatusCode::UNAVAILABLE, "busy");
    if (text.text() == "many") {
      for (int i = 0; i < 1000; ++i)
        error.wrongField(std::string(1000, 'f'), std::string(1000, 'd'));
    }
    throw error.retryAfter(1500ms);
  });
  RunningServer running({service});
  const auto stub = running.stub();
  const auto detailsOf = [&](const char* text) {
    const grpc::Status status = echo(*stub, text).status;
    Details details;
    EXPECT_TRUE(details.ParseFromString(status.error_details())) << text;
    EXPECT_EQ(details.code(), status.error_code()) << text;
    EXPECT_EQ(details.message(), status.error_message()) << text;
    return details;
  };
  const auto argument = detailsOf("argument");
  ASSERT_EQ(argument.details_size(), 1);
  EXPECT_EQ(argument.code(), StatusCode::INVALID_ARGUMENT);
  EXPECT_EQ(argument.details(0).type_url(), "type.googleapis.com/google.rpc.BadRequest");
  BadRequest bad;
  ASSERT_TRUE(bad.ParseFromString(argument.details(0).value()));
  ASSERT_EQ(bad.field_violations_size(), 1);
  EXPECT_EQ(bad.field_violations(0).field(), "text");
  EXPECT_EQ(bad.field_violations(0).description(), "no such text");
  const auto retry = detailsOf("retry");
  ASSERT_EQ(retry.details_size(), 1);
  EXPECT_EQ(retry.details(0).type_url(), "type.googleapis.com/google.rpc.RetryInfo");
  RetryInfo info;
  ASSERT_TRUE(info.ParseFromString(retry.details(0).value()));
  EXPECT_EQ(info.retry_delay().seconds(), 1);
  EXPECT_EQ(info.retry_delay().nanos(), 500000000);
  EXPECT_EQ(detailsOf("many").details_size(), 2) << "and no more than the client takes";
}

// An RPC by hand beside those of the kit.
class HandEcho : public VornSdkRpc::RequestHandler {
 public:
  HandEcho(Scripted& service, grpc::ServerCompletionQueue* queue, VornSdkRpc::OpaqueId tag)
      : service_(service), queue_(queue) {
    opaqueId_ = tag;
    service.async().RequestEcho(&context_, &text_, &writer_, queue, queue, tag);
  }
  VornSdkRpc::RequestHandlerPtr spawn(VornSdkRpc::OpaqueId tag) override {
    return std::make_shared<HandEcho>(service_, queue_, tag);
  }
  void proceed(VornSdkRpc::OpaqueId tag) override {
    text_.set_text("by hand: " + text_.text());
    writer_.Finish(text_, grpc::Status::OK, tag);
  }

 private:
  Scripted& service_;
  grpc::ServerCompletionQueue* const queue_;
  grpc::ServerContext context_;
  Text text_;
  grpc::ServerAsyncResponseWriter<Text> writer_{&context_};
};

TEST(RpcCall, OneRpcMayBeServedByHand) {
  const auto service = std::make_shared<Scripted>();
  service->byHand(&Async::RequestEcho, [&](VornSdkRpc::OpaqueId tag) {
    return std::make_shared<HandEcho>(*service, service->queue(), tag);
  });
  RunningServer running({service});
  const auto stub = running.stub();
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(echo(*stub, "text").reply.text(), "by hand: text");
}

}  // namespace
}  // namespace test
