#include <VornSdkRpc/ScopedNamespace.h>

#include <fcntl.h>
#include <netns/setns.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace VornSdkRpc {

namespace {

// The assertion that follows names an expression; an operator needs the namespace and the reason.
void sayWhy(const char* what, const std::string& name) {
  std::fprintf(stderr, "%s network namespace %s: %s\n", what, name.c_str(), std::strerror(errno));
}

}  // namespace

ScopedNamespace::ScopedNamespace(std::string name) {
  if (name.empty()) return;
  // The calling thread's own namespace: /proc/self would name that of the main thread, which is
  // another one when this scope is opened inside a scope.
  ns_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
  if (ns_ == -1) sayWhy("cannot save the", "of this thread");
  assert(ns_ != -1);
  const int status = setnsByName(name.c_str(), CLONE_NEWNET);
  if (status) sayWhy("cannot enter the", name);
  assert(!status);
}

ScopedNamespace::~ScopedNamespace() {
  if (ns_ == -1) return;
  const int status = setns(ns_, CLONE_NEWNET);
  if (status) sayWhy("cannot return to the", "of before");
  assert(!status);
  close(ns_);
}

}  // namespace VornSdkRpc
