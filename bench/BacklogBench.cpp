// What one run of a backlog's task costs, from wake() to handleBacklog(), beside the same
// work posted to an asio io_context in the same run of the program. The ratio of two rows is the
// result; the times alone say more about the machine.
#include <VornSdkRpc/StreamingToolkit.h>
#include <VornSdkRpc/WorkQueue.h>
#include <benchmark/benchmark.h>

#define ASIO_STANDALONE
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace {

// The work of a run: it counts, and tells who waits when all that was asked for is done.
class Work {
 public:
  void done() {
    if (++done_ == expected_.load(std::memory_order_acquire)) {
      finished_.store(done_, std::memory_order_release);
      finished_.notify_one();
    }
  }

  // Announced before the work is asked for.
  void expect(std::int64_t more) {
    expected_.store(expected_.load(std::memory_order_relaxed) + more, std::memory_order_release);
  }

  void wait() {
    const auto expected = expected_.load(std::memory_order_relaxed);
    for (auto seen = finished_.load(); seen != expected; seen = finished_.load())
      finished_.wait(seen);
  }

 private:
  std::int64_t done_ = 0;  // of the thread that runs the work
  std::atomic<std::int64_t> expected_ = 0;
  std::atomic<std::int64_t> finished_ = 0;
};

// `count` backlogs on one scheduler, each with a task of its own.
class Backlogs {
 public:
  Backlogs(std::size_t count, std::function<void(VornSdkRpc::BacklogImplBase&)> action)
      : action_(std::move(action)) {
    for (std::size_t i = 0; i < count; ++i)
      backlogs_.push_back(std::make_unique<Backlog>(scheduler_, *this));
  }

  void ask(std::size_t index) { backlogs_[index]->wake(); }
  void runOne() { scheduler_->runOne(); }
  void run() { scheduler_->run(); }
  void stop() { scheduler_->stop(); }

 private:
  struct Backlog : VornSdkRpc::BacklogImplBase {
    Backlog(const Velm::Ptr<Tarsk::TaskScheduler>& scheduler, Backlogs& all)
        : BacklogImplBase("backlog", scheduler), owner(all) {}
    void handleBacklog() override { owner.action_(*this); }

    Backlogs& owner;
  };

  const std::function<void(VornSdkRpc::BacklogImplBase&)> action_;
  const Velm::Ptr<Tarsk::TaskScheduler> scheduler_{new Tarsk::TaskScheduler("bench")};
  std::vector<std::unique_ptr<Backlog>> backlogs_;
};

// The peer: a function per piece of work, which posts the piece again through the context.
class Posts {
 public:
  explicit Posts(std::function<void(Posts&)> action) : action_(std::move(action)) {}

  void ask(std::size_t /*index*/) {
    asio::post(context_, [this] { action_(*this); });
  }
  void runOne() { context_.run_one(); }
  void run() { context_.run(); }
  void stop() { context_.stop(); }

 private:
  const std::function<void(Posts&)> action_;
  asio::io_context context_;
  // A context that once runs out of work does nothing any more.
  const asio::executor_work_guard<asio::io_context::executor_type> guard_ =
      asio::make_work_guard(context_);
};

// Work that is queued with its limit, its clock and its figures: what the pieces cost more than a
// post.
class Queue {
 public:
  explicit Queue(Work& work) : work_(work) {}

  void ask(std::size_t /*index*/) {
    if (!queue_.add([this] { work_.done(); }, 0)) std::abort();
  }
  void run() { scheduler_->run(); }
  void stop() { scheduler_->stop(); }

 private:
  Work& work_;
  const Velm::Ptr<Tarsk::TaskScheduler> scheduler_{new Tarsk::TaskScheduler("bench")};
  VornSdkRpc::WorkQueue queue_{"bench", scheduler_};
};

// One thread asks for a run and runs it.
template <typename Subject>
void sameThread(benchmark::State& state, Subject& subject) {
  for (auto _ : state) {
    subject.ask(0);
    subject.runOne();
  }
  state.SetItemsProcessed(state.iterations());
}

// One thread asks for state.range(0) runs at a time and waits until another has done them.
template <typename Subject>
void acrossThreads(benchmark::State& state, Subject& subject, Work& work) {
  std::thread thread([&] { subject.run(); });
  const auto burst = state.range(0);
  for (auto _ : state) {
    work.expect(burst);
    for (std::int64_t i = 0; i < burst; ++i)
      subject.ask(static_cast<std::size_t>(i));
    work.wait();
  }
  subject.stop();
  thread.join();
  state.SetItemsProcessed(state.iterations() * burst);
}

// One thread asks for a run of the same backlog again and again while another runs it. What is
// counted is asking: a request that stands already makes no second run.
void BM_AskAgain_Backlog(benchmark::State& state) {
  Backlogs backlogs(1, [](auto&) {});
  std::thread thread([&] { backlogs.run(); });
  for (auto _ : state)
    backlogs.ask(0);
  backlogs.stop();
  thread.join();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AskAgain_Backlog)->UseRealTime();

// One run while state.range(0) are runnable: each asks for another.
template <typename Subject>
void amongRunnable(benchmark::State& state, Subject& subject) {
  for (std::int64_t i = 0; i < state.range(0); ++i)
    subject.ask(static_cast<std::size_t>(i));
  for (auto _ : state)
    subject.runOne();
  state.SetItemsProcessed(state.iterations());
}

void BM_SameThread_Backlog(benchmark::State& state) {
  Work work;
  Backlogs backlogs(1, [&](auto&) { work.done(); });
  sameThread(state, backlogs);
}
BENCHMARK(BM_SameThread_Backlog);

void BM_SameThread_Asio(benchmark::State& state) {
  Work work;
  Posts posts([&](auto&) { work.done(); });
  sameThread(state, posts);
}
BENCHMARK(BM_SameThread_Asio);

void BM_AcrossThreads_Backlog(benchmark::State& state) {
  Work work;
  Backlogs backlogs(static_cast<std::size_t>(state.range(0)), [&](auto&) { work.done(); });
  acrossThreads(state, backlogs, work);
}
BENCHMARK(BM_AcrossThreads_Backlog)->Arg(1)->Arg(1'000)->UseRealTime();

void BM_AcrossThreads_Asio(benchmark::State& state) {
  Work work;
  Posts posts([&](auto&) { work.done(); });
  acrossThreads(state, posts, work);
}
BENCHMARK(BM_AcrossThreads_Asio)->Arg(1)->Arg(1'000)->UseRealTime();

void BM_AcrossThreads_WorkQueue(benchmark::State& state) {
  Work work;
  Queue queue(work);
  acrossThreads(state, queue, work);
}
BENCHMARK(BM_AcrossThreads_WorkQueue)->Arg(1)->Arg(1'000)->UseRealTime();

void BM_AmongRunnable_Backlog(benchmark::State& state) {
  Backlogs backlogs(static_cast<std::size_t>(state.range(0)),
                    [](auto& backlog) { backlog.wake(); });
  amongRunnable(state, backlogs);
}
BENCHMARK(BM_AmongRunnable_Backlog)->Arg(10)->Arg(1'000)->Arg(100'000);

void BM_AmongRunnable_Asio(benchmark::State& state) {
  Posts posts([](Posts& self) { self.ask(0); });
  amongRunnable(state, posts);
}
BENCHMARK(BM_AmongRunnable_Asio)->Arg(10)->Arg(1'000)->Arg(100'000);

}  // namespace
