// Many calls at once through the whole of the library's server: as many records as answers. The
// environment variable VORN_LOAD_CALLS sets how many; 100000 is the size to try before a release.
#include <Kiv/Log.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "Capture.h"
#include "ProbeAgent.h"
#include "ProbeServer.h"

namespace {

int loadCalls() {
  char const* text = std::getenv("VORN_LOAD_CALLS");
  return text != nullptr ? std::atoi(text) : 2000;
}

// Four clients that make `calls` calls between them, or as many as are answered.
class Load {
 public:
  template <typename Server>
  Load(Server const& server, int calls) : left_(calls) {
    for (int i = 0; i < 4; ++i) {
      clients_.emplace_back([this, stub = std::make_shared<test::Stub>(server.channel())] {
        while (left_-- > 0) {
          const bool ok = test::callUnary(*stub).ok();
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

int records(test::Capture const& log) {
  return static_cast<int>(log.count("rpc: /accounting_test.Probe/Unary, status: 0"));
}

TEST(AccountingLoad, EveryAnswerIsOneRecord) {
  const test::Capture log(Kiv::platformLogger());
  test::ProbeAgent agent;
  Load load(agent, loadCalls());
  load.finish();
  EXPECT_EQ(test::callUnknownMethod(agent.channel()).error_code(), grpc::UNIMPLEMENTED);
  agent.stop();
  EXPECT_EQ(load.answered(), loadCalls());
  EXPECT_EQ(records(log), loadCalls());
  EXPECT_EQ(log.count("rpc: /no.such.Service/Method, status: 12"), 1U);
  EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(loadCalls()) + 1);
}

// An answer that is under way when the connections are cut may not get to its client: the records
// are exactly the answers sent, and the clients bound them from both sides.
TEST(AccountingLoad, AStopInTheMiddleLosesNoRecord) {
  const test::Capture log(Kiv::platformLogger());
  test::ProbeAgent agent;
  Load load(agent, loadCalls());
  load.waitForAnswers(loadCalls() / 2);
  agent.stop();
  load.finish();
  EXPECT_EQ(records(log), agent.answers());
  EXPECT_GE(records(log), load.answered());
  EXPECT_LE(records(log), load.answered() + load.failed());
  EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(records(log)));
}

// A stop that lets calls in progress end, so that every answer does get to its client.
TEST(AccountingLoad, AGracefulStopInTheMiddleLeavesARecordForEachAnswer) {
  const test::Capture log(Kiv::platformLogger());
  test::ProbeServer server;
  Load load(server, loadCalls());
  load.waitForAnswers(loadCalls() / 2);
  server.stop();
  load.finish();
  EXPECT_EQ(records(log), load.answered());
  EXPECT_EQ(log.lines().size(), static_cast<std::size_t>(records(log)));
}

}  // namespace
