#pragma once

#include <vorn/export.h>

#include <string>

namespace VornSdkRpc {

// Moves the calling thread into a named network namespace for the lifetime of one object, and back
// when it ends. Sockets that the thread creates meanwhile belong to that namespace for good; other
// threads stay where they are. Scopes nest. A scope ends on the thread where it began. Needs
// CAP_SYS_ADMIN.
class VORN_EXPORT ScopedNamespace {
 public:
  // Enters the namespace `name`, as `ip netns` knows it. An empty name switches nothing. A
  // namespace that does not exist or can't be entered is a broken precondition: it is said on
  // standard error, and an assertion stops the process.
  explicit ScopedNamespace(std::string name);

  // Puts the thread back into the namespace that it was in before; asserts that this succeeds.
  ~ScopedNamespace();

  ScopedNamespace(const ScopedNamespace&) = delete;
  ScopedNamespace& operator=(const ScopedNamespace&) = delete;

 private:
  int ns_ = -1;  // descriptor of the namespace to go back to; -1 when no switch was made
};

}  // namespace VornSdkRpc
