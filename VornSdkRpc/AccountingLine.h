#pragma once

#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>

namespace VornSdkRpc {

// Writes the record's line to the platform log. Throws std::bad_alloc, and only before anything is
// written.
void writeAccountingLine(const LogMessageData& record);

}  // namespace VornSdkRpc
