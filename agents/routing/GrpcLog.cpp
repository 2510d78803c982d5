#include "agents/routing/GrpcLog.h"

#include <Kiv/Trace.h>
#include <grpc/support/log.h>

#include <mutex>
#include <string_view>

namespace routing_agent {

namespace {

std::mutex lastErrorMutex;
std::string lastError;

void write(gpr_log_func_args* args) {
  static auto* const handle = new Kiv::TraceHandle("grpc", false);  // gRPC's threads outlive main
  if (args->severity == GPR_LOG_SEVERITY_ERROR) {
    const std::lock_guard lock(lastErrorMutex);
    lastError = args->message;
  }
  if (handle->enabled(8)) handle->write(8, args->message);
}

}  // namespace

void grpcLogToTrace() { gpr_set_log_function(&write); }

std::string lastSystemError() {
  static constexpr std::string_view label = "os_error:\"";
  const std::lock_guard lock(lastErrorMutex);
  const auto start = lastError.find(label);
  if (start == std::string::npos) return {};
  const auto text = lastError.substr(start + label.size());
  return text.substr(0, text.find('"'));
}

}  // namespace routing_agent
