#include <VornSdkRpc/StreamingToolkit.h>

#include <ZilSlab/ZilSlab.h>

#include <cassert>
#include <new>

namespace VornSdkRpc {

namespace {

constexpr Tarsk::TaskPriority kTaskPriority{3};

// Sets a node's flag, and puts back at the end of the scope what it was.
class FlagScope {
 public:
  FlagScope(const Velm::Node& node, Velm::Node::NodeFlag flag)
      : node_(node), flag_(flag), before_(node.nodeFlag(flag)) {
    node_.nodeFlagSet(flag_, true);
  }
  ~FlagScope() { node_.nodeFlagSet(flag_, before_); }
  FlagScope(const FlagScope&) = delete;
  FlagScope& operator=(const FlagScope&) = delete;

 private:
  const Velm::Node& node_;
  const Velm::Node::NodeFlag flag_;
  const bool before_;
};

}  // namespace

constinit Kiv::AllocTrackTypeInfo* GenericBacklogSm::memAllocationTracker_ = nullptr;

// Takes the place of an implementation that is gone: what is still done to its state machine is
// then as harmless as it would be without one, and the pointer is never null.
class BacklogImplBase::Gone final : public BacklogImplBase {
 public:
  // Never destroyed, because state machines may outlive any order of destruction.
  static BacklogImplBase* instance() {
    alignas(Gone) static std::byte memory[sizeof(Gone)];
    static auto* const made = new (memory) Gone;
    return made;
  }

  void handleBacklog() override {}
};

BacklogImplBase::BacklogImplBase() = default;

BacklogImplBase::BacklogImplBase(Velm::String name,
                                 const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler)
    : backlogSm_(GenericBacklogSm::GenericBacklogSmIs(name, taskScheduler, this)) {}

BacklogImplBase::~BacklogImplBase() {
  if (backlogSm_) backlogSm_->backlogImpl_ = Gone::instance();
}

void BacklogImplBase::wake() { backlogSm_->wake(); }

GenericBacklogSm::GenericBacklogSm(const Velm::String& name,
                                   const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler,
                                   BacklogImplBase* backlogImpl)
    : backlogImpl_(backlogImpl) {
  checkBacklogImpl();
  backlogTaskIs(taskScheduler, kTaskPriority, name);
  initialized_ = true;
}

GenericBacklogSm::~GenericBacklogSm() {
  hasNotificationActiveIs(false);
  GenericBacklogSm::kivDoZombieReactors(true);
  backlogTaskDel();
}

Velm::Ptr<GenericBacklogSm> GenericBacklogSm::GenericBacklogSmIs(
    const Velm::String& name, const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler,
    BacklogImplBase* backlogImpl) {
  Velm::Ptr<GenericBacklogSm> sm(new GenericBacklogSm(name, taskScheduler, backlogImpl));
  sm->hasNotificationActiveIs(true);
  return sm;
}

Velm::Ptr<Tarsk::Task> GenericBacklogSm::backlogTaskIs(
    const Velm::Ptr<Tarsk::TaskScheduler>& taskScheduler, Tarsk::TaskPriority taskPriority,
    const Velm::String& taskName) {
  auto task = backlogTask_;
  if (task) {
    const bool sameScheduler = task->taskScheduler() == taskScheduler;
    task->taskPriorityIs(taskPriority);
    if (sameScheduler && task->taskName() == taskName) return task;
    unsubscribe();
  }
  task = Velm::Ptr<Tarsk::Task>(new Tarsk::Task(taskScheduler, taskPriority, taskName));
  exchangeTask(task);
  subscribe();
  handleBacklogTask();  // may be the end of this object
  return task;
}

Velm::Ptr<Tarsk::Task> GenericBacklogSm::backlogTaskDel() {
  unsubscribe();
  return exchangeTask(nullptr);
}

// The old task, whose last reference may go with the answer, is not let go under the lock.
Velm::Ptr<Tarsk::Task> GenericBacklogSm::exchangeTask(Velm::Ptr<Tarsk::Task> task) {
  const vorn::lock_guard lock(taskMutex_);
  return std::exchange(backlogTask_, std::move(task));
}

// The lock is held while the task is asked, so that no reference has to be taken, the last one of
// which would end the task on this thread.
void GenericBacklogSm::wake() {
  const vorn::lock_guard lock(taskMutex_);
  if (backlogTask_) backlogTask_->runnableIs(true);
}

void GenericBacklogSm::handleBacklogTask() {
  if (initialized_) backlogImpl_->handleBacklog();  // may be the end of this object
}

void GenericBacklogSm::handleInitialized() { initialized_ = true; }

void GenericBacklogSm::checkBacklogImpl() const { assert(backlogImpl_); }

void GenericBacklogSm::hasNotificationActiveIs(bool active) {
  if (nodeFlag(notificationActive) == active) return;
  nodeFlagSet(notificationActive, active);
  const FlagScope zombie(*this, zombieReactors);
  try {
    active ? subscribe() : unsubscribe();
  } catch (...) {
    nodeFlagSet(notificationActive, !active);
    throw;
  }
}

void GenericBacklogSm::kivDoZombieReactors(bool zombie) {
  if (nodeFlag(zombieReactors) != zombie) nodeFlagSet(zombieReactors, zombie);
}

void GenericBacklogSm::backlogTaskDispatch(Velm::Publisher* /*publisher*/,
                                           Velm::Subscriber* subscriber, Velm::FieldId field,
                                           const void* /*first*/, const void* /*second*/) {
  if (field != Tarsk::Task::runField) return;
  auto& sm = *static_cast<TaskSubscriber*>(subscriber)->sm;
  if (sm.nodeFlag(zombieReactors)) return;
  sm.handleBacklogTask();
}

void* GenericBacklogSm::operator new(std::size_t size) {
  return ZilSlab::trackedAlloc(&memAllocationTracker_, typeid(GenericBacklogSm), size);
}

void GenericBacklogSm::operator delete(void* memory) noexcept {
  ZilSlab::trackedFree(memAllocationTracker_, typeid(GenericBacklogSm), memory);
}

void GenericBacklogSm::subscribe() {
  if (!backlogTask_ || taskSubscriber_.callback != nullptr) return;
  taskSubscriber_.callback = &backlogTaskDispatch;  // which a publisher asks for
  try {
    backlogTask_->publisher()->subscriberAdd(taskSubscriber_, false);
  } catch (...) {
    taskSubscriber_.callback = nullptr;
    throw;
  }
}

void GenericBacklogSm::unsubscribe() {
  if (!backlogTask_ || taskSubscriber_.callback == nullptr) return;
  backlogTask_->publisher()->subscriberRemove(taskSubscriber_);
  taskSubscriber_.callback = nullptr;
}

}  // namespace VornSdkRpc
