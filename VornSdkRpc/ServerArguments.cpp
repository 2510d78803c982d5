#include <VornSdkRpc/ServerArguments.h>

#include <grpc/compression.h>
#include <grpc/grpc.h>
#include <grpcpp/resource_quota.h>

#include <algorithm>
#include <climits>

namespace VornSdkRpc {

namespace {

// As gRPC takes times and numbers; INT_MAX is its "never" and its "any number".
int bounded(long long value) {
  return value <= 0 ? INT_MAX : static_cast<int>(std::min<long long>(value, INT_MAX));
}

void setCompression(grpc::ServerBuilder& builder, bool allowed) {
  for (const auto algorithm : {GRPC_COMPRESS_DEFLATE, GRPC_COMPRESS_GZIP})
    builder.SetCompressionAlgorithmSupportStatus(algorithm, allowed);
}

void setQuota(grpc::ServerBuilder& builder, const ServerArguments& arguments) {
  grpc::ResourceQuota quota("VornSdkRpc");
  quota.SetMaxThreads(bounded(arguments.maxThreads));
  if (arguments.maxMemoryBytes > 0)
    quota.Resize(static_cast<std::size_t>(arguments.maxMemoryBytes));
  builder.SetResourceQuota(quota);
}

}  // namespace

void installArguments(grpc::ServerBuilder& builder, const ServerArguments& arguments) {
  const auto set = [&](const char* name, long long value) {
    builder.AddChannelArgument(name, bounded(value));
  };
  set(GRPC_ARG_KEEPALIVE_TIME_MS, arguments.keepaliveTime.count());
  set(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, arguments.keepaliveTimeout.count());
  set(GRPC_ARG_SERVER_HANDSHAKE_TIMEOUT_MS, arguments.handshakeTimeout.count());
  set(GRPC_ARG_MAX_CONCURRENT_STREAMS, arguments.maxConcurrentStreams);
  builder.AddChannelArgument(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  builder.AddChannelArgument(GRPC_ARG_ALLOW_REUSEPORT, arguments.sharedPort ? 1 : 0);
  builder.SetMaxReceiveMessageSize(bounded(arguments.maxReceiveMessageBytes));
  setCompression(builder, arguments.compression);
  setQuota(builder, arguments);
}

}  // namespace VornSdkRpc
