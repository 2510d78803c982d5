#include <VornSdkRpc/GrpcLog.h>

#include <Kiv/Trace.h>
#include <VornSdkRpc/MessageLimit.h>
#include <fmt/format.h>
#include <grpc/support/log.h>

#include <exception>

namespace VornSdkRpc {

namespace {

void write(gpr_log_func_args* args) try {
  // Never destroyed: gRPC's threads outlive main().
  static auto* const handle = new Kiv::TraceHandle("grpc", false);
  static auto* const limit = new MessageLimit;
  if (handle->enabled(8)) return handle->write(8, args->message);
  if (args->severity != GPR_LOG_SEVERITY_ERROR) return;
  if (const auto heldBack = limit->admit())
    handle->error(
        fmt::format("{} ({} messages were left out before it)", args->message, *heldBack));
} catch (const std::exception&) {
  // Without memory there is no message.
}

}  // namespace

void grpcLogToTrace() {
  static const bool set = (gpr_set_log_function(&write), true);
  static_cast<void>(set);
}

}  // namespace VornSdkRpc
