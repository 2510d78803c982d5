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
using Tarsk::TaskScheduler;
using testing::ElementsAre;
using testing::IsEmpty;

std::size_t liveTasks() {
  return Task::memAllocationTracker_ == nullptr ? 0 : Task::memAllocationTracker_->liveObjects();
}

// Calls a function for every notification of a publisher.
struct Listener : Velm::Subscriber {
  Listener(Velm::Publisher& publisher, std::function<void()> action)
      : Subscriber(&call), function(std::move(action)) {
    publisher.subscriberAdd(*this, false);
  }

  static void call(Velm::Publisher*, Subscriber* subscriber, Velm::FieldId, const void*,
                   const void*) {
    static_cast<Listener*>(subscriber)->function();
  }

  std::function<void()> function;
};

class SchedulerTest : public testing::Test {
 protected:
  ~SchedulerTest() override {
    EXPECT_EQ(liveTasks(), 0U) << "tasks are left";
    Velm::ThreadControl::tsp_ = true;
  }

  Velm::Ptr<Task> newTask(int priority = 3) {
    return Velm::Ptr<Task>(new Task(scheduler_, TaskPriority(priority), "task"));
  }

  // A runnable task that writes its name down when it runs.
  Velm::Ptr<Task> writer(std::string name, int priority) {
    auto task = newTask(priority);
    listeners_.push_back(std::make_unique<Listener>(
        *task->publisher(), [this, text = std::move(name)] { runs_.push_back(text); }));
    task->runnableIs(true);
    return task;
  }

  void runAll() {
    while (scheduler_->runOne()) {
    }
  }

  Velm::Ptr<TaskScheduler> scheduler_{new TaskScheduler("scheduler")};
  std::vector<std::string> runs_;
  std::vector<std::unique_ptr<Listener>> listeners_;
};

TEST_F(SchedulerTest, RunsTheMostUrgentFirstAndThenTheFirstThatAsked) {
  const std::vector<Velm::Ptr<Task>> tasks = {writer("255", 255), writer("64a", 64),
                                              writer("0", 0),     writer("63", 63),
                                              writer("64b", 64),  writer("191", 191)};
  runAll();
  EXPECT_THAT(runs_, ElementsAre("0", "63", "64a", "64b", "191", "255"));
}

TEST_F(SchedulerTest, RunsOncePerRequest) {
  const auto task = writer("a", 3);
  task->runnableIs(true);
  runAll();
  task->runnableIs(true);
  task->runnableIs(false);
  runAll();
  EXPECT_THAT(runs_, ElementsAre("a"));

  const Listener again(*task->publisher(), [&] { task->runnableIs(runs_.size() < 4); });
  task->runnableIs(true);
  runAll();
  EXPECT_THAT(runs_, ElementsAre("a", "a", "a", "a"));
}

TEST_F(SchedulerTest, MovesARunnableTaskToItsNewPriority) {
  const auto a = writer("a", 5);
  const auto b = writer("b", 5);
  const auto c = writer("c", 5);
  const auto d = writer("d", 9);
  b->taskPriorityIs(TaskPriority(9));
  c->taskPriorityIs(TaskPriority(1));
  d->runnableIs(false);
  d->taskPriorityIs(TaskPriority(0));
  runAll();
  EXPECT_THAT(runs_, ElementsAre("c", "a", "b"));
  EXPECT_EQ(b->taskPriority(), TaskPriority(9));
  EXPECT_EQ(d->taskPriority(), TaskPriority(0));
}

TEST_F(SchedulerTest, ForgetsATaskThatIsDestroyed) {
  for (const bool shared : {true, false}) {
    Velm::ThreadControl::tsp_ = shared;
    auto gone = writer("gone", 1);
    const auto stays = writer("stays", 2);
    gone = nullptr;
    EXPECT_EQ(liveTasks(), 1U);
    runAll();
    EXPECT_THAT(runs_, ElementsAre("stays"));
    runs_.clear();
  }
}

TEST_F(SchedulerTest, KeepsATaskUntilItsRunIsOver) {
  auto task = newTask();
  const Listener first(*task->publisher(), [&] { task = nullptr; });
  const Listener second(*task->publisher(), [&] { runs_.push_back(std::to_string(liveTasks())); });
  task->runnableIs(true);
  EXPECT_TRUE(scheduler_->runOne());
  EXPECT_EQ(liveTasks(), 0U);
  EXPECT_THAT(runs_, ElementsAre("1"));
}

TEST_F(SchedulerTest, GoesOnAfterARunThatThrows) {
  const auto task = newTask();
  const Listener listener(*task->publisher(), [&, first = true]() mutable {
    if (std::exchange(first, false)) throw std::runtime_error("run");
    scheduler_->stop();
  });
  task->runnableIs(true);
  EXPECT_THROW(scheduler_->run(), std::runtime_error);
  EXPECT_FALSE(scheduler_->runOne());
  task->runnableIs(true);
  scheduler_->run();
}

TEST_F(SchedulerTest, StopEndsOneRun) {
  const auto task = writer("a", 3);
  scheduler_->stop();
  scheduler_->run();
  EXPECT_THAT(runs_, IsEmpty());
  const Listener listener(*task->publisher(), [&] {
    task->runnableIs(true);
    scheduler_->stop();
  });
  scheduler_->run();
  EXPECT_THAT(runs_, ElementsAre("a"));
}

TEST_F(SchedulerTest, LosesNoWakeUp) {
  const auto task = newTask();
  std::atomic<int> asked = 0, answered = 0;
  const Listener listener(*task->publisher(), [&] {
    answered = asked.load();
    answered.notify_one();
  });
  for (int round = 1; round <= 5000;) {
    std::thread thread([this] { scheduler_->run(); });
    for (const int pause = round + 25; round < pause; ++round) {
      asked.store(round, std::memory_order_relaxed);
      task->runnableIs(true);
      for (int seen = round - 1; seen < round; seen = answered)
        answered.wait(seen);
    }
    scheduler_->stop();
    thread.join();
  }
}

// The scheduler may be about to run a task whose last reference goes on another thread.
TEST_F(SchedulerTest, TasksMayBeDroppedOnOtherThreads) {
  const auto produce = [this](int priority) {
    for (int round = 0; round < 3000; ++round) {
      const auto task = newTask(priority);
      task->runnableIs(true);
      if (round % 3 == 0) task->runnableIs(false);
    }
  };
  std::thread thread([this] { scheduler_->run(); });
  std::thread producer(produce, 0);
  produce(1);
  producer.join();
  scheduler_->stop();
  thread.join();
}

TEST_F(SchedulerTest, ATaskNeedsAScheduler) {
  EXPECT_THROW(Velm::Ptr<Task>(new Task(nullptr, TaskPriority(3), "task")), std::invalid_argument);
}

// What a subscriber does during a notification, and who is still told after it.
TEST_F(SchedulerTest, SubscribersMayChangeDuringANotification) {
  std::unique_ptr<Velm::Publisher> publisher;
  std::vector<std::unique_ptr<Listener>> listeners;
  const std::pair<std::function<void()>, std::vector<std::string>> cases[] = {
      {[] {}, {"0", "1", "2", "3"}},
      {[&] { publisher->subscriberRemove(*listeners[1]); }, {"0", "1", "2", "3"}},
      {[&] { publisher->subscriberRemove(*listeners[2]); }, {"0", "1", "3"}},
      {[&] { publisher->subscriberRemove(*listeners[0]); }, {"0", "1", "2", "3"}},
      {[&] { listeners.resize(2); }, {"0", "1"}},
      {[&] { publisher->notify(1); }, {"0", "1", "0", "1", "2", "3", "2", "3"}},
      {[&] { publisher.reset(); }, {"0", "1"}},
      {[&] {
         publisher->subscriberRemove(*listeners[0]);
         publisher->subscriberAdd(*listeners[0], false);
       },
       {"0", "1", "2", "3"}},
  };
  for (const auto& [act, told] : cases) {
    publisher = std::make_unique<Velm::Publisher>();
    listeners.clear();
    runs_.clear();
    for (const auto* name : {"0", "1", "2", "3"}) {
      listeners.push_back(std::make_unique<Listener>(*publisher, [&, name] {
        runs_.push_back(name);
        if (runs_.size() == 2) act();
      }));
    }
    publisher->notify(1);
    EXPECT_EQ(runs_, told);
  }
  runs_.assign(2, "so far");
  publisher->notify(1);
  EXPECT_THAT(runs_, ElementsAre("so far", "so far", "1", "2", "3", "0"));
}

}  // namespace
