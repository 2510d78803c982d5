#pragma once

#include <VornSdkRpc/CallLog.h>
#include <VornSdkRpc/GrpcService.h>
#include <grpcpp/server_context.h>
#include <vorn/export.h>

#include <functional>
#include <memory>

// The service Accounting, whose Watch sends an agent's completion records to collectors
// (VornSdkRpcProtos/Accounting.proto). In a library of its own, VornSdkRpcAccounting.
//
//   VornSdkRpc::CallAccounting accounting({.log = {.history = 16 << 20}});
//   accounting.install(builder);
//   const auto watch = VornSdkRpc::callWatchService(accounting.log(), mayWatch);
//   VornSdkRpc::GrpcServer server(builder, {routes, watch}, properties);
//
// The log's history is what a collector finds that was away; what goes beyond it is told as a gap.
// A collector that reads slowly holds up nobody, and costs the records that it is being sent.
//
// A Watch is a call like others and has one record, at its end: nothing that it sends makes more.
namespace VornSdkRpc {

// Decides who may watch, for each call: OK, or the status that refuses it. Serving thread; may not
// block.
using MayWatch = std::function<grpc::Status(const grpc::ServerContext&)>;

// A service for one server. `mayWatch` must not be empty: std::invalid_argument.
VORN_EXPORT std::shared_ptr<GrpcService> callWatchService(std::shared_ptr<CallLog> log,
                                                          MayWatch mayWatch);

}  // namespace VornSdkRpc
