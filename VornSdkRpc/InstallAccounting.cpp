#include <VornSdkRpc/InstallAccounting.h>

#include <VornSdkRpc/VornSdkRpcAgentRpcLogger.h>

#include <memory>
#include <utility>
#include <vector>

namespace VornSdkRpc {

void installAccounting(grpc::ServerBuilder& builder) {
  std::vector<std::unique_ptr<grpc::experimental::ServerInterceptorFactoryInterface>> creators;
  creators.push_back(std::make_unique<LoggingInterceptorFactory>());
  builder.experimental().SetInterceptorCreators(std::move(creators));
}

}  // namespace VornSdkRpc
