#pragma once

#include <Velm/Node.h>
#include <vorn/export.h>

// How the platform's introspection handles values whose type it does not know.
namespace Kiv::GenericIfImpl {

// Takes and drops one reference through an untyped pointer.
struct PtrInterfaceMethods {
  void (*refAdd)(const void* node);
  void (*refDel)(const void* node);
};

template <typename T>
struct GenericIfPtrInterfaceMethods;

// The methods of every node type.
template <>
struct VORN_EXPORT GenericIfPtrInterfaceMethods<Velm::Node> {
  static const PtrInterfaceMethods vtable_;
};

}  // namespace Kiv::GenericIfImpl
