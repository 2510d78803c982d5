#pragma once

#include <vorn/export.h>

#include <string>

namespace VornSdkRpc {

// Throws vorn::configuration_error when the process can't enter the network namespace `name` now,
// with a message that names it and says why: there is none of this name, or CAP_SYS_ADMIN is
// missing. An empty name always passes.
//
// For what a user has configured, before a GrpcServer or a ScopedNamespace relies on it: there a
// namespace that can't be entered ends the process. The calling thread stays where it is; the
// attempt is made on a thread that ends with it. Any thread. Throws std::system_error when there
// can be no such thread.
VORN_EXPORT void checkNamespace(const std::string& name);

}  // namespace VornSdkRpc
