#include <VornSdkRpc/NamespaceCheck.h>

#include <netns/setns.h>
#include <sched.h>
#include <vorn/error.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace VornSdkRpc {

void checkNamespace(const std::string& name) {
  if (name.empty()) return;
  int error = 0;
  // The thread stays inside, and ends there: nothing has to come back.
  std::thread([&] { error = setnsByName(name.c_str(), CLONE_NEWNET) == 0 ? 0 : errno; }).join();
  if (error == 0) return;
  throw vorn::configuration_error("cannot enter network namespace " + name + ": " +
                                  std::strerror(error));
}

}  // namespace VornSdkRpc
