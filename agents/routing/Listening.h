#pragma once

#include <string>

namespace routing_agent {

// Throws UsageError for a Unix socket that a server which still runs listens on: gRPC takes over
// its file.
void checkSocketFile(const std::string& address);

}  // namespace routing_agent
