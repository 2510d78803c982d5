#include "agents/routing/GrpcLog.h"

#include <Kiv/Trace.h>
#include <grpc/support/log.h>

namespace routing_agent {

namespace {

void write(gpr_log_func_args* args) {
  static auto* const handle = new Kiv::TraceHandle("grpc", false);  // gRPC's threads outlive main
  if (handle->enabled(8)) handle->write(8, args->message);
}

}  // namespace

void grpcLogToTrace() { gpr_set_log_function(&write); }

}  // namespace routing_agent
