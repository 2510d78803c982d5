// Registers the backlog state machine with the platform's introspection: the record that describes
// it, and the entry through which its attributes are read and driven.
#include <VornSdkRpc/StreamingToolkit.h>

#include <array>

extern "C" {
VORN_EXPORT extern const Velm::ModuleInspectData _StreamingToolkitSm_87e7dd33269edc9_kivModule;
}

namespace VornSdkRpc {

namespace {

using namespace std::string_view_literals;
using Velm::AttributeKind;
using Velm::ParameterDescriptor;
using Velm::Inspect::opCall;
using Velm::Inspect::opDel;
using Velm::Inspect::opGet;
using Velm::Inspect::opSet;

// Field 132 belongs to the task.
enum Attribute : std::uint16_t {
  nameId = 130,
  taskSchedulerId = 131,
  handleBacklogTaskId = 133,
  backlogTaskId = 134,
  checkBacklogImplId = 135,
  initializedId = 136,
  handleInitializedId = 137,
};

constexpr auto kSchedulerType = "Tarsk::TaskScheduler"sv;
constexpr auto kPriorityType = "Tarsk::TaskPriority"sv;
constexpr auto kImplType = "VornSdkRpc::BacklogImplBase"sv;
constexpr auto kStringType = "Velm::String"sv;

constexpr std::array kReferredTypes = {kPriorityType, kSchedulerType, kImplType, kStringType};

constexpr std::array kAttributeNames = {"backlogImpl"sv,
                                        "backlogTask"sv,
                                        "checkBacklogImpl"sv,
                                        "handleBacklogTask"sv,
                                        "handleInitialized"sv,
                                        "initialized"sv,
                                        "name"sv,
                                        "taskName"sv,
                                        "taskPriority"sv,
                                        "taskScheduler"sv};

constexpr std::array kConstructorParameters = {
    ParameterDescriptor{"name"sv, kStringType},
    ParameterDescriptor{"taskScheduler"sv, kSchedulerType},
    ParameterDescriptor{"backlogImpl"sv, kImplType}};

constexpr std::array kBacklogTaskParameters = {
    ParameterDescriptor{"taskScheduler"sv, kSchedulerType},
    ParameterDescriptor{"taskPriority"sv, kPriorityType},
    ParameterDescriptor{"taskName"sv, kStringType}};

// The bits of a descriptor that offer these operation codes.
template <typename... Code>
constexpr std::uint16_t offers(Code... codes) {
  return static_cast<std::uint16_t>(((1U << codes) | ... | 0U));
}

constexpr std::array<Velm::AttributeDescriptor, 7> kAttributes = {{
    {nameId, AttributeKind::constructionValue, offers(), "name"sv},
    {taskSchedulerId, AttributeKind::constructionValue, offers(), "taskScheduler"sv},
    {handleBacklogTaskId, AttributeKind::reactor, offers(opCall), "handleBacklogTask"sv},
    {backlogTaskId, AttributeKind::reference, offers(opGet, opSet, opDel), "backlogTask"sv,
     kBacklogTaskParameters},
    {checkBacklogImplId, AttributeKind::check, offers(opCall), "checkBacklogImpl"sv},
    {initializedId, AttributeKind::value, offers(opGet, opSet), "initialized"sv},
    {handleInitializedId, AttributeKind::reactor, offers(opCall), "handleInitialized"sv},
}};

constexpr std::array kDependencies = {&_Task_ebad0b43f10158b_kivModule,
                                      &_TaskScheduler_731e0cc2f103bfdb_kivModule};

// The task that an operation on `backlogTask` returns. `done` is false for an operation that is not
// offered.
struct TaskAnswer {
  bool done = true;
  Velm::Ptr<Tarsk::Task> task = {};
};

TaskAnswer inspectBacklogTask(GenericBacklogSm& sm, unsigned char operation, void* arguments) {
  switch (operation) {
    case opGet:
      return {.task = sm.backlogTask()};
    case opSet: {
      auto* const values = static_cast<void**>(arguments);
      const auto scheduler =
          Velm::Ptr<Tarsk::TaskScheduler>::newRef(static_cast<Tarsk::TaskScheduler*>(values[0]));
      const auto priority = *static_cast<const Tarsk::TaskPriority*>(values[1]);
      return {.task = sm.backlogTaskIs(scheduler, priority,
                                       *static_cast<const Velm::String*>(values[2]))};
    }
    case opDel:
      return {.task = sm.backlogTaskDel()};
    default:
      return {.done = false};
  }
}

}  // namespace

std::pair<const Velm::ModuleInspectData*, unsigned> GenericBacklogSm::typeData() const {
  return {&_StreamingToolkitSm_87e7dd33269edc9_kivModule, 0};
}

}  // namespace VornSdkRpc

template <>
int Velm::HideMe<VornSdkRpc::GenericBacklogSm>::inspectOperation(void* result, void* object,
                                                                 FieldDescriptor field,
                                                                 unsigned char operation,
                                                                 void* /*context*/,
                                                                 void* arguments) {
  using namespace VornSdkRpc;
  using namespace Velm::Inspect;
  auto& sm = *static_cast<GenericBacklogSm*>(object);
  switch (field.table[field.index].id) {
    case handleBacklogTaskId:
      if (operation != opCall) return notOffered;
      sm.handleBacklogTask();
      return done;
    case backlogTaskId: {
      auto answer = inspectBacklogTask(sm, operation, arguments);
      return answer.done ? opResEncRelNode(answer.task.release(), result) : notOffered;
    }
    case checkBacklogImplId:
      if (operation != opCall) return notOffered;
      sm.checkBacklogImpl();
      return done;
    case initializedId:
      if (operation == opGet) {
        *static_cast<unsigned char*>(result) = sm.initialized_ ? 1 : 0;
      } else if (operation == opSet) {
        sm.initialized_ = *static_cast<const unsigned char*>(arguments) != 0;
      } else {
        return notOffered;
      }
      return done;
    case handleInitializedId:
      if (operation != opCall) return notOffered;
      sm.handleInitialized();
      return done;
    case nameId:
    case taskSchedulerId:
      return notOffered;
    default:
      return notHandled;
  }
}

// NOLINTNEXTLINE(cppcoreguidelines-interfaces-global-init): constinit, so no order matters
constinit const Velm::ModuleInspectData _StreamingToolkitSm_87e7dd33269edc9_kivModule = {
    .moduleName = "StreamingToolkitSm",
    .typeName = "VornSdkRpc::GenericBacklogSm",
    .referredTypes = VornSdkRpc::kReferredTypes,
    .attributeNames = VornSdkRpc::kAttributeNames,
    .constructorParameters = VornSdkRpc::kConstructorParameters,
    .attributes = VornSdkRpc::kAttributes,
    .dependencies = VornSdkRpc::kDependencies,
    .interface = {
        .pointer = &Kiv::GenericIfImpl::GenericIfPtrInterfaceMethods<Velm::Node>::vtable_,
        .inspectOperation = &Velm::HideMe<VornSdkRpc::GenericBacklogSm>::inspectOperation}};

namespace {

// The record is known before main, and before any object exists.
[[maybe_unused]] const bool announced =
    (_StreamingToolkitSm_87e7dd33269edc9_kivModule.loaded(), true);

}  // namespace
