#include <VornSdkRpc/RpcCall.h>

#include <VornSdkRpc/RpcMachinery.h>
#include <VornSdkRpc/RpcService.h>

namespace VornSdkRpc::rpc {

grpc::ServerContext& Call::context() { return exchange_.context(); }
EndedBy Call::endedBy() const { return exchange_.endedBy(); }
bool Call::draining() const { return exchange_.service().draining(); }
std::chrono::nanoseconds Call::remaining() const { return exchange_.remaining(); }

grpc::Status Call::endStatus() const {
  if (cancelled()) return grpc::Status::CANCELLED;
  if (draining()) return {grpc::StatusCode::UNAVAILABLE, "the server is being drained"};
  return grpc::Status::OK;
}

Clock::time_point Call::now() const { return exchange_.service().now(); }

namespace detail {

bool Wait::await_ready() { return exchange_.begin(*this); }

void Wait::await_suspend(std::coroutine_handle<> awaiting) { exchange_.suspend(*this, awaiting); }

}  // namespace detail

}  // namespace VornSdkRpc::rpc
