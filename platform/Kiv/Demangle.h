#pragma once

#include <Velm/String.h>
#include <vorn/export.h>

#include <typeinfo>

namespace Kiv {

// The name of a type as its source spells it, namespaces included:
// "VornSdkRpc::pb::ip_route_msg". The C++ runtime is asked once for each type, later calls answer
// from memory. A name that the runtime can't make sense of is answered as it is. Any thread may
// call it. Throws std::bad_alloc only.
VORN_EXPORT Velm::String demangle(const std::type_info& type);

}  // namespace Kiv
