#include <VornSdkRpc/StreamingToolkit.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "FailingNew.h"

extern "C" VORN_EXPORT const Velm::ModuleInspectData _StreamingToolkitSm_87e7dd33269edc9_kivModule;

namespace {

bool subscribingThrows = false;

}  // namespace

// Stands in the platform's place for a publisher that may fail to take a subscriber.
void Velm::Publisher::subscriberAdd(Subscriber& subscriber, bool flag) {
  if (subscribingThrows) throw std::runtime_error("subscriberAdd");
  static auto* const next = reinterpret_cast<void (*)(Publisher*, Subscriber&, bool)>(
      dlsym(RTLD_NEXT, "_ZN4Velm9Publisher13subscriberAddERNS_10SubscriberEb"));
  next(this, subscriber, flag);
}

namespace {

using Tarsk::Task;
using Tarsk::TaskPriority;
using Tarsk::TaskScheduler;
using VornSdkRpc::BacklogImplBase;
using VornSdkRpc::GenericBacklogSm;
using namespace Velm::Inspect;

// Looked up before main.
const auto* const announced = Velm::ModuleInspectData::find("StreamingToolkitSm");

std::size_t liveObjects() {
  std::size_t count = 0;
  for (const auto* tracker : {Task::memAllocationTracker_, GenericBacklogSm::memAllocationTracker_})
    count += tracker == nullptr ? 0 : tracker->liveObjects();
  return count;
}

class Backlog : public BacklogImplBase {
 public:
  explicit Backlog(const Velm::Ptr<TaskScheduler>& scheduler, const Velm::String& name = "backlog")
      : BacklogImplBase(name, scheduler) {}
  void handleBacklog() override {
    ++calls;
    if (action) action();
  }
  const Velm::Ptr<GenericBacklogSm>& sm() const { return backlogSm_; }
  Velm::Ptr<Task> task() const { return backlogSm_->backlogTask(); }

  int calls = 0;
  std::function<void()> action = {};
};

int inspect(GenericBacklogSm& sm, std::uint16_t id, unsigned char operation, void* result = nullptr,
            void* arguments = nullptr) {
  Velm::AttributeDescriptor table[2];
  table[1].id = id;
  return Velm::HideMe<GenericBacklogSm>::inspectOperation(result, &sm, {table, 1}, operation,
                                                          nullptr, arguments);
}

// An operation that answers a node; takes over the reference in the answer.
Velm::Ptr<const Velm::Node> inspectNode(GenericBacklogSm& sm, unsigned char operation,
                                        void* arguments = nullptr) {
  const Velm::Node* node = nullptr;
  EXPECT_EQ(inspect(sm, 134, operation, &node, arguments), done);
  return Velm::Ptr<const Velm::Node>(node);
}

class BacklogTest : public testing::Test {
 protected:
  BacklogTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  ~BacklogTest() override { EXPECT_EQ(liveObjects(), 0U) << "objects are left"; }

  // How many calls a run of the task makes.
  int run(Backlog& backlog, const Velm::Ptr<Task>& task) const {
    const int before = backlog.calls;
    if (task) task->runnableIs(true);
    while (scheduler_->runOne()) {
    }
    return backlog.calls - before;
  }

  Velm::Ptr<TaskScheduler> scheduler_{new TaskScheduler("scheduler")};
};

// What is done to a state machine, and whether it then hears a run of its first task, and one of
// the task that it has by then.
TEST_F(BacklogTest, HearsTheRunsOfItsTask) {
  using Step = std::function<void(GenericBacklogSm&)>;
  const Step off = [](auto& sm) { sm.hasNotificationActiveIs(false); };
  const Step on = [](auto& sm) { sm.hasNotificationActiveIs(true); };
  const Step zombie = [](auto& sm) { sm.kivDoZombieReactors(true); };
  const Step alive = [](auto& sm) { sm.kivDoZombieReactors(false); };
  const Step taken = [](auto& sm) {
    const auto task = sm.backlogTask();
    EXPECT_EQ(sm.backlogTaskDel(), task);
  };
  const Step renamed = [&](auto& sm) { sm.backlogTaskIs(scheduler_, TaskPriority(5), "new"); };
  const Step refused = [&](auto& sm) {
    EXPECT_THROW(sm.backlogTaskIs(nullptr, TaskPriority(5), "new"), std::invalid_argument);
  };
  const struct {
    std::vector<Step> steps;
    bool first, present;
  } cases[] = {
      {{}, true, true},
      {{off}, false, false},
      {{off, on, on}, true, true},
      {{off, renamed}, false, true},
      {{zombie}, false, false},
      {{zombie, off, on}, false, false},
      {{zombie, alive}, true, true},
      {{taken, taken, off, on}, false, false},
      {{taken, renamed}, false, true},
      {{refused}, false, false},
      {{refused, off, on}, true, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    Backlog backlog(scheduler_);
    EXPECT_FALSE(scheduler_->runOne());
    EXPECT_EQ(backlog.calls, 0) << "not called during construction";
    const auto first = backlog.task();
    for (const auto& step : c.steps)
      step(*backlog.sm());
    const int before = backlog.calls;
    for (const Velm::FieldId field : {0, 131, 133, 132 + 256})
      first->publisher()->notify(field);
    EXPECT_EQ(backlog.calls, before) << "these are no runs";
    EXPECT_EQ(run(backlog, first), c.first);
    EXPECT_EQ(run(backlog, backlog.task()), c.present);
    backlog.sm()->handleBacklogTask();
    EXPECT_EQ(backlog.calls, before + c.first + c.present + 1) << "whatever is heard";
  }
}

TEST_F(BacklogTest, ReplacesTheTaskForAnotherNameOrSchedulerOnly) {
  Backlog backlog(scheduler_);
  EXPECT_EQ(backlog.task()->taskPriority(), TaskPriority(3));
  const Velm::Ptr<TaskScheduler> other(new TaskScheduler("other"));
  int calls = 0;
  for (const auto& [scheduler, name, replaces] : {std::tuple(scheduler_, "backlog", false),
                                                  {scheduler_, "renamed", true},
                                                  {other, "renamed", true}}) {
    const auto old = backlog.task();
    old->runnableIs(replaces);
    const auto priority = TaskPriority(10 + calls);
    const auto task = backlog.sm()->backlogTaskIs(scheduler, priority, name);
    EXPECT_EQ(task != old, replaces);
    EXPECT_EQ(task, backlog.task());
    EXPECT_EQ(task->taskScheduler(), scheduler);
    EXPECT_EQ(old->taskPriority(), priority) << "changed in any case";
    EXPECT_EQ(backlog.calls, calls += replaces) << "once, at once";
    while (scheduler_->runOne() || other->runOne()) {
    }
    EXPECT_EQ(backlog.calls, calls) << "the old task reaches nobody";
  }
}

// Every way into handleBacklog(): what is thrown there passes on and harms nothing, and it may be
// the end of the implementation.
TEST_F(BacklogTest, MayThrowAndMayEndInItsOwnCall) {
  const std::function<void(GenericBacklogSm&)> ways[] = {
      [this](auto& sm) {
        sm.backlogTask()->runnableIs(true);
        scheduler_->runOne();
      },
      // Where the task has no reference left but the one that goes with the state machine.
      [](auto& sm) {
        auto* const publisher = sm.backlogTask()->publisher();
        publisher->notify(132);
      },
      [this](auto& sm) { sm.backlogTaskIs(scheduler_, TaskPriority(1), "new"); },
      [](auto& sm) { inspect(sm, 133, opCall); },
  };
  for (const auto& way : ways) {
    for (const bool ends : {false, true}) {
      auto backlog = std::make_unique<Backlog>(scheduler_);
      backlog->action = [&] {
        if (!ends) throw std::runtime_error("backlog");
        backlog = nullptr;
      };
      if (ends) {
        way(*backlog->sm());
        EXPECT_EQ(backlog, nullptr) << "not called";
        EXPECT_EQ(liveObjects(), 0U);
      } else {
        EXPECT_THROW(way(*backlog->sm()), std::runtime_error);
        backlog->action = nullptr;
        EXPECT_EQ(run(*backlog, backlog->task()), 1);
      }
    }
  }
}

TEST_F(BacklogTest, NeverCallsAnImplementationThatIsGone) {
  auto backlog = std::make_unique<Backlog>(scheduler_);
  const auto sm = backlog->sm();
  sm->backlogTask()->runnableIs(true);
  backlog = nullptr;
  EXPECT_TRUE(scheduler_->runOne());
  for (const std::uint16_t id : {133, 135, 137})
    EXPECT_EQ(inspect(*sm, id, opCall), done);
  sm->backlogTaskIs(scheduler_, TaskPriority(1), "new")->runnableIs(true);
  EXPECT_TRUE(scheduler_->runOne());
}

TEST_F(BacklogTest, RefusesToBeMadeWithoutWhatItNeeds) {
  const Velm::String name(std::string(100, 'n').c_str());
  const auto nothingLeft = [] { EXPECT_EQ(liveObjects(), 0U); };
  EXPECT_GE(test::failEachAllocation([&] { Backlog(scheduler_, name); }, nothingLeft), 3)
      << "the state machine, the task and its name";
  EXPECT_THROW(Backlog(nullptr, name), std::invalid_argument);
  EXPECT_DEATH(GenericBacklogSm::GenericBacklogSmIs("backlog", scheduler_, nullptr),
               "VornSdkRpc/StreamingToolkit.*checkBacklogImpl\\(\\) const.*backlogImpl_.* failed");
}

// Every identifier and operation code: what is offered, and nothing else, as the record says.
TEST_F(BacklogTest, IsDescribedToTheIntrospection) {
  Backlog backlog(scheduler_);
  EXPECT_EQ(announced, &_StreamingToolkitSm_87e7dd33269edc9_kivModule);
  EXPECT_EQ(backlog.sm()->typeData(), std::pair(announced, 0U));
  std::string text(announced->typeName);
  for (const auto& [name, type] : announced->constructorParameters)
    text.append(" ").append(name).append(":").append(type);
  for (const auto& name : announced->attributeNames)
    text.append(" ").append(name);
  EXPECT_EQ(text,
            "VornSdkRpc::GenericBacklogSm name:Velm::String taskScheduler:Tarsk::TaskScheduler "
            "backlogImpl:VornSdkRpc::BacklogImplBase backlogImpl backlogTask checkBacklogImpl "
            "handleBacklogTask handleInitialized initialized name taskName taskPriority "
            "taskScheduler");

  using Offers = std::map<int, std::set<int>>;  // operations by identifier
  Offers described, offered;
  for (const auto& attribute : announced->attributes) {
    auto& operations = described[attribute.id];
    for (int bit = 0; bit < 16; ++bit)
      if ((attribute.operations >> bit & 1) != 0) operations.insert(bit);
  }
  TaskPriority priority{3};
  Velm::String name = "backlog";
  void* task[] = {scheduler_.get(), &priority, &name};
  for (std::uint16_t id = 100; id < 200; ++id) {
    for (int operation = 0; operation < 256; ++operation) {
      const Velm::Node* result = nullptr;
      const int code = inspect(*backlog.sm(), id, static_cast<unsigned char>(operation), &result,
                               id == 134 ? static_cast<void*>(task) : &priority);
      if (code != notHandled) offered[id];
      if (code == done) offered[id].insert(operation);
      if (id == 134 && result) announced->interface.pointer->refDel(result);
    }
  }
  EXPECT_EQ(offered, (Offers{{130, {}},
                             {131, {}},
                             {133, {10}},
                             {134, {0, 1, 2}},
                             {135, {10}},
                             {136, {0, 1}},
                             {137, {10}}}));
  EXPECT_EQ(described, offered);
}

TEST_F(BacklogTest, IsDrivenByInspection) {
  Backlog backlog(scheduler_);
  auto& sm = *backlog.sm();
  for (const auto& [value, calls] : {std::pair(2, 1), {1, 1}, {0, 0}}) {
    auto byte = static_cast<unsigned char>(value);
    EXPECT_EQ(inspect(sm, 136, opSet, nullptr, &byte), done);
    EXPECT_EQ(inspect(sm, 136, opGet, &byte), done);
    EXPECT_EQ(byte, calls);
    EXPECT_EQ(run(backlog, backlog.task()), calls);
  }
  EXPECT_EQ(inspect(sm, 137, opCall), done);
  EXPECT_EQ(run(backlog, backlog.task()), 1);

  EXPECT_EQ(inspectNode(sm, opGet).get(), backlog.task().get());
  TaskPriority priority{8};
  Velm::String name = "inspected";
  void* arguments[] = {scheduler_.get(), &priority, &name};
  const auto made = inspectNode(sm, opSet, arguments);
  EXPECT_EQ(made.get(), backlog.task().get());
  EXPECT_EQ(backlog.task()->taskName(), name);
  EXPECT_EQ(backlog.task()->taskPriority(), priority);
  EXPECT_EQ(inspectNode(sm, opDel), made);
  EXPECT_FALSE(inspectNode(sm, opGet));
}

TEST_F(BacklogTest, ChangesNothingWhenSubscribingThrows) {
  Backlog backlog(scheduler_);
  auto& sm = *backlog.sm();
  sm.hasNotificationActiveIs(false);
  subscribingThrows = true;
  EXPECT_THROW(sm.hasNotificationActiveIs(true), std::runtime_error);
  EXPECT_THROW(sm.backlogTaskIs(scheduler_, TaskPriority(3), "new"), std::runtime_error);
  EXPECT_THROW(Backlog another(scheduler_), std::runtime_error);
  subscribingThrows = false;
  EXPECT_EQ(liveObjects(), 2U);
  EXPECT_EQ(run(backlog, backlog.task()), 0);
  sm.hasNotificationActiveIs(true);
  EXPECT_EQ(run(backlog, backlog.task()), 1) << "it listens, and its reactors are awake";
}

// Filled on one thread, and drained in steps on another.
TEST_F(BacklogTest, LosesNothingBetweenThreads) {
  constexpr int kTotal = 1'000'000;
  Backlog backlog(scheduler_);
  std::mutex mutex;
  int added = 0, taken = 0;
  backlog.action = [&] {
    std::unique_lock lock(mutex);
    taken = std::min(taken + 100, added);
    const bool more = taken < added;
    lock.unlock();
    if (more) backlog.wake();
    if (taken == kTotal) scheduler_->stop();
  };
  std::thread thread([this] { scheduler_->run(); });
  while (added < kTotal) {
    {
      const std::lock_guard lock(mutex);
      added += 64;
    }
    backlog.wake();
  }
  thread.join();
}

// Filled on two threads while the task is replaced, in every way there is, on the scheduler's.
TEST_F(BacklogTest, LosesNothingWhileTheTaskIsReplaced) {
  constexpr int kEach = 20'000;
  Backlog backlog(scheduler_);
  auto& sm = *backlog.sm();
  std::atomic<int> waiting = 0, running = 2;
  backlog.action = [&] {
    if (waiting > 0 && --waiting > 0) backlog.wake();
  };
  const auto produce = [&] {
    for (int i = 0; i < kEach; ++i) {
      ++waiting;
      backlog.wake();
    }
    --running;
  };
  std::thread producers[] = {std::thread(produce), std::thread(produce)};

  TaskPriority priority{3};
  Velm::String names[] = {"one", "other"};
  for (unsigned round = 0; running > 0; ++round) {
    auto& name = names[round % 2];
    if (round % 3 == 0) {
      sm.backlogTaskIs(scheduler_, priority, name);
    } else if (round % 3 == 1) {
      void* arguments[] = {scheduler_.get(), &priority, &name};
      inspectNode(sm, opSet, arguments);
    } else {
      sm.backlogTaskDel();
      sm.backlogTaskIs(scheduler_, priority, name);
    }
    scheduler_->runOne();
  }
  for (auto& producer : producers)
    producer.join();
  while (scheduler_->runOne()) {
  }
  EXPECT_EQ(waiting, 0);
}

}  // namespace
