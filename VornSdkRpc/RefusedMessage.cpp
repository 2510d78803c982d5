#include <VornSdkRpc/RefusedMessage.h>

#include <VornSdkRpc/Completion.h>
#include <grpc/grpc.h>
#include <grpcpp/server_context.h>

namespace VornSdkRpc {

bool isRefusedMessage(grpc::experimental::ServerRpcInfo& info) {
  return completion::current() == completion::Current::failed &&
         grpc_call_failed_before_recv_message(info.server_context()->c_call()) == 0;
}

}  // namespace VornSdkRpc
