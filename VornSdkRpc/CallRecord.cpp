#include <VornSdkRpc/CallRecord.h>

#include <iterator>

namespace VornSdkRpc {

std::string_view textOf(CallEnd end) {
  static constexpr std::string_view texts[] = {"begun",  "answered",  "refused",
                                               "denied", "abandoned", "stopped"};
  return texts[static_cast<std::size_t>(end)];
}

std::string_view codeText(std::int32_t status) {
  static constexpr std::string_view texts[] = {"OK",
                                               "CANCELLED",
                                               "UNKNOWN",
                                               "INVALID_ARGUMENT",
                                               "DEADLINE_EXCEEDED",
                                               "NOT_FOUND",
                                               "ALREADY_EXISTS",
                                               "PERMISSION_DENIED",
                                               "RESOURCE_EXHAUSTED",
                                               "FAILED_PRECONDITION",
                                               "ABORTED",
                                               "OUT_OF_RANGE",
                                               "UNIMPLEMENTED",
                                               "INTERNAL",
                                               "UNAVAILABLE",
                                               "DATA_LOSS",
                                               "UNAUTHENTICATED"};
  const auto index = static_cast<std::size_t>(status);
  return index < std::size(texts) ? texts[index] : "UNKNOWN";
}

}  // namespace VornSdkRpc
