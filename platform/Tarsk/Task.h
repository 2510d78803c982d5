#pragma once

#include <Kiv/AllocTrack.h>
#include <Tarsk/TaskScheduler.h>
#include <Velm/Inspect.h>
#include <Velm/Node.h>
#include <Velm/Ptr.h>
#include <Velm/Publisher.h>
#include <Velm/String.h>
#include <vorn/export.h>

#include <atomic>
#include <cstddef>
#include <utility>

// The record of the type in the platform's introspection.
extern "C" VORN_EXPORT const Velm::ModuleInspectData _Task_ebad0b43f10158b_kivModule;

namespace Tarsk {

// Something that a scheduler runs when it is asked to: a run is a notification of the task's
// subscribers. Held through Velm::Ptr. A task that is destroyed is not run any more, whether it was
// runnable or not; one whose last reference goes while it runs is destroyed after the run.
//
// runnableIs() may be called from any thread that holds a reference; everything else belongs to the
// scheduler's thread.
class VORN_EXPORT Task : public Velm::Node {
 public:
  // The field of the notification that is a run.
  static constexpr Velm::FieldId runField = 132;

  // A task that is not runnable. Throws std::invalid_argument when there is no scheduler.
  Task(const Velm::Ptr<TaskScheduler>& taskScheduler, TaskPriority taskPriority,
       const Velm::String& taskName);
  ~Task() override;

  // Asks for one run, or withdraws the request; asking again before the run changes nothing. A run
  // takes the request back before it notifies, so a task that wants another run asks again, and a
  // request made during a run is one for another. The run sees everything that the caller did
  // before it asked.
  void runnableIs(bool runnable) {
    // A request that stands is confirmed by a write, not only read: the run that takes it back
    // comes after that, and sees what was done here before. The scheduler's lock is left alone.
    bool stands = true;
    if (runnable && runnable_.compare_exchange_strong(stands, true, std::memory_order_acq_rel)) {
      return;
    }
    taskScheduler_->taskRunnableIs(*this, runnable);
  }

  Velm::Ptr<TaskScheduler> taskScheduler() const { return taskScheduler_; }
  Velm::String taskName() const { return taskName_; }
  TaskPriority taskPriority() const { return priority_; }

  // A runnable task goes behind those that already wait at the new priority.
  void taskPriorityIs(TaskPriority priority) { taskScheduler_->taskPriorityIs(*this, priority); }

  Velm::Publisher* publisher() const override { return &publisher_; }
  std::pair<const Velm::ModuleInspectData*, unsigned> typeData() const override;

  // Tasks come from the slab allocator and are counted.
  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;

  // The count; null until the first task is allocated.
  static Kiv::AllocTrackTypeInfo* memAllocationTracker_;

 private:
  friend class TaskScheduler;

  // The place in the scheduler's queues, which changes under its mutex.
  Task* previous_ = nullptr;
  Task* next_ = nullptr;
  std::atomic<bool> runnable_ = false;
  TaskPriority priority_;

  mutable Velm::Publisher publisher_;
  const Velm::Ptr<TaskScheduler> taskScheduler_;
  const Velm::String taskName_;
};

}  // namespace Tarsk
