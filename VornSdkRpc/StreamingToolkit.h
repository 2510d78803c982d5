#pragma once

#include <Kiv/AllocTrack.h>
#include <Tarsk/Task.h>
#include <Tarsk/TaskScheduler.h>
#include <Velm/Inspect.h>
#include <Velm/Node.h>
#include <Velm/Ptr.h>
#include <Velm/Publisher.h>
#include <Velm/String.h>
#include <vorn/export.h>
#include <vorn/mutex.h>

#include <cstddef>
#include <utility>

// Drains an agent's backlog in steps on a cooperative scheduler instead of all at once: derive from
// BacklogImplBase, and wake it when there is work.
//
//   class RouteBacklog : public VornSdkRpc::BacklogImplBase {
//    public:
//     explicit RouteBacklog(const Velm::Ptr<Tarsk::TaskScheduler>& scheduler)
//         : BacklogImplBase("RouteBacklog", scheduler) {}
//
//     void add(Route route) {  // on any thread
//       {
//         const std::lock_guard lock(mutex_);
//         routes_.push_back(std::move(route));
//       }
//       wake();
//     }
//
//    private:
//     void handleBacklog() override {  // on the scheduler's thread
//       if (programSome()) wake();     // more is left
//     }
//     bool programSome();
//
//     std::mutex mutex_;
//     std::deque<Route> routes_;
//   };
namespace VornSdkRpc {

class BacklogImplBase;

// The state machine between a task and an implementation: it owns the task, listens to its runs,
// and passes each on. The platform's introspection can read and drive it.
//
// Takes no locks: every operation, and the task's runs, belong to the scheduler's thread. Before
// the scheduler runs and after it has stopped they may come from the thread that starts or stops
// it. References may be taken and dropped on any thread, but the last one, which ends the
// subscription, is dropped where the operations may be called.
class VORN_EXPORT GenericBacklogSm : public Velm::Node {
 public:
  // Makes the task on the scheduler, with priority 3 and named `name`, and listens to it. The
  // implementation is not called. Notification is not on yet (see hasNotificationActiveIs); the
  // factory and BacklogImplBase turn it on. Asserts that there is an implementation; throws what
  // the task's constructor throws, with nothing left behind.
  GenericBacklogSm(const Velm::String& name, const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler,
                   BacklogImplBase* backlogImpl);

  // Stops listening and drops the task.
  ~GenericBacklogSm() override;

  // A new state machine with notification on.
  static Velm::Ptr<GenericBacklogSm> GenericBacklogSmIs(
      const Velm::String& name, const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler,
      BacklogImplBase* backlogImpl);

  // The current task; empty after backlogTaskDel(). It is not the task for ever: whoever asks for
  // runs calls BacklogImplBase::wake().
  Velm::Ptr<Tarsk::Task> backlogTask() const { return backlogTask_; }

  // Makes sure that the task has this scheduler, priority and name, and returns it. The current
  // task is kept, and its priority changed, when scheduler and name are the same. Otherwise a new
  // task takes its place, and the implementation is called once at once, which stands for every run
  // that was asked of the old task. The new task is listened to even while notification is off.
  // Throws what the task's constructor throws, and then the old task stays but is no longer
  // listened to; passes on what handleBacklog() throws, with the new task in place.
  Velm::Ptr<Tarsk::Task> backlogTaskIs(const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler,
                                       Tarsk::TaskPriority taskPriority,
                                       const Velm::String& taskName);

  // Takes the task out and returns it; empty when there was none. The implementation is not called
  // again until the next backlogTaskIs().
  Velm::Ptr<Tarsk::Task> backlogTaskDel();

  // Calls the implementation, unless the state machine is not initialized or the implementation is
  // gone. Passes on what handleBacklog() throws.
  void handleBacklogTask();

  // Lets handleBacklogTask() reach the implementation from now on.
  void handleInitialized();

  // Asserts that there is an implementation.
  void checkBacklogImpl() const;

  // Listens to the task's runs or stops listening. A run while it does not listen is lost, so an
  // implementation asks again afterwards. Nothing is changed when the subscription throws.
  void hasNotificationActiveIs(bool active);

  // Makes the state machine ignore the task's runs while `zombie`.
  void kivDoZombieReactors(bool zombie) override;

  // The record of module StreamingToolkitSm, and 0.
  std::pair<const Velm::ModuleInspectData*, unsigned> typeData() const override;

  // What the task's publisher calls: handleBacklogTask() for a run, unless the zombie-reactors flag
  // is set. `subscriber` is the one embedded in a state machine.
  static void backlogTaskDispatch(Velm::Publisher* publisher, Velm::Subscriber* subscriber,
                                  Velm::FieldId field, const void* first, const void* second);

  // State machines come from the slab allocator and are counted.
  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;

  // The count; null until the first state machine is allocated.
  static Kiv::AllocTrackTypeInfo* memAllocationTracker_;

 private:
  friend class BacklogImplBase;
  friend struct Velm::HideMe<GenericBacklogSm>;

  // Has a callback exactly while the state machine is subscribed to its task.
  struct TaskSubscriber : Velm::Subscriber {
    explicit TaskSubscriber(GenericBacklogSm& owner) : sm(&owner) {}
    GenericBacklogSm* const sm;
  };

  // What BacklogImplBase::wake() does. Any thread.
  void wake();

  // Puts a task, or none, in the current one's place, and returns that.
  Velm::Ptr<Tarsk::Task> exchangeTask(Velm::Ptr<Tarsk::Task> task);

  void subscribe();
  void unsubscribe();

  BacklogImplBase* backlogImpl_;  // never null, and never one that is gone
  Velm::Ptr<Tarsk::Task> backlogTask_;
  TaskSubscriber taskSubscriber_{*this};
  bool initialized_ = false;
  vorn::mutex taskMutex_;  // held by whoever changes backlogTask_, and by wake(), which reads it
};

// What an agent's backlog derives from. Construct and destroy it where the operations of its state
// machine may be called; handleBacklog() may destroy it.
class VORN_EXPORT BacklogImplBase {
 public:
  // Makes the state machine and its task on the scheduler, both called `name`. handleBacklog() is
  // not called. Throws std::invalid_argument when there is no scheduler.
  BacklogImplBase(Velm::String name, const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler);

  // Lets go of the state machine. One that somebody else still holds stays usable and calls nothing
  // any more, whatever is done to it.
  virtual ~BacklogImplBase();

  BacklogImplBase(const BacklogImplBase&) = delete;
  BacklogImplBase& operator=(const BacklogImplBase&) = delete;

  // Drains the backlog, or a step of it, and calls wake() when something is left. Called once for
  // each run of the task, on the scheduler's thread, and once when the task is replaced. An
  // exception passes on to whoever runs the scheduler.
  virtual void handleBacklog() = 0;

  // Asks the current task for one run. Asking again before the run changes nothing; what is asked
  // during a run is another run. The run sees everything that the caller did before it asked.
  //
  // May be called on any thread, at any time between construction and destruction. It reaches the
  // task that is current also while another takes its place, be it by backlogTaskIs() or by the
  // platform's inspection: what is asked just before is made good by the call that handleBacklog()
  // gets then, and so is what is asked while there is no task. Does nothing more than ask, and
  // waits for no run.
  void wake();

 protected:
  Velm::Ptr<GenericBacklogSm> backlogSm_;

 private:
  class VORN_NO_EXPORT Gone;
  BacklogImplBase();  // without a state machine, for Gone
};

}  // namespace VornSdkRpc

// The inspection entry of the state machine.
//   get: backlogTask returns a node, initialized one byte in the result area.
//   set: backlogTask takes an array of three pointers, to the scheduler (or null, which throws
//        std::invalid_argument), to the byte of the priority and to the Velm::String of the name,
//        and returns a node; initialized takes the address of a byte.
//   delete: backlogTask, returns the node that was taken out.
//   call: handleBacklogTask, checkBacklogImpl, handleInitialized.
template <>
VORN_EXPORT int Velm::HideMe<VornSdkRpc::GenericBacklogSm>::inspectOperation(
    void* result, void* object, FieldDescriptor field, unsigned char operation, void* context,
    void* arguments);
