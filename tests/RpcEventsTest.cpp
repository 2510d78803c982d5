#include <VornSdkRpc/Rpc.h>

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/Calls.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

namespace rpc = VornSdkRpc::rpc;
using namespace std::chrono_literals;

constexpr int kRounds = 200;

// Echo waits for one of the hubs that its text names, and answers the round that it was woken in.
class ListeningService : public rpc::Service<Probe> {
 public:
  ListeningService() : Service("Listening") {
    method(&Async::RequestEcho,
           [this](rpc::Call& call, const Text& text, Text& reply) -> rpc::Task<> {
             rpc::Event news;
             std::optional<rpc::Events::Subscription> first, second;
             if (text.text().find('a') != std::string::npos) first.emplace(a, news);
             if (text.text().find('b') != std::string::npos) second.emplace(b, news);
             if (text.text() == "left") ++waiting;
             if (!co_await call.wait(news)) co_return grpc::Status::CANCELLED;
             reply.set_text(std::to_string(said[static_cast<std::size_t>(round)]));
             co_return grpc::Status::OK;
           });
  }

  rpc::Events a, b;
  std::atomic<int> waiting = 0;  // calls that nobody will wake
  // Without a lock or an atomic: the hub orders what was written before set().
  std::array<int, kRounds> said = {};
  int round = 0;
};

// One Echo on a thread of its own.
std::future<VornSdkRpc::testing::Answer<Text>> listen(Probe::Stub& stub, const std::string& text) {
  return std::async(std::launch::async, [&stub, text] { return echo(stub, text); });
}

void waitForSubscriptions(const rpc::Events& hub, std::size_t count) {
  waitUntil([&] { return hub.subscriptions() == count; }, "so many subscribe");
}

TEST(Events, WakeWhoHasSubscribedAndNobodyElse) {
  const auto service = std::make_shared<ListeningService>();
  VornSdkRpc::testing::TestServer server({service});
  const auto stub = server.stub<Probe>();
  auto onlyA = listen(*stub, "a"), onlyB = listen(*stub, "b"), both = listen(*stub, "ab");
  waitForSubscriptions(service->a, 2);
  waitForSubscriptions(service->b, 2);
  service->a.set();
  EXPECT_TRUE(onlyA.get().status.ok());
  EXPECT_TRUE(both.get().status.ok());
  waitForSubscriptions(service->b, 1);  // its call still waits
  service->b.set();
  EXPECT_TRUE(onlyB.get().status.ok());
  EXPECT_EQ(service->a.subscriptions() + service->b.subscriptions(), 0U);
}

TEST(Events, ShowWhatWasWrittenBeforeThemToEveryCall) {
  constexpr std::size_t kCalls = 4;
  const auto service = std::make_shared<ListeningService>();
  VornSdkRpc::testing::TestServer server({service});
  const auto stub = server.stub<Probe>();
  for (int round = 0; round < kRounds; round += 20) {
    std::vector<std::future<VornSdkRpc::testing::Answer<Text>>> clients;
    for (std::size_t i = 0; i < kCalls; ++i)
      clients.push_back(listen(*stub, i % 2 ? "a" : "ab"));
    waitForSubscriptions(service->a, kCalls);
    service->round = round;
    service->said[static_cast<std::size_t>(round)] = round;
    service->a.set();
    for (auto& client : clients)
      EXPECT_EQ(client.get().reply.text(), std::to_string(round));
    waitForSubscriptions(service->a, 0);
  }
}

// Calls come, time out and are woken while other threads say without an end that something has
// changed; then a stop destroys what still waits.
TEST(Events, LetSubscribersComeAndGoMeanwhile) {
  const auto service = std::make_shared<ListeningService>();
  {
    VornSdkRpc::testing::TestServer server({service});
    std::atomic<bool> enough = false;
    std::vector<std::jthread> speakers;
    for (rpc::Events* hub : {&service->a, &service->b})
      speakers.emplace_back([&enough, hub] {
        while (!enough)
          hub->set();
      });
    const auto stub = server.stub<Probe>();
    for (int i = 0; i < kRounds; ++i)
      echo(*stub, i % 2 ? "ab" : "none", std::chrono::milliseconds(i % 3));
    const auto left = listen(*stub, "left");
    // gRPC ends the process when a call begins on an in-process channel whose server has gone.
    waitUntil([&] { return service->waiting != 0; }, "the call waits");
    enough = true;
    speakers.clear();
    const auto listening = listen(*stub, "a");
    waitForSubscriptions(service->a, 1);
    server.stop();
  }
  EXPECT_EQ(service->a.subscriptions() + service->b.subscriptions(), 0U);
}

TEST(EventsDeathTest, AssertThatNoSubscriptionOutlivesThem) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        rpc::Event event;
        auto hub = std::make_unique<rpc::Events>();
        const rpc::Events::Subscription subscription(*hub, event);
        hub = nullptr;
      },
      "a subscription outlives its hub");
}

}  // namespace
}  // namespace test
