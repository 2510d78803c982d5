#include <Kiv/Trace.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/ServerArguments.h>
#include <gmock/gmock.h>
#include <grpcpp/alarm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "tests/Calls.h"
#include "tests/Capture.h"
#include "tests/ProbeService.h"
#include "tests/Thrown.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

using VornSdkRpc::GrpcServer;
using VornSdkRpc::GrpcService;
using VornSdkRpc::OpaqueId;
using VornSdkRpc::RequestHandler;
using VornSdkRpc::RequestHandlerPtr;

// A service without gRPC methods, whose tags complete when the test says so.
class ScriptedService : public GrpcService {
 public:
  explicit ScriptedService(std::string name = "Scripted") : GrpcService(std::move(name)) {}
  int startedCalls = 0;
  int stopNotices = 0;

 private:
  void registerWith(grpc::ServerBuilder&) override {}
  void serverStarted() override { ++startedCalls; }
  void stoppingChanged() override { ++stopNotices; }
};

// Notes what it is asked to do, and goes to the state that the test has chosen.
struct ScriptedHandler : RequestHandler {
  explicit ScriptedHandler(OpaqueId tag) { opaqueId_ = tag; }
  void proceed(OpaqueId tag) override {
    proceeded.push_back(tag);
    if (failure) throw std::out_of_range("a handler's own");
    state_ = next;
  }
  RequestHandlerPtr spawn(OpaqueId tag) override {
    successor = std::make_shared<ScriptedHandler>(tag);
    return successor;
  }
  State next = AWAITING_CALL;
  bool failure = false;
  std::vector<OpaqueId> proceeded;
  std::shared_ptr<ScriptedHandler> successor;
};

// A server that is set up on this thread, for completions that the test makes up.
struct ScriptedServer {
  std::shared_ptr<ScriptedHandler> handler() {
    auto made = std::make_shared<ScriptedHandler>(service->nextOpaqueId());
    service->registerHandler(made);
    return made;
  }
  bool known(OpaqueId tag) {
    std::size_t serviceId = 0;
    RequestHandlerPtr found;
    return server.tagManager().find(tag, serviceId, found);
  }

  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  std::shared_ptr<ScriptedService> service = std::make_shared<ScriptedService>();
  GrpcServer server{builder, {service}, properties};
};

std::string pointer(OpaqueId tag) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", tag);
  return text;
}

TEST(Dispatch, FollowsTheStateOfTheHandler) {
  using enum RequestHandler::State;
  struct Case {
    RequestHandler::State before, chosen, after;
    std::size_t proceeds;
    bool spawns, stays;
  };
  constexpr auto kOther = static_cast<RequestHandler::State>(7);
  for (const auto& [before, chosen, after, proceeds, spawns, stays] : {
           Case{AWAITING_CALL, AWAITING_CALL, FINISHED, 1, true, true},
           Case{AWAITING_CALL, IN_PROGRESS, IN_PROGRESS, 1, true, true},
           Case{IN_PROGRESS, FINISHED, FINISHED, 1, false, true},
           Case{FINISHED, IN_PROGRESS, FINISHED, 0, false, false},
           Case{kOther, FINISHED, kOther, 0, false, true},
       }) {
    SCOPED_TRACE(before);
    ScriptedServer scripted;
    scripted.server.setup();
    const auto handler = scripted.handler();
    handler->state_ = before;
    handler->next = chosen;
    scripted.server.handleTag(handler->opaqueId_, true);
    EXPECT_EQ(handler->state_, after);
    EXPECT_EQ(handler->proceeded.size(), proceeds);
    EXPECT_EQ(handler->successor != nullptr, spawns);
    EXPECT_EQ(spawns && scripted.known(handler->successor->opaqueId_), spawns);
    EXPECT_EQ(scripted.known(handler->opaqueId_), stays);
    EXPECT_EQ(handler.use_count(), stays ? 2 : 1);
  }
}

TEST(Dispatch, TracesEveryStepOfACall) {
  Kiv::traceSettingIs("Scripted-service/8,GrpcServer/8");
  const Capture trace(Kiv::traceLogger());
  ScriptedServer scripted;
  scripted.server.setup();
  const auto handler = scripted.handler();
  const OpaqueId tag = handler->opaqueId_;
  scripted.server.handleTag(tag, true);
  scripted.server.handleTag(tag, true);
  scripted.server.handleTag(tag, true);
  EXPECT_THAT(trace.lines(),
              testing::ElementsAre("Scripted-service/8: Created tag " + pointer(tag) + " svcId 0",
                                   "Scripted-service/8: Created tag " +
                                       pointer(handler->successor->opaqueId_) + " svcId 0",
                                   "Scripted-service/8: process handler " + pointer(tag),
                                   "Scripted-service/8: erase handler " + pointer(tag),
                                   "GrpcServer/8: no handler for tag " + pointer(tag)));
  Kiv::traceSettingIs("");
}

TEST(Dispatch, AfterAStopForgetsFailedTagsAndIgnoresTheOthers) {
  ScriptedServer scripted;
  scripted.server.setup();
  const auto failed = scripted.handler();
  const auto succeeded = scripted.handler();
  const OpaqueId empty = scripted.service->nextOpaqueId();
  scripted.server.stop();
  scripted.server.stop();
  EXPECT_EQ(scripted.service->stopNotices, 1);
  scripted.server.handleTag(failed->opaqueId_, false);
  scripted.server.handleTag(succeeded->opaqueId_, true);
  scripted.server.handleTag(empty, false);
  EXPECT_FALSE(scripted.known(failed->opaqueId_));
  EXPECT_TRUE(scripted.known(succeeded->opaqueId_));
  EXPECT_TRUE(scripted.known(empty)) << "a tag without a handler stays";
  EXPECT_TRUE(failed->proceeded.empty());
  EXPECT_TRUE(succeeded->proceeded.empty());
}

TEST(Dispatch, SurvivesAnUnknownServiceAndAHandlersOutOfRange) {
  const Capture trace(Kiv::traceLogger());
  ScriptedServer scripted;
  scripted.server.setup();
  const OpaqueId foreign = scripted.server.tagManager().newTag(3);
  scripted.server.handleTag(foreign, true);
  EXPECT_TRUE(scripted.known(foreign));
  const auto handler = scripted.handler();
  handler->state_ = RequestHandler::IN_PROGRESS;
  handler->failure = true;
  EXPECT_NO_THROW(scripted.server.handleTag(handler->opaqueId_, true));
  EXPECT_EQ(handler.use_count(), 2) << "the dispatch keeps no reference";
  EXPECT_THAT(trace.lines(), testing::IsEmpty());
}

TEST(Dispatch, AnExtraTagReachesTheSameHandlerWithItsOkFlag) {
  ScriptedServer scripted;
  scripted.server.setup();
  const auto handler = scripted.handler();
  handler->state_ = handler->next = RequestHandler::IN_PROGRESS;
  const OpaqueId extra = scripted.service->assignExtraTag(handler);
  scripted.server.handleTag(extra, false);
  EXPECT_FALSE(scripted.service->completionOk());
  scripted.server.handleTag(handler->opaqueId_, true);
  EXPECT_TRUE(scripted.service->completionOk());
  EXPECT_THAT(handler->proceeded, testing::ElementsAre(extra, handler->opaqueId_));
  handler->state_ = RequestHandler::FINISHED;
  scripted.server.handleTag(extra, true);
  EXPECT_FALSE(scripted.known(extra));
  EXPECT_TRUE(scripted.known(handler->opaqueId_));
  EXPECT_EQ(scripted.service->findHandler(handler->opaqueId_), handler.get());
  EXPECT_EQ(scripted.service->findHandler(extra), nullptr);
  EXPECT_EQ(scripted.service->findHandler(scripted.service->nextOpaqueId()), nullptr);
}

TEST(Dispatch, AHandlerThatRemovesItselfLivesUntilItsStepIsOver) {
  struct Removing : ScriptedHandler {
    using ScriptedHandler::ScriptedHandler;
    void proceed(OpaqueId tag) override { remove(tag); }
    std::function<void(OpaqueId)> remove;
  };
  ScriptedServer scripted;
  scripted.server.setup();
  auto handler = std::make_shared<Removing>(scripted.service->nextOpaqueId());
  const std::weak_ptr<Removing> watched = handler;
  bool lives = false;
  handler->state_ = RequestHandler::IN_PROGRESS;
  handler->remove = [&](OpaqueId tag) {
    scripted.service->removeHandler(tag);
    lives = !watched.expired();
  };
  const OpaqueId tag = handler->opaqueId_;
  scripted.service->registerHandler(std::move(handler));
  scripted.server.handleTag(tag, true);
  EXPECT_TRUE(lives);
  EXPECT_TRUE(watched.expired());
}

TEST(ServiceDeathTest, AsksOnlyForItsOwnTags) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ScriptedServer scripted;
  scripted.server.setup();
  const OpaqueId foreign = scripted.server.tagManager().newTag(1);
  EXPECT_DEATH(scripted.service->findHandler(foreign), "serviceId == serviceId_");
}

TEST(Service, NotifiesOfStoppingOnlyWhenItChanges) {
  ScriptedService service("Route");
  EXPECT_EQ(service.name(), "Route-service");
  service.stoppingIs(false);
  EXPECT_EQ(service.stopNotices, 0);
  service.stoppingIs(true);
  service.stoppingIs(true);
  EXPECT_EQ(service.stopNotices, 1);
  grpc::ServerBuilder builder;
  service.selfRegister(4, builder);
  EXPECT_EQ(service.serviceId(), 4U);
  EXPECT_FALSE(service.stopping());
  EXPECT_EQ(service.stopNotices, 1) << "registration clears the flag without a word";
}

// The client has its answer a moment before the server's final completion is dispatched.
void waitForPendingCallsOnly(RunningServer& running) {
  waitUntil([&] { return running.server().tagManager().size() == 4; },
            "only the pending calls have tags");
}

TEST(Server, AnswersEveryKindOfCallAndForgetsItsTags) {
  const auto probe = std::make_shared<ProbeService>();
  RunningServer running({probe});
  const auto stub = running.stub();
  EXPECT_EQ(callEcho(*stub, "fail"), grpc::StatusCode::NOT_FOUND);

  streamAHundredEachWay(*stub);

  Text reply;
  const Chatting chat(*stub);
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(chat->Write(textOf(std::to_string(i))));
    ASSERT_TRUE(chat->Read(&reply));
    EXPECT_EQ(reply.text(), std::to_string(i));
  }
  chat->WritesDone();
  EXPECT_TRUE(chat->Finish().ok());
  waitForPendingCallsOnly(running);
  EXPECT_EQ(probe->made, 8) << "four that waited first, and one successor each";
}

// A client that is not gRPC's own, with 64 calls at once over 4 connections.
TEST(Server, AnswersTenThousandCallsOfH2load) {
  if (std::system("command -v h2load >/dev/null")) GTEST_SKIP() << "h2load is not installed";
  const auto probe = std::make_shared<ProbeService>();
  RunningServer running({probe});
  const std::string body = testing::TempDir() + "echo-" + std::to_string(getpid());
  std::ofstream(body, std::ios::binary) << std::string("\0\0\0\0\4\12\2hi", 9);  // Text{"hi"}
  const std::string command = "h2load -n 10000 -c 4 -m 16 -d " + body +
                              " -H 'te: trailers' -H 'content-type: application/grpc' http://" +
                              running.address() + "/test.Probe/Echo";
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
  std::string output(10000, '\0');
  output.resize(std::fread(output.data(), 1, output.size(), pipe.get()));
  std::remove(body.c_str());
  EXPECT_THAT(output, testing::HasSubstr("10000 succeeded, 0 failed, 0 errored, 0 timeout"));
  waitForPendingCallsOnly(running);
  EXPECT_EQ(probe->made, 4 + 10000);
}

TEST(Server, StopsWithCallsInEveryStateAndDestroysTheirHandlers) {
  const auto probe = std::make_shared<ProbeService>();
  {
    RunningServer running({probe});
    const auto stub = running.stub();
    Text reply;
    const Ticking ticks(*stub);
    const Collecting collect(*stub);
    const Chatting chat(*stub);
    ASSERT_TRUE(ticks->Read(&reply));
    ASSERT_TRUE(collect->Write(reply));
    ASSERT_TRUE(chat->Write(reply));
    ASSERT_TRUE(chat->Read(&reply));

    running.stop();
    EXPECT_FALSE(ticks->Read(&reply));
    for (const auto& status : {ticks->Finish(), collect->Finish(), chat->Finish()})
      EXPECT_FALSE(status.ok());
    EXPECT_EQ(probe->stopNotices, 1);
  }
  EXPECT_EQ(probe->alive, 0);
}

// What gRPC's health service says, as far as a Count can be read for its response: the field of
// the status has the same number.
class HealthWatch {
 public:
  explicit HealthWatch(const std::shared_ptr<grpc::Channel>& channel) : stub_(channel) {
    stream_ = stub_.PrepareCall(&context_, "/grpc.health.v1.Health/Watch", &queue_);
    stream_->StartCall(this);
    wait();
    stream_->WriteLast(Text(), {}, this);
    wait();
  }
  ~HealthWatch() {
    context_.TryCancel();
    grpc::Status status;
    stream_->Finish(&status, this);
    wait();
  }
  unsigned next() {
    Count status;
    stream_->Read(&status, this);
    wait();
    return status.count();
  }

 private:
  void wait() {
    void* tag = nullptr;
    bool ok = false;
    queue_.Next(&tag, &ok);
  }

  grpc::TemplatedGenericStub<Text, Count> stub_;
  grpc::ClientContext context_;
  grpc::CompletionQueue queue_;
  std::unique_ptr<grpc::ClientAsyncReaderWriter<Text, Count>> stream_;
};

TEST(Server, ADrainLetsTheCallsInProgressEndAndTakesNoOthers) {
  const Capture trace(Kiv::traceLogger());
  const auto probe = std::make_shared<ProbeService>();
  grpc::EnableDefaultHealthCheckService(true);
  RunningServer running({probe});
  grpc::EnableDefaultHealthCheckService(false);
  const auto stub = running.stub();
  const Collecting collect(*stub);
  ASSERT_TRUE(collect->Write(Text()));
  waitUntil([&] { return probe->made >= 5; }, "the call has arrived");
  {
    HealthWatch health(running.connection());
    EXPECT_EQ(health.next(), 1U) << "serving";
    std::thread([&] { running.server().stop(std::chrono::hours(1)); }).join();
    EXPECT_EQ(health.next(), 2U) << "not serving";
  }
  // Health's word may overtake the drain itself, and a call slip in between.
  while (callEcho(*stub, "on the old connection") == grpc::StatusCode::OK) {
  }
  const int made = probe->made;
  const auto stranger = grpc::CreateChannel(running.address(), grpc::InsecureChannelCredentials());
  EXPECT_EQ(callEcho(*Probe::NewStub(stranger), "on a new one"), grpc::StatusCode::UNAVAILABLE);

  EXPECT_TRUE(collect->Write(Text()));
  collect->WritesDone();
  EXPECT_TRUE(collect->Finish().ok());
  EXPECT_EQ(collect.collected.count(), 2U);
  running.drain(std::chrono::hours(2));  // the first grace still holds
  EXPECT_EQ(probe->made, made) << "nobody asks a draining server for calls again";
  EXPECT_EQ(running.server().tagManager().size(), 0U);
  EXPECT_THAT(trace.lines(), testing::ElementsAre("GrpcServer/0: Server is being drained.",
                                                  "GrpcServer/0: Server is being shut down."));
}

TEST(Server, ADrainEndsWithItsGraceOrAStop) {
  for (const bool stops : {false, true}) {
    const auto probe = std::make_shared<ProbeService>();
    {
      RunningServer running({probe});
      const auto stub = running.stub();
      Text reply;
      const Ticking ticks(*stub);
      ASSERT_TRUE(ticks->Read(&reply));
      running.server().stop(std::chrono::milliseconds(stops ? 3'600'000 : 1));
      if (stops) {
        running.stop();
      } else {
        running.drain(std::chrono::hours(1));
      }
      EXPECT_FALSE(ticks->Read(&reply));
      EXPECT_FALSE(ticks->Finish().ok());
      EXPECT_EQ(probe->stopNotices, 1);
    }
    EXPECT_EQ(probe->alive, 0);
  }
}

TEST(Server, AStopBeforeTheRunIsKept) {
  const Capture trace(Kiv::traceLogger());
  const auto probe = std::make_shared<ProbeService>();
  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  {
    GrpcServer server(builder, {probe}, properties, true);
    server.stop();
    server.run();
    EXPECT_THAT(trace.lines(), testing::ElementsAre("GrpcServer/0: Accounting thread finished",
                                                    "GrpcServer/0: Server is being shut down."));
  }
  EXPECT_EQ(probe->made, 4);
  EXPECT_EQ(probe->alive, 0);
}

// A service of one handler, which has a completion when the alarm rings.
struct Alarmed : GrpcService {
  struct Handler : ScriptedHandler {
    Handler(OpaqueId tag, std::function<void()> does)
        : ScriptedHandler(tag), does_(std::move(does)) {
      state_ = IN_PROGRESS;
    }
    void proceed(OpaqueId) override {
      does_();
      state_ = FINISHED;
    }
    const std::function<void()> does_;
  };
  Alarmed() : GrpcService("Alarmed") {}
  void registerWith(grpc::ServerBuilder&) override {}
  void serverStarted() override {}
  void ring(std::function<void()> does) {
    handler = std::make_shared<Handler>(nextOpaqueId(), std::move(does));
    registerHandler(handler);
    alarm.Set(cq_, gpr_now(GPR_CLOCK_MONOTONIC), handler->opaqueId_);
  }
  std::shared_ptr<Handler> handler;
  grpc::Alarm alarm;
};

// A handler whose exception leaves run(), and a service that can't even be told to stop.
TEST(Server, CanBeDestroyedAfterAHandlersExceptionHasLeftTheRun) {
  struct Failing : Alarmed {
    void serverStarted() override {
      ring([] { throw std::runtime_error("a handler's own"); });
    }
    void stoppingChanged() override { throw std::runtime_error("cannot stop"); }
  };
  const Capture trace(Kiv::traceLogger());
  const auto failing = std::make_shared<Failing>();
  const auto probe = std::make_shared<ProbeService>();
  {
    grpc::ServerBuilder builder;
    VornSdkRpc::ServerProperties properties;
    GrpcServer server(builder, {failing, probe}, properties);
    EXPECT_THROW(server.run(), std::runtime_error);
    EXPECT_EQ(probe->alive, 4);
  }
  EXPECT_EQ(probe->alive, 0);
  EXPECT_EQ(failing->handler.use_count(), 1);
  EXPECT_EQ(trace.count("failed to stop"), 1U);
  EXPECT_EQ(probe->stopNotices, 1) << "told after the one that failed";
}

// As a flood does, which gRPC serves within one poll.
TEST(Server, AStopCancelsCallsWhileTheServingThreadIsBusy) {
  const auto busy = std::make_shared<Alarmed>();
  RunningServer running({std::make_shared<ProbeService>(), busy});
  const auto stub = running.stub();
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::minutes(1));
  Text reply;
  const auto ticks = stub->Tick(&context, Count());
  ASSERT_TRUE(ticks->Read(&reply));
  std::promise<void> begun, over;
  busy->ring([&] {
    begun.set_value();
    over.get_future().wait();
  });
  begun.get_future().wait();
  running.server().stop();
  while (ticks->Read(&reply)) {
  }
  const auto code = ticks->Finish().error_code();
  over.set_value();
  EXPECT_TRUE(code != grpc::OK && code != grpc::DEADLINE_EXCEEDED) << code;
}

TEST(ServerDeathTest, AStopThatCannotEndEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto probe = std::make_shared<ProbeService>();
  const auto hangs = [&](bool destroyed) {
    grpc::ServerBuilder builder;
    VornSdkRpc::ServerProperties properties;
    grpc::Alarm alarm;
    GrpcServer server(builder, {probe}, properties);
    server.stopTimeoutIs(std::chrono::milliseconds(1));
    server.setup();
    alarm.Set(probe->queue(), gpr_inf_future(GPR_CLOCK_REALTIME), nullptr);
    if (!destroyed) server.teardown();
  };
  for (const bool destroyed : {false, true})
    EXPECT_DEATH(hangs(destroyed), "GrpcServer/0: The server has not ended 1 ms after");
}

TEST(Server, SetsUpOnlyOnceAndTearsDownWithoutAStop) {
  ScriptedServer scripted;
  scripted.server.setup();
  EXPECT_THROW(scripted.server.setup(), VornSdkRpc::ServerFailedError);
  EXPECT_EQ(scripted.service->startedCalls, 1);
  EXPECT_NE(scripted.server.server(), nullptr) << "the running server is untouched";
  scripted.server.teardown();
  EXPECT_EQ(scripted.service->stopNotices, 1);
}

TEST(Server, ATakenPortIsAnErrorAndStartsNoService) {
  RunningServer first({std::make_shared<ProbeService>()});
  ScriptedServer second;
  second.builder.AddListeningPort(first.address(), grpc::InsecureServerCredentials());
  VornSdkRpc::installArguments(second.builder);
  try {
    second.server.run();
    FAIL() << "the server runs on a taken port";
  } catch (const std::exception& error) {
    EXPECT_NE(dynamic_cast<const VornSdkRpc::ServerFailedError*>(&error), nullptr);
    EXPECT_STREQ(error.what(), "");
  }
  EXPECT_EQ(second.service->startedCalls, 0);
  EXPECT_THROW(second.server.setup(), VornSdkRpc::ServerFailedError);
}

TEST(Server, RefusesAServiceThatIsNullOrAnothers) {
  grpc::ServerBuilder builder, another;
  VornSdkRpc::ServerProperties properties;
  const auto service = std::make_shared<ScriptedService>();
  const auto refusal = [&](std::vector<std::shared_ptr<GrpcService>> services) {
    return thrown<std::invalid_argument>([&] { GrpcServer(another, services, properties); });
  };
  EXPECT_EQ(refusal({nullptr}), "service 0 of the server is null");
  {
    GrpcServer first(builder, {std::make_shared<ScriptedService>(), service}, properties);
    first.setup();
    const auto other = std::make_shared<ScriptedService>();
    EXPECT_EQ(refusal({other, service}),
              "service 1 of the server, Scripted-service, is one of a server already: a service "
              "serves once");
    EXPECT_EQ(service->serviceId(), 1U) << "the first server's";
  }
  EXPECT_THAT(refusal({service}), testing::HasSubstr("already"));
  const auto twice = std::make_shared<ScriptedService>();
  EXPECT_THAT(refusal({twice, twice}), testing::HasSubstr("service 1 of the server"));
}

TEST(Server, RefusesABuilderThatHasBuiltOne) {
  ScriptedServer scripted;
  const auto service = std::make_shared<ScriptedService>();
  GrpcServer second(scripted.builder, {service}, scripted.properties);
  scripted.server.setup();
  EXPECT_THAT(thrown<std::logic_error>([&] { second.run(); }),
              testing::HasSubstr("has built a server already"));
  EXPECT_EQ(service->startedCalls, 0);
  EXPECT_EQ(second.server(), nullptr);
}

}  // namespace
}  // namespace test
