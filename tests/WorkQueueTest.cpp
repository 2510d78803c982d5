#include <Kiv/Trace.h>
#include <VornSdkRpc/WorkQueue.h>
#include <gmock/gmock.h>

#include <array>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/Capture.h"
#include "tests/WaitUntil.h"

namespace test {
namespace {

using namespace std::chrono_literals;
using VornSdkRpc::WorkQueue;
using Clock = std::chrono::steady_clock;

// A queue whose steps and time are turned by hand.
class WorkQueueTest : public testing::Test {
 protected:
  WorkQueue::Options options(WorkQueue::Options with = {}) {
    with.now = [this] { return now_; };
    return with;
  }
  // Work that takes a time.
  WorkQueue::Work takes(std::chrono::nanoseconds time) {
    return [this, time] { now_ += time; };
  }
  std::size_t steps() {
    std::size_t count = 0;
    while (scheduler_->runOne())
      ++count;
    return count;
  }

  Clock::time_point now_{1h};
  const Velm::Ptr<Tarsk::TaskScheduler> scheduler_{new Tarsk::TaskScheduler("test")};
};

TEST_F(WorkQueueTest, AStepGrowsWhileItIsWithinItsBudgetAndEndsWithIt) {
  std::vector<std::chrono::nanoseconds> lasted;
  const auto ended = [&](std::chrono::nanoseconds time) { lasted.push_back(time); };
  WorkQueue queue("queue", scheduler_, options({.stepBudget = 10ms, .stepEnded = ended}));
  for (int i = 0; i < 15; ++i)
    ASSERT_TRUE(queue.add(takes(1ms), 0));
  std::vector<std::size_t> done;
  for (int run = 0; run < 4; ++run) {
    ASSERT_TRUE(scheduler_->runOne());
    done.push_back(queue.figures().done);
  }
  EXPECT_THAT(done, testing::ElementsAre(1, 3, 7, 15));
  EXPECT_THAT(lasted, testing::ElementsAre(1ms, 2ms, 4ms, 8ms));
  EXPECT_FALSE(scheduler_->runOne()) << "nothing is left to do";
  for (int i = 0; i < 30; ++i)
    ASSERT_TRUE(queue.add(takes(i < 13 ? 1ms : 5ms), 0));
  done.clear();
  for (int run = 0; run < 4; ++run) {
    ASSERT_TRUE(scheduler_->runOne());
    done.push_back(queue.figures().done - 15);
  }
  EXPECT_THAT(done, testing::ElementsAre(10, 15, 17, 19))
      << "the budget, 3 * 1 + 2 * 5, 2 * 5, ...";
  const auto figures = queue.figures();
  EXPECT_EQ(figures.runs, 8U);
  EXPECT_EQ(figures.bestStep, 10U);
  EXPECT_EQ(figures.step, 2U);
  steps();
  EXPECT_EQ(queue.figures().done, 45U);
}

TEST_F(WorkQueueTest, RefusesWhatItHasNoRoomForAndKeepsAShareForSingleChanges) {
  const struct {
    WorkQueue::Options options;
    std::size_t bulk, single;  // how many are taken
  } scenes[] = {
      {{.maxBytes = 0, .maxItems = 10, .singleShare = 20}, 8, 2},
      {{.maxBytes = 0, .maxItems = 10, .singleShare = 0}, 10, 0},
      {{.maxBytes = 0, .maxItems = 100, .singleShare = 1000}, 0, 100},
      {{.maxBytes = 100000, .maxItems = 0, .singleShare = 50}, 5, 5},
      {{.maxBytes = 100000, .maxItems = 6, .singleShare = 0}, 6, 0},
      {{.maxBytes = 1, .maxItems = 0}, 1, 0},  // one is always taken
  };
  for (const auto& scene : scenes) {
    WorkQueue queue("queue", scheduler_, options(scene.options));
    const auto fill = [&](WorkQueue::Kind kind) {
      std::size_t taken = 0;
      for (; queue.hasRoom(kind); ++taken)
        EXPECT_TRUE(queue.add([] {}, 10000, kind));
      EXPECT_FALSE(queue.add([] {}, 0, kind));
      return taken;
    };
    EXPECT_EQ(fill(WorkQueue::bulk), scene.bulk);
    EXPECT_EQ(fill(WorkQueue::single), scene.single);
    EXPECT_EQ(queue.figures().items, scene.bulk + scene.single);
    EXPECT_EQ(queue.figures().refused, 2U);
    steps();
    EXPECT_EQ(queue.figures().bytes, 0U);
    EXPECT_EQ(fill(WorkQueue::bulk), scene.bulk);
  }
}

TEST_F(WorkQueueTest, TellsHowFarBehindItIs) {
  WorkQueue queue("queue", scheduler_, options());
  EXPECT_EQ(queue.figures().oldest, 0s);
  WorkQueue::Figures inside;
  ASSERT_TRUE(queue.add([&] { inside = queue.figures(); }, 100));
  now_ += 3s;
  ASSERT_TRUE(queue.add([] { throw 7; }, 0));
  now_ += 2s;
  EXPECT_EQ(queue.figures().oldest, 5s);
  scheduler_->runOne();
  EXPECT_EQ(inside.oldest, 5s) << "one that hangs is seen";
  EXPECT_EQ(inside.items, 2U);
  EXPECT_GT(inside.bytes, 100U);
  EXPECT_EQ(queue.figures().oldest, 2s);
  EXPECT_EQ(queue.figures().items, 1U);
  steps();
  EXPECT_EQ(queue.figures().oldest, 0s);
  EXPECT_EQ(queue.figures().failed, 1U);
}

TEST_F(WorkQueueTest, AnswersWhoWaitsAndTracesWhatNobodyHears) {
  const Capture trace(Kiv::traceLogger());
  WorkQueue queue("queue", scheduler_, options());
  const auto fails = [](const char* why) { return [why] { throw std::runtime_error(why); }; };
  WorkQueue::Answer answer;
  const auto held = std::make_shared<int>();
  EXPECT_TRUE(queue.add([held] {}, 0, answer));
  EXPECT_TRUE(queue.add(fails("first"), 0, answer));
  EXPECT_TRUE(queue.add(fails("second"), 0, answer));
  {
    WorkQueue::Answer gone;
    EXPECT_TRUE(queue.add(fails("unheard"), 0, gone));
  }
  EXPECT_TRUE(queue.add(fails("alone"), 0));
  EXPECT_EQ(answer.pending(), 3U);
  scheduler_->runOne();
  EXPECT_EQ(answer.pending(), 2U);
  EXPECT_EQ(held.use_count(), 1) << "what work holds goes with it";
  EXPECT_NO_THROW(answer.get());
  steps();
  EXPECT_EQ(answer.pending(), 0U);
  try {
    answer.get();
    FAIL() << "no failure";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "first");
  }
  EXPECT_THAT(trace.lines(),
              testing::ElementsAre("queue/0: work failed: unheard", "queue/0: work failed: alone"));
}

TEST_F(WorkQueueTest, AStopDropsWhatWaitsAndTellsSo) {
  const auto held = std::make_shared<int>();
  WorkQueue::Answer answer;
  {
    WorkQueue queue("queue", scheduler_, options({.maxBytes = 0}));
    int ran = 0;
    for (int i = 0; i < 5; ++i) {
      ASSERT_TRUE(queue.add(
          [&, held] {
            if (++ran == 2) queue.stop();
          },
          0, answer));
    }
    steps();
    EXPECT_EQ(ran, 2);
    EXPECT_EQ(queue.figures().items, 0U);
    EXPECT_EQ(queue.figures().done, 2U);
    EXPECT_FALSE(queue.hasRoom());
    EXPECT_FALSE(queue.add([] {}, 0));
  }
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(answer.pending(), 0U);
  EXPECT_THROW(answer.get(), WorkQueue::Dropped);
}

TEST_F(WorkQueueTest, WorkMayAddWork) {
  WorkQueue queue("queue", scheduler_, options({.maxBytes = 0}));
  int left = 100;
  std::function<void()> again = [&] {
    if (--left == 0) return;
    EXPECT_TRUE(queue.add(again, 0));
  };
  ASSERT_TRUE(queue.add(again, 0));
  steps();
  EXPECT_EQ(left, 0);
}

// Every item is done once and in the order of the thread that has added it, whoever else adds.
TEST(WorkQueue, LosesNothingBetweenThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 20000;
  WorkQueue queue("queue", {.maxBytes = 0, .maxItems = 1000});
  std::array<int, kThreads> next = {};  // of the queue's thread
  int disordered = 0;
  std::array<WorkQueue::Answer, kThreads> answers;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread] {
        for (int i = 0; i < kEach; ++i) {
          const auto work = [&, thread, i] { disordered += next[thread]++ != i; };
          while (!queue.add(work, 0, answers[thread], WorkQueue::bulk))
            std::this_thread::yield();
        }
      });
    }
  }
  for (auto& answer : answers) {
    waitUntil([&] { return answer.pending() == 0; }, "the work is done");
  }
  EXPECT_EQ(disordered, 0);
  EXPECT_THAT(next, testing::Each(kEach));
  EXPECT_EQ(queue.figures().items, 0U);
}

TEST(WorkQueue, AStopWaitsForTheItemInProgressAndNoOther) {
  WorkQueue queue("queue");
  std::latch begun(1), goOn(1);
  int ran = 0;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(queue.add(
        [&] {
          if (ran == 0) {
            begun.count_down();
            goOn.wait();
          }
          ++ran;
        },
        0));
  }
  begun.wait();
  std::jthread stopper([&] { queue.stop(); });
  waitUntil([&] { return !queue.hasRoom(); }, "the queue is full");
  goOn.count_down();
  stopper.join();
  EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace test
