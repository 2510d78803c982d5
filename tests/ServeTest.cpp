#include <VornSdkRpc/Serve.h>
#include <VornSdkRpc/StopOnSignal.h>
#include <VornSdkRpc/Testing.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "tests/ProbeService.h"

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
  while (!running.server().stopRequested())
    std::this_thread::yield();
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

TEST(ServerArguments, LimitsMessagesUnlessToldNotTo) {
  for (const auto& [arguments, code] :
       {std::pair{VornSdkRpc::ServerArguments{}, grpc::StatusCode::RESOURCE_EXHAUSTED},
        {{.maxReceiveMessageBytes = 0}, grpc::StatusCode::OK}}) {
    VornSdkRpc::testing::TestServer server({std::make_shared<ProbeService>()},
                                           {.socket = true, .configure = [&](auto& builder) {
                                              installArguments(builder, arguments);
                                            }});
    EXPECT_EQ(callEcho(*server.stub<Probe>(), std::string(5 << 20, 'x')), code);
  }
}

}  // namespace
}  // namespace test
