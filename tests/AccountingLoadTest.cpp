// Many calls at once through the whole of the library's server: as many records as answers. The
// environment variable VORN_LOAD_CALLS sets how many; 100000 is the size to try before a release.
#include <Kiv/Log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "Capture.h"
#include "ProbeService.h"

namespace {

int loadCalls() {
  const char* text = std::getenv("VORN_LOAD_CALLS");
  return text != nullptr ? std::atoi(text) : 2000;
}

// Four clients that make `calls` calls between them, or as many as are answered.
class Load {
 public:
  template <typename Server>
  Load(const Server& server, int calls) : left_(calls) {
    for (int i = 0; i < 4; ++i) {
      clients_.emplace_back([this, stub = std::shared_ptr(server.stub())] {
        while (left_-- > 0) {
          const bool ok = test::callEcho(*stub, "0") == grpc::OK;
          ++(ok ? answered_ : failed_);
          answered_.notify_all();
          if (!ok) return;
        }
      });
    }
  }

  void waitForAnswers(int count) const {
    for (int seen = answered_; seen < count; seen = answered_)
      answered_.wait(seen);
  }
  void finish() { clients_.clear(); }

  int answered() const { return answered_; }
  int failed() const { return failed_; }

 private:
  std::atomic<int> left_;
  std::atomic<int> answered_ = 0;
  std::atomic<int> failed_ = 0;
  std::vector<std::jthread> clients_;
};

int records(const test::Capture& log) {
  return static_cast<int>(log.count("rpc: /test.Probe/Echo, status: 0"));
}

// The library's server with the hand-written Probe service.
struct Agent {
  std::shared_ptr<test::ProbeService> service = std::make_shared<test::ProbeService>();
  std::unique_ptr<test::RunningServer> server = std::make_unique<test::RunningServer>(
      std::vector<std::shared_ptr<VornSdkRpc::GrpcService>>{service}, true);

  // A handler is made for each method and for each call that is answered.
  int answers() const { return service->made - 4; }
};

// An answer that is under way when the connections are cut may not get to its client: the records
// are exactly the answers sent, and the clients bound them from both sides.
TEST(AccountingLoad, EveryAnswerIsOneRecordWheneverTheServerStops) {
  for (const bool early : {false, true}) {
    const test::Capture log(Kiv::platformLogger());
    Agent agent;
    Load load(*agent.server, loadCalls());
    if (early) {
      load.waitForAnswers(loadCalls() / 2);
    } else {
      load.finish();
    }
    agent.server.reset();
    load.finish();
    EXPECT_TRUE(early || load.answered() == loadCalls());
    EXPECT_EQ(records(log), agent.answers());
    EXPECT_GE(records(log), load.answered());
    EXPECT_LE(records(log), load.answered() + load.failed());
    EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(records(log)));
  }
}

// A stop that lets calls in progress end, so that every answer does get to its client.
TEST(AccountingLoad, AGracefulStopInTheMiddleLeavesARecordForEachAnswer) {
  const test::Capture log(Kiv::platformLogger());
  test::EchoServer server;
  Load load(server, loadCalls());
  load.waitForAnswers(loadCalls() / 2);
  server.stop();
  load.finish();
  EXPECT_EQ(records(log), load.answered());
  EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(records(log)));
}

}  // namespace
