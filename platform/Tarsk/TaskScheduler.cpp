#include <Tarsk/TaskScheduler.h>

#include <Tarsk/Task.h>

#include <bit>
#include <thread>
#include <utility>

// NOLINTNEXTLINE(cppcoreguidelines-interfaces-global-init): constinit, so no order matters
constinit const Velm::ModuleInspectData _TaskScheduler_731e0cc2f103bfdb_kivModule = {
    .moduleName = "TaskScheduler",
    .typeName = "Tarsk::TaskScheduler",
    .interface = {.pointer =
                      &Kiv::GenericIfImpl::GenericIfPtrInterfaceMethods<Velm::Node>::vtable_},
};

namespace Tarsk {

namespace {

// While requests arrive one by one, each a little later than the scheduler gets through the one
// before, a few looks cost less than a sleep and a wake-up for each.
constexpr int kLooksBeforeSleep = 10;

[[maybe_unused]] const bool announced = (_TaskScheduler_731e0cc2f103bfdb_kivModule.loaded(), true);

}  // namespace

TaskScheduler::TaskScheduler(Velm::String name) : name_(std::move(name)) {}

TaskScheduler::~TaskScheduler() = default;

std::pair<const Velm::ModuleInspectData*, unsigned> TaskScheduler::typeData() const {
  return {&_TaskScheduler_731e0cc2f103bfdb_kivModule, 0};
}

bool TaskScheduler::runOne() {
  vorn::unique_lock lock(mutex_);
  Task* const task = takeNext();
  lock.unlock();
  if (task == nullptr) return false;
  runTask(*task);
  return true;
}

void TaskScheduler::run() {
  vorn::unique_lock lock(mutex_);
  for (int idle = 0; !std::exchange(stopRequested_, false);) {
    if (Task* const task = takeNext()) {
      lock.unlock();
      runTask(*task);
      idle = 0;
      lock.lock();
    } else if (++idle < kLooksBeforeSleep) {
      lock.unlock();
      std::this_thread::yield();
      lock.lock();
    } else {
      sleeping_ = true;
      wake_.wait(lock);
      sleeping_ = false;
    }
  }
}

void TaskScheduler::stop() {
  // Woken with the lock held: once it is released, run() may return and its caller drop this.
  const vorn::lock_guard lock(mutex_);
  stopRequested_ = true;
  wake_.notify_one();
}

void TaskScheduler::taskRunnableIs(Task& task, bool runnable) {
  vorn::unique_lock lock(mutex_);
  if (task.runnable_ == runnable) return;
  if (!runnable) {
    unlink(task);
    return;
  }
  push(task);
  const bool wake = std::exchange(sleeping_, false);
  lock.unlock();
  if (wake) wake_.notify_one();
}

void TaskScheduler::taskPriorityIs(Task& task, TaskPriority priority) {
  const vorn::lock_guard lock(mutex_);
  if (task.priority_ == priority) return;
  const bool runnable = task.runnable_;
  if (runnable) unlink(task);
  task.priority_ = priority;
  if (runnable) push(task);
}

void TaskScheduler::push(Task& task) {
  auto& queue = queues_[task.priority_];
  task.runnable_.store(true, std::memory_order_release);
  task.previous_ = queue.tail;
  task.next_ = nullptr;
  (queue.tail != nullptr ? queue.tail->next_ : queue.head) = &task;
  queue.tail = &task;
  occupied_[task.priority_ / 64] |= std::uint64_t{1} << (task.priority_ % 64);
}

void TaskScheduler::unlink(Task& task) {
  auto& queue = queues_[task.priority_];
  task.runnable_.exchange(false, std::memory_order_acq_rel);
  (task.previous_ != nullptr ? task.previous_->next_ : queue.head) = task.next_;
  (task.next_ != nullptr ? task.next_->previous_ : queue.tail) = task.previous_;
  if (queue.head == nullptr) {
    occupied_[task.priority_ / 64] &= ~(std::uint64_t{1} << (task.priority_ % 64));
  }
}

// Takes the next task and a reference to it off the queues; null when there is none. A task whose
// last reference another thread has just dropped, and whose destructor waits for the lock, is left
// to that.
Task* TaskScheduler::takeNext() {
  for (std::size_t word = 0; word < occupied_.size();) {
    if (occupied_[word] == 0) {
      ++word;
      continue;
    }
    const auto bit = static_cast<std::size_t>(std::countr_zero(occupied_[word]));
    Task* const task = queues_[word * 64 + bit].head;
    unlink(*task);
    if (task->incUseIfAlive()) return task;
  }
  return nullptr;
}

// The reference of takeNext() keeps the task while its subscribers are told, whatever they do.
void TaskScheduler::runTask(Task& task) {
  const Velm::Ptr<Task> held(&task);
  task.publisher_.notify(Task::runField);
}

}  // namespace Tarsk
