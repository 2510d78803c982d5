#include <Kiv/Trace.h>
#include <VornSdkRpc/Rpc.h>
#include <VornSdkRpc/RpcOffload.h>
#include <VornSdkRpc/Testing.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#define ASIO_STANDALONE
#include <asio/post.hpp>
#include <asio/thread_pool.hpp>

#include "tests/Calls.h"
#include "tests/Capture.h"
#include "tests/ProbeService.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

namespace rpc = VornSdkRpc::rpc;
using VornSdkRpc::testing::TestServer;
using namespace std::chrono_literals;
using Executor = std::function<void(rpc::Job)>;

// Counts what is alive: a capture or a result that is leaked, or destroyed twice, is seen.
class Alive {
 public:
  Alive() { ++count; }
  Alive(const Alive&) { ++count; }
  Alive& operator=(const Alive&) = default;
  ~Alive() { --count; }

  static inline std::atomic<int> count = 0;
};

// Longer than what a std::string holds within itself, so that a sanitizer sees what becomes of it.
const std::string kLong(100, 'x');

// Echo offloads to the executor; what the work does is in the text of the request.
class OffloadingService : public rpc::Service<Probe> {
 public:
  explicit OffloadingService(Executor executor)
      : Service("Offloading"), executor_(std::move(executor)) {
    method(&Async::RequestEcho, [this](rpc::Call& call, const Text& text, Text& reply) {
      return serve(call, text.text(), reply);
    });
  }

  std::atomic<int> waiting = 0;  // calls whose work has been handed over

 private:
  void opened() override { servingThread_ = std::this_thread::get_id(); }

  rpc::Task<> serve(rpc::Call& call, std::string text, Text& reply) {
    const Alive local;
    ++waiting;
    // Const captures, which can't be moved out of a lambda, and a copy of what is counted.
    const std::string captured = text + kLong;
    if (text == "void") {
      auto work = [captured, alive = Alive()] { EXPECT_FALSE(captured.empty()); };
      if (!co_await rpc::offload(call, executor_, work)) co_return grpc::Status::CANCELLED;
      reply.set_text(captured);
    } else if (text == "move-only") {
      auto work = [owned = std::make_unique<std::string>(captured), alive = Alive()]() mutable {
        return std::move(owned);
      };
      const auto result = co_await rpc::offload(call, executor_, work);
      if (!result) co_return grpc::Status::CANCELLED;
      reply.set_text(**result);
    } else if (text == "references") {
      std::string written;
      if (!co_await rpc::offload(call, [](rpc::Job job) { job(); }, [&] { written = captured; }))
        co_return grpc::Status::CANCELLED;
      reply.set_text(written);
    } else if (text == "two") {
      auto work = [captured] { return captured; };
      auto first = rpc::offload(call, executor_, work);
      auto second = rpc::offload(call, executor_, work);
      const auto one = co_await std::move(first);
      const auto other = co_await std::move(second);
      if (one && one == other) reply.set_text(*other);
    } else if (text == "throws") {
      auto work = [captured, alive = Alive()]() -> int {
        throw vorn::invalid_argument_error(captured, "text");
      };
      if (!co_await rpc::offload(call, executor_, work)) co_return grpc::Status::CANCELLED;
    } else {
      auto work = [captured, alive = Alive()] { return std::pair(captured, Alive()); };
      const auto result = co_await rpc::offload(call, executor_, work);
      if (!result) co_return grpc::Status::CANCELLED;
      reply.set_text(result->first);
    }
    EXPECT_EQ(std::this_thread::get_id(), servingThread_);
    co_return grpc::Status::OK;
  }

  const Executor executor_;
  std::thread::id servingThread_;
};

// Keeps the jobs that it is given.
class Shelf {
 public:
  Executor executor() {
    return [this](rpc::Job job) {
      const std::lock_guard lock(mutex_);
      jobs_.push_back(std::move(job));
    };
  }
  std::vector<rpc::Job> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(jobs_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<rpc::Job> jobs_;
};

TEST(Offload, AnswersOnTheServingThreadWhateverTheExecutorIs) {
  asio::thread_pool pool(2);
  std::vector<std::jthread> threads;
  const std::pair<const char*, Executor> executors[] = {
      {"a pool", [&](auto work) { asio::post(pool, std::move(work)); }},
      {"threads", [&](auto work) { threads.emplace_back(std::move(work)); }},
      {"at once", [](auto work) { work(); }},
  };
  for (const auto& [name, executor] : executors) {
    TestServer running({std::make_shared<OffloadingService>(executor)});
    const auto stub = running.stub<Probe>();
    for (const std::string text : {"result", "void", "move-only", "references", "two"}) {
      EXPECT_EQ(echo(*stub, text).reply.text(), text + kLong) << name;
    }
    const auto status = echo(*stub, "throws").status;
    EXPECT_EQ(status.error_code(), grpc::StatusCode::INVALID_ARGUMENT) << name;
    EXPECT_EQ(status.error_message(), "throws" + kLong) << name;
  }
  threads.clear();
  pool.join();
  EXPECT_EQ(Alive::count, 0);
}

TEST(Offload, TellsACallWhoseWorkIsDropped) {
  const Capture trace(Kiv::traceLogger());
  {
    TestServer dropping({std::make_shared<OffloadingService>([](auto) {})});
    EXPECT_EQ(echo(*dropping.stub<Probe>(), "result").status.error_code(),
              grpc::StatusCode::INTERNAL);
    TestServer refusing({std::make_shared<OffloadingService>(
        [](auto) { throw vorn::no_scoped_lock_obtained_error("the pool is full"); })});
    EXPECT_EQ(echo(*refusing.stub<Probe>(), "result").status.error_message(), "the pool is full");
  }
  EXPECT_EQ(trace.count("an executor has dropped a piece of work"), 1U);
  EXPECT_EQ(Alive::count, 0);
}

// A call is over while its work is still to be done, by its deadline and by a stop. Then the work
// is run or dropped, while the server lives and when it is gone.
TEST(Offload, OutlivesItsCallAndItsServer) {
  const std::function<void(std::vector<rpc::Job>)> run = [](auto jobs) {
    for (const auto& job : jobs)
      std::jthread(job).join();
  };
  const std::function<void(std::vector<rpc::Job>)> drop = [](auto) {};
  for (const auto& later : {run, drop}) {
    for (const std::string text : {"result", "void", "move-only", "throws"}) {
      Shelf shelf;
      {
        const auto service = std::make_shared<OffloadingService>(shelf.executor());
        TestServer running({service});
        const auto stub = running.stub<Probe>();
        EXPECT_EQ(echo(*stub, text, 20ms).status.error_code(), grpc::StatusCode::DEADLINE_EXCEEDED);
        const int arrived = service->waiting;  // it may not have got as far as that
        later(shelf.take());
        std::jthread client([&] { EXPECT_FALSE(echo(*stub, text).status.ok()); });
        waitUntil([&] { return service->waiting != arrived; }, "the call waits");
        running.stop();
      }
      later(shelf.take());
      EXPECT_EQ(Alive::count, 0) << text;
    }
  }
}

TEST(Offload, IsWaitedForDuringADrain) {
  Shelf shelf;
  const auto service = std::make_shared<OffloadingService>(shelf.executor());
  TestServer running({service}, {.socket = true});
  const auto stub = running.stub<Probe>();
  std::jthread client([&] { EXPECT_EQ(echo(*stub, "result").reply.text(), "result" + kLong); });
  waitUntil([&] { return service->waiting != 0; }, "the call waits");
  std::jthread worker([&] {
    waitUntil([&] { return service->draining(); }, "the drain has begun");
    for (const auto& job : shelf.take())
      job();
  });
  running.drain(60s);
}

// Calls of which every other is given up, with a pool that does its work at any time: as they begin
// to wait, as they are woken by something else, and when the server has gone.
TEST(Offload, ArrivesOrNotWheneverACallIsGivenUp) {
  asio::thread_pool pool(2);
  {
    TestServer running({std::make_shared<OffloadingService>(
        [&](auto work) { asio::post(pool, std::move(work)); })});
    const auto stub = running.stub<Probe>();
    for (int i = 0; i < 400; ++i) {
      const auto [status, reply] =
          echo(*stub, "result", i % 2 ? std::chrono::milliseconds(i % 4) : 60s);
      EXPECT_EQ(reply.text(), status.ok() ? "result" + kLong : "") << status.error_message();
    }
  }
  pool.join();
  EXPECT_EQ(Alive::count, 0);
}

TEST(OffloadDeathTest, AssertsThatWorkIsRunOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        TestServer running({std::make_shared<OffloadingService>([](auto work) {
          work();
          work();
        })});
        echo(*running.stub<Probe>(), "result");
      },
      "an executor runs a piece of work once");
}

// What g++ 12 would destroy twice is not accepted where it would.
[[maybe_unused]] const auto kOwning = [owned = std::string()] { return owned.size(); };
[[maybe_unused]] const auto kReferring = [&shared = kLong] { return shared.size(); };
static_assert(!rpc::detail::SafeBesideAwait<decltype(kOwning)&&>);
static_assert(rpc::detail::SafeBesideAwait<decltype(kOwning)&>);
static_assert(rpc::detail::SafeBesideAwait<decltype(kReferring)&&>);

}  // namespace
}  // namespace test
