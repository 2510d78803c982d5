#include <Tarsk/Task.h>

#include <ZilSlab/ZilSlab.h>

#include <stdexcept>

// NOLINTNEXTLINE(cppcoreguidelines-interfaces-global-init): constinit, so no order matters
constinit const Velm::ModuleInspectData _Task_ebad0b43f10158b_kivModule = {
    .moduleName = "Task",
    .typeName = "Tarsk::Task",
    .interface = {.pointer =
                      &Kiv::GenericIfImpl::GenericIfPtrInterfaceMethods<Velm::Node>::vtable_},
};

namespace Tarsk {

namespace {

[[maybe_unused]] const bool announced = (_Task_ebad0b43f10158b_kivModule.loaded(), true);

}  // namespace

constinit Kiv::AllocTrackTypeInfo* Task::memAllocationTracker_ = nullptr;

Task::Task(const Velm::Ptr<TaskScheduler>& taskScheduler, TaskPriority taskPriority,
           const Velm::String& taskName)
    : priority_(taskPriority), taskScheduler_(taskScheduler), taskName_(taskName) {
  if (!taskScheduler_) throw std::invalid_argument("a task needs a scheduler");
}

Task::~Task() { runnableIs(false); }

std::pair<const Velm::ModuleInspectData*, unsigned> Task::typeData() const {
  return {&_Task_ebad0b43f10158b_kivModule, 0};
}

void* Task::operator new(std::size_t size) {
  return ZilSlab::trackedAlloc(&memAllocationTracker_, typeid(Task), size);
}

void Task::operator delete(void* memory) noexcept {
  ZilSlab::trackedFree(memAllocationTracker_, typeid(Task), memory);
}

}  // namespace Tarsk
