#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/Testing.h>

#include <array>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/ProbeService.h"

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

class Client {
 public:
  Client(Probe::Stub& stub, const std::string& text, std::chrono::milliseconds deadline = 60s)
      : thread_([this, &stub, text, deadline] {
          grpc::ClientContext context;
          context.set_deadline(std::chrono::system_clock::now() + deadline);
          Text request, reply;
          request.set_text(text);
          status = stub.Echo(&context, request, &reply);
          answer = reply.text();
        }) {}

  void join() { thread_.join(); }

  grpc::Status status;
  std::string answer;

 private:
  std::jthread thread_;
};

void waitForSubscriptions(const rpc::Events& hub, std::size_t count) {
  while (hub.subscriptions() != count)
    std::this_thread::yield();
}

TEST(Events, WakeWhoHasSubscribedAndNobodyElse) {
  const auto service = std::make_shared<ListeningService>();
  VornSdkRpc::testing::TestServer server({service});
  const auto stub = server.stub<Probe>();
  Client onlyA(*stub, "a"), onlyB(*stub, "b"), both(*stub, "ab");
  waitForSubscriptions(service->a, 2);
  waitForSubscriptions(service->b, 2);
  service->a.set();
  onlyA.join();
  both.join();
  waitForSubscriptions(service->b, 1);  // its call still waits
  service->b.set();
  onlyB.join();
  for (const Client* client : {&onlyA, &onlyB, &both})
    EXPECT_TRUE(client->status.ok());
  EXPECT_EQ(service->a.subscriptions() + service->b.subscriptions(), 0U);
}

TEST(Events, ShowWhatWasWrittenBeforeThemToEveryCall) {
  constexpr std::size_t kCalls = 4;
  const auto service = std::make_shared<ListeningService>();
  VornSdkRpc::testing::TestServer server({service});
  const auto stub = server.stub<Probe>();
  for (int round = 0; round < kRounds; round += 20) {
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < kCalls; ++i)
      clients.push_back(std::make_unique<Client>(*stub, i % 2 ? "a" : "ab"));
    waitForSubscriptions(service->a, kCalls);
    service->round = round;
    service->said[static_cast<std::size_t>(round)] = round;
    service->a.set();
    for (const auto& client : clients) {
      client->join();
      EXPECT_EQ(client->answer, std::to_string(round));
    }
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
    for (int i = 0; i < kRounds; ++i) {
      grpc::ClientContext context;
      context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(i % 3));
      Text request, reply;
      request.set_text(i % 2 ? "ab" : "none");
      stub->Echo(&context, request, &reply);
    }
    Client left(*stub, "left");
    // gRPC ends the process when a call begins on an in-process channel whose server has gone.
    while (service->waiting == 0)
      std::this_thread::yield();
    enough = true;
    speakers.clear();
    Client listening(*stub, "a");
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
