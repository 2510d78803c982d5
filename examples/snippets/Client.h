#pragma once

#include <string>

namespace snippets {

// Throws std::runtime_error when it does not hold.
void require(bool holds, const char* what);

// Calls every RPC of an agent on a Unix socket, and of one with a policy on the socket beside it,
// then holds a call open and sends this process the signals that drain and stop the agent. Throws
// std::runtime_error when a reply is not what the guide says.
void callEverything(const std::string& address);

}  // namespace snippets
