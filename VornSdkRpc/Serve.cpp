#include <VornSdkRpc/Serve.h>

#include <VornSdkRpc/InstallAccounting.h>
#include <VornSdkRpc/NamespaceCheck.h>
#include <VornSdkRpc/StopOnSignal.h>

#include <utility>

namespace VornSdkRpc {

void serve(grpc::ServerBuilder& builder, std::vector<std::shared_ptr<GrpcService>> services,
           const ServeOptions& options) {
  ServerProperties properties = options.properties;
  checkNamespace(properties.nsName);
  installArguments(builder, options.arguments);
  if (options.accounting) installAccounting(builder);
  GrpcServer server(builder, std::move(services), properties, options.accounting);
  server.listenerIs(options.listener);
  server.clientsTakeTurnsIs(options.clientsTakeTurns);
  const StopOnSignal stopOnSignal(server, options.grace);
  server.run();
}

}  // namespace VornSdkRpc
