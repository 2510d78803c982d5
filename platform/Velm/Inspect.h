#pragma once

#include <Kiv/GenericIf.h>
#include <Velm/Node.h>
#include <vorn/export.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// The platform's introspection: constant records that describe the types of a module, and one entry
// per type through which attributes are read and driven by descriptor.
namespace Velm {

// A parameter of a constructor or of a set operation.
struct ParameterDescriptor {
  std::string_view name;
  std::string_view type;
};

enum class AttributeKind : std::uint8_t {
  constructionValue,  // given to the constructor and not kept
  value,
  reference,  // a counted reference to a node
  reactor,    // an operation that reacts to a change
  check,      // an operation that asserts an invariant
};

// One attribute of a type. The identifier leads, whatever else a version of this record carries.
struct AttributeDescriptor {
  std::uint16_t id = 0;
  AttributeKind kind = AttributeKind::value;
  std::uint16_t operations = 0;  // bit N is set when operation code N is offered
  std::string_view name = {};
  std::span<const ParameterDescriptor> setParameters = {};  // when a set takes more than a value
};

// Picks one attribute out of a type's table.
struct FieldDescriptor {
  const AttributeDescriptor* table;
  std::size_t index;
};

namespace Inspect {

// Operation codes.
inline constexpr unsigned char opGet = 0;
inline constexpr unsigned char opSet = 1;
inline constexpr unsigned char opDel = 2;
inline constexpr unsigned char opCall = 10;

// Result codes.
inline constexpr int done = 0;
inline constexpr int notOffered = 1;  // the attribute does not have this operation
inline constexpr int notHandled = 2;  // the type does not have this attribute

// Puts a node, or null, into the result area as a `Velm::Node const*`, together with the one
// reference that the caller hands over. Returns `done`.
VORN_EXPORT int opResEncRelNode(const Node* node, void* result);

}  // namespace Inspect

// The form of an inspection entry (see HideMe).
using InspectOperation = int (*)(void* result, void* object, FieldDescriptor field,
                                 unsigned char operation, void* context, void* arguments);

// The inspection entry of T, specialised by each type that offers one. `result` is the area for
// what a get, a set or a delete returns, `object` the T, `arguments` what the operation takes; the
// pointer before it is the platform's own. Returns a result code. Belongs to the thread on which
// the object's other operations run, and throws what they throw.
template <typename T>
struct HideMe {
  static int inspectOperation(void* result, void* object, FieldDescriptor field,
                              unsigned char operation, void* context, void* arguments);
};

// What one type can do for the introspection.
struct TypeInterface {
  const Kiv::GenericIfImpl::PtrInterfaceMethods* pointer = nullptr;
  InspectOperation inspectOperation = nullptr;  // null when not offered
};

// The record that describes a module and its type. A constant with static storage duration, which
// the module's static initialisation announces.
struct VORN_EXPORT ModuleInspectData {
  std::string_view moduleName;
  std::string_view typeName;
  std::span<const std::string_view> referredTypes = {};
  std::span<const std::string_view> attributeNames = {};  // parameters of attributes included
  std::span<const ParameterDescriptor> constructorParameters = {};
  std::span<const AttributeDescriptor> attributes = {};
  std::span<const ModuleInspectData* const> dependencies = {};
  TypeInterface interface = {};

  std::string_view name() const { return moduleName; }

  // Makes the record known to the process. Any thread.
  void loaded() const;

  // The announced record of that module name, or null. Any thread.
  static const ModuleInspectData* find(std::string_view name);
};

}  // namespace Velm
