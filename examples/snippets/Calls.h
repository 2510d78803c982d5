#pragma once

#include <string>

namespace snippets {

// An agent that records its calls, and one call. Throws std::runtime_error when its record is not
// what the guide says. Writes calls.json.
void recordCalls(const std::string& address);

}  // namespace snippets
