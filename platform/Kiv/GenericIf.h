#pragma once

#include <Velm/Node.h>
#include <vorn/export.h>

// How the platform's introspection handles values whose type it does not know.
namespace Kiv::GenericIfImpl {

// Takes and drops one reference through an untyped pointer.
struct PtrInterfaceMethods {
  void (*refAdd)(void const* node);
  void (*refDel)(void const* node);
};

template <typename T>
struct GenericIfPtrInterfaceMethods;

// The methods of every node type.
template <>
struct VORN_EXPORT GenericIfPtrInterfaceMethods<Velm::Node> {
  static PtrInterfaceMethods const vtable_;
};

}  // namespace Kiv::GenericIfImpl
