#pragma once

#include <cstdint>
#include <string_view>

namespace VornSdkRpc {

// Writes the record's line to the platform log. Throws std::bad_alloc, and only before anything is
// written.
void writeAccountingLine(std::string_view user, std::string_view session, std::string_view peer,
                         std::string_view rpc, std::int32_t status);

}  // namespace VornSdkRpc
