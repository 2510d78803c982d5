#include <VornSdkRpc/Serve.h>
#include <VornSdkRpc/StopOnSignal.h>
#include <VornSdkRpc/Testing.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <future>

#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using VornSdkRpc::StopOnSignal;

// Does something when the server has started, and tells when it is drained.
class Hooked : public VornSdkRpc::GrpcService {
 public:
  explicit Hooked(std::function<void()> onStart = [] {})
      : GrpcService("Hooked"), onStart_(std::move(onStart)) {}

  std::promise<void> drained;

 private:
  void registerWith(grpc::ServerBuilder&) override {}
  void serverStarted() override { onStart_(); }
  void drainingChanged() override { drained.set_value(); }

  const std::function<void()> onStart_;
};

void serveUntil(const std::function<void()>& signals) {
  grpc::ServerBuilder builder;
  VornSdkRpc::serve(builder, {std::make_shared<Hooked>(signals)}, {.accounting = true});
}

void send(int signal) { kill(getpid(), signal); }

void blockSignals() {
  sigset_t both;
  sigemptyset(&both);
  sigaddset(&both, SIGINT);
  sigaddset(&both, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &both, nullptr);
}

void waitUntilStopped(RunningServer& running) {
  waitUntil([&] { return running.server().stopRequested(); }, "the server is told to stop");
}

TEST(StopOnSignalDeathTest, EndsAServedProcessCleanly) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::function<void()> scenes[] = {
      [] { serveUntil([] { send(SIGINT); }); },
      [] { serveUntil([] { send(SIGTERM); }); },
      [] {
        std::signal(SIGINT, SIG_IGN);
        serveUntil([] { send(SIGINT); });
      },
      [] {  // with no thread that takes signals but the one that waits for them
        blockSignals();
        serveUntil([] { send(SIGTERM); });
      },
      [] {
        StopOnSignal::holdSignals();
        send(SIGTERM);
        serveUntil([] {});
      },
  };
  for (const auto& scene : scenes) {
    EXPECT_EXIT(
        {
          scene();
          std::_Exit(0);
        },
        testing::ExitedWithCode(0), "");
  }
}

TEST(StopOnSignalDeathTest, LeavesTheSignalsAsTheyWere) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        serveUntil([] { send(SIGTERM); });
        send(SIGTERM);
        std::_Exit(0);
      },
      testing::KilledBySignal(SIGTERM), "");
}

TEST(StopOnSignal, DrainsAtTheFirstAndStopsAtTheSecond) {
  const auto hooked = std::make_shared<Hooked>();
  RunningServer running({std::make_shared<ProbeService>(), hooked});
  const StopOnSignal stopOnSignal(running.server(), 1h);
  grpc::ClientContext context;
  const auto stub = running.stub();
  const auto ticks = stub->Tick(&context, Count());
  Text text;
  ASSERT_TRUE(ticks->Read(&text));
  send(SIGTERM);
  hooked->drained.get_future().wait();
  EXPECT_FALSE(running.server().stopRequested());
  send(SIGTERM);
  waitUntilStopped(running);
}

TEST(StopOnSignal, OneAtATimeAndEachWithItsOwnSignals) {
  for (int round = 0; round < 3; ++round) {
    RunningServer running({});
    const StopOnSignal stopOnSignal(running.server());
    EXPECT_THROW(StopOnSignal another(running.server()), std::logic_error);
    EXPECT_FALSE(running.server().stopRequested()) << "a signal of the round before";
    send(SIGINT);
    waitUntilStopped(running);
  }
}

// What becomes of a text of so many bytes, sent as it is or compressed.
grpc::StatusCode echoed(const VornSdkRpc::ServerArguments& arguments, std::size_t size,
                        grpc_compression_algorithm compression) {
  VornSdkRpc::testing::TestServer server(
      {std::make_shared<ProbeService>()},
      {.socket = true, .configure = [&](auto& builder) { installArguments(builder, arguments); }});
  grpc::ClientContext context;
  context.set_compression_algorithm(compression);
  Text request, reply;
  request.set_text(std::string(size, 'x'));
  return server.stub<Probe>()->Echo(&context, request, &reply).error_code();
}

TEST(ServerArguments, LimitMessagesUnlessToldNotTo) {
  const struct {
    VornSdkRpc::ServerArguments arguments;
    std::size_t size;
    grpc_compression_algorithm compression;
    grpc::StatusCode code;
  } cases[] = {
      {{}, 5 << 20, GRPC_COMPRESS_NONE, grpc::StatusCode::RESOURCE_EXHAUSTED},
      {{.maxReceiveMessageBytes = 0}, 5 << 20, GRPC_COMPRESS_NONE, grpc::StatusCode::OK},
      {{}, 5 << 10, GRPC_COMPRESS_GZIP, grpc::StatusCode::UNIMPLEMENTED},
      {{}, 5 << 10, GRPC_COMPRESS_DEFLATE, grpc::StatusCode::UNIMPLEMENTED},
      {{.compression = true}, 5 << 10, GRPC_COMPRESS_GZIP, grpc::StatusCode::OK},
  };
  for (const auto& [arguments, size, compression, code] : cases)
    EXPECT_EQ(echoed(arguments, size, compression), code) << size << ", " << compression;
}

// A synchronous service, whose calls hold a thread of gRPC's each.
class HoldingMirror : public Mirror::Service {
 public:
  grpc::Status Reflect(grpc::ServerContext*, const Text*, Text*) override {
    held.set_value();
    released.get_future().wait();
    return grpc::Status::OK;
  }

  std::promise<void> held, released;
};

TEST(ServerArguments, LimitTheThreadsOfSynchronousServices) {
  HoldingMirror mirror;
  VornSdkRpc::testing::TestServer server({std::make_shared<ProbeService>()},
                                         {.socket = true, .configure = [&](auto& builder) {
                                            VornSdkRpc::installArguments(builder,
                                                                         {.maxThreads = 2});
                                            builder.RegisterService(&mirror);
                                          }});
  const auto reflect = [&] {
    grpc::ClientContext context;
    Text reply;
    return server.stub<Mirror>()->Reflect(&context, Text(), &reply).error_code();
  };
  auto first = std::async(std::launch::async, reflect);
  mirror.held.get_future().wait();
  EXPECT_EQ(reflect(), grpc::StatusCode::RESOURCE_EXHAUSTED);
  EXPECT_EQ(callEcho(*server.stub<Probe>(), "x"), grpc::StatusCode::OK);
  mirror.released.set_value();
  EXPECT_EQ(first.get(), grpc::StatusCode::OK);
}

}  // namespace
}  // namespace test
