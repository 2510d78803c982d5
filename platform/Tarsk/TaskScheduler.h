#pragma once

#include <Velm/Inspect.h>
#include <Velm/Node.h>
#include <Velm/String.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <array>
#include <condition_variable>
#include <cstdint>

// The record of the type in the platform's introspection.
extern "C" VORN_EXPORT const Velm::ModuleInspectData _TaskScheduler_731e0cc2f103bfdb_kivModule;

namespace Tarsk {

class Task;

// How urgent a task is: a lower number goes first.
enum TaskPriority : std::uint8_t {};

// Runs tasks one after another on one thread, the most urgent first and, within a priority, in the
// order in which they asked. Choosing costs the same however many are runnable.
//
// The thread that calls runOne() or run() is the scheduler's thread; a task's notifications arrive
// on it. The caller holds a reference meanwhile.
class VORN_EXPORT TaskScheduler : public Velm::Node {
 public:
  explicit TaskScheduler(Velm::String name);
  ~TaskScheduler() override;

  const Velm::String& name() const { return name_; }

  // Runs the next runnable task and returns true; returns false when none is runnable. An exception
  // from the task's subscribers passes on; the run counts as done. May be called from a task.
  bool runOne();

  // Runs tasks until stop() is seen, asleep while none is runnable, after a few looks in vain.
  // Throws what a run throws; may then be called again.
  void run();

  // Makes run() return after the task that it is running, or the next run() at once when none is
  // going on. What is runnable stays so. Any thread.
  void stop();

  std::pair<const Velm::ModuleInspectData*, unsigned> typeData() const override;

 private:
  friend class Task;

  struct Queue {
    Task* head = nullptr;
    Task* tail = nullptr;
  };

  // For Task.
  void taskRunnableIs(Task& task, bool runnable);
  void taskPriorityIs(Task& task, TaskPriority priority);

  // With the mutex held.
  void push(Task& task) VORN_REQUIRES(mutex_);
  void unlink(Task& task) VORN_REQUIRES(mutex_);
  Task* takeNext() VORN_REQUIRES(mutex_);

  static void runTask(Task& task);

  const Velm::String name_;
  vorn::mutex mutex_;  // guards the place of every task as well
  std::condition_variable wake_;
  bool sleeping_ VORN_GUARDED_BY(mutex_) = false;  // run() waits, and nobody has woken it yet
  bool stopRequested_ VORN_GUARDED_BY(mutex_) = false;
  std::array<std::uint64_t, 4> occupied_
      VORN_GUARDED_BY(mutex_) = {};  // one bit per queue: it is not empty
  std::array<Queue, 256> queues_
      VORN_GUARDED_BY(mutex_) = {};  // one per priority, in order of arrival
};

}  // namespace Tarsk
