#include <Tarsk/Task.h>
#include <Tarsk/TaskScheduler.h>
#include <Velm/Ptr.h>
#include <Velm/Publisher.h>
#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Tarsk::Task;
using Tarsk::TaskPriority;
using testing::ElementsAre;

// Calls a function for every notification of a publisher.
struct Listener : Velm::Subscriber {
  Listener(Velm::Publisher& publisher, std::function<void()> action)
      : Subscriber([](auto*, auto* self, auto...) { static_cast<Listener*>(self)->function(); }),
        function(std::move(action)) {
    publisher.subscriberAdd(*this, false);
  }
  std::function<void()> function;
};

class SchedulerTest : public testing::Test {
 protected:
  ~SchedulerTest() override { EXPECT_EQ(Task::memAllocationTracker_->liveObjects(), 0U); }

  // A runnable task that, when it runs, writes its name down and does something.
  Velm::Ptr<Task> task(std::string name, int priority, std::function<void()> act = [] {}) {
    Velm::Ptr<Task> made(new Task(scheduler_, TaskPriority(priority), "task"));
    listeners_.push_back(std::make_unique<Listener>(*made->publisher(), [=, this] {
      runs_.push_back(name);
      act();
    }));
    made->runnableIs(true);
    return made;
  }
  void runAll() {
    while (scheduler_->runOne()) {
    }
  }

  Velm::Ptr<Tarsk::TaskScheduler> scheduler_{new Tarsk::TaskScheduler("scheduler")};
  std::vector<std::string> runs_;
  std::vector<std::unique_ptr<Listener>> listeners_;
};

TEST_F(SchedulerTest, RunsTheMostUrgentFirstAndThenTheFirstThatAsked) {
  const auto none = task("none", 64);
  none->runnableIs(false);
  const auto last = task("255", 255), a = task("64a", 64), first = task("0", 0),
             b = task("64b", 64), down = task("64 to 191", 64), up = task("191 to 63", 191);
  none->runnableIs(false);
  down->taskPriorityIs(TaskPriority(191));
  up->taskPriorityIs(TaskPriority(63));
  none->taskPriorityIs(TaskPriority(2));
  runAll();
  EXPECT_THAT(runs_, ElementsAre("0", "191 to 63", "64a", "64b", "64 to 191", "255"));
  EXPECT_EQ(none->taskPriority(), TaskPriority(2));
}

TEST_F(SchedulerTest, RunsOncePerRequestAlsoOfOneMadeInARun) {
  Velm::Ptr<Task> again = task("a", 3, [&] { again->runnableIs(runs_.size() < 3); });
  again->runnableIs(true);
  runAll();
  EXPECT_THAT(runs_, ElementsAre("a", "a", "a"));
}

// A task goes with its last reference, unless that is let go of in its own run.
TEST_F(SchedulerTest, ForgetsATaskThatIsDestroyed) {
  for (const bool shared : {false, true}) {
    Velm::ThreadControl::tsp_ = shared;
    runs_.clear();
    Velm::Ptr<Task> gone = task("gone", 1), ends = task("ends", 2, [&] { ends = nullptr; });
    const Listener after(*ends->publisher(), [&] {
      runs_.push_back(std::to_string(Task::memAllocationTracker_->liveObjects()));
    });
    gone = nullptr;
    runAll();
    EXPECT_THAT(runs_, ElementsAre("ends", "1"));
    EXPECT_EQ(Task::memAllocationTracker_->liveObjects(), 0U);
  }
}

TEST_F(SchedulerTest, AStopOrAnExceptionEndsOneRun) {
  EXPECT_THROW(Velm::Ptr<Task>(new Task(nullptr, TaskPriority(3), "task")), std::invalid_argument);
  const Velm::Ptr<Task> stops = task("stops", 3, [&] {
    stops->runnableIs(true);
    scheduler_->stop();
  });
  scheduler_->stop();
  scheduler_->run();
  EXPECT_TRUE(runs_.empty());
  scheduler_->run();
  const auto throws = task("throws", 1, [] { throw std::runtime_error("run"); });
  EXPECT_THROW(scheduler_->run(), std::runtime_error);
  scheduler_->run();
  EXPECT_THAT(runs_, ElementsAre("stops", "throws", "stops"));
  stops->runnableIs(false);
}

// Asked and stopped while it runs, looks around, falls asleep or sleeps.
TEST_F(SchedulerTest, LosesNoWakeUp) {
  std::atomic<int> asked = 0, answered = 0;
  const Velm::Ptr<Task> woken(new Task(scheduler_, TaskPriority(3), "task"));
  const Listener listener(*woken->publisher(), [&] {
    answered = asked.load(std::memory_order_relaxed);
    answered.notify_one();
  });
  // Without a yield, which may be long on a busy machine.
  const auto pause = [](int turns) {
    for (std::atomic<int> left = turns; left > 0; --left) {
    }
  };
  for (int round = 0; round < 1000;) {
    std::thread thread([this] { scheduler_->run(); });
    for (int i = 0; i < 25; ++i) {
      pause(round % 4 * 2000);
      asked.store(++round, std::memory_order_relaxed);
      woken->runnableIs(true);
      for (int seen = round - 1; seen < round; seen = answered)
        answered.wait(seen);
    }
    pause(round % 4 * 50'000);
    scheduler_->stop();
    thread.join();
  }
}

// The scheduler may be about to run a task whose last reference goes on another thread.
TEST_F(SchedulerTest, TasksMayBeDroppedOnOtherThreads) {
  const auto produce = [this](int priority) {
    for (int round = 0; round < 3000; ++round) {
      const Velm::Ptr<Task> dropped(new Task(scheduler_, TaskPriority(priority), "task"));
      dropped->runnableIs(true);
      if (round % 3 == 0) dropped->runnableIs(false);
    }
  };
  std::thread thread([this] { scheduler_->run(); });
  std::thread producer(produce, 0);
  produce(1);
  producer.join();
  scheduler_->stop();
  thread.join();
}

// What a subscriber does during a notification, and who is still told after it.
TEST(Publisher, SubscribersMayChangeDuringANotification) {
  std::unique_ptr<Velm::Publisher> publisher;
  std::vector<std::unique_ptr<Listener>> listeners;
  std::string told;
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { publisher->subscriberRemove(*listeners[1]); }, "0123"},
      {[&] { publisher->subscriberRemove(*listeners[2]); }, "013"},
      {[&] { listeners.resize(2); }, "01"},
      {[&] { publisher->notify(1); }, "01012323"},
      {[&] { publisher.reset(); }, "01"},
      {[&] {
         publisher->subscriberRemove(*listeners[0]);
         publisher->subscriberAdd(*listeners[0], false);
       },
       "0123"},
  };
  for (const auto& [act, expected] : cases) {
    publisher = std::make_unique<Velm::Publisher>();
    listeners.clear();
    told.clear();
    for (const char name : {'0', '1', '2', '3'}) {
      listeners.push_back(std::make_unique<Listener>(*publisher, [&, name] {
        told += name;
        if (told.size() == 2) act();
      }));
    }
    publisher->notify(1);
    EXPECT_EQ(told, expected);
  }
  told = "so far, ";
  publisher->notify(1);
  EXPECT_EQ(told, "so far, 1230");
}

}  // namespace
