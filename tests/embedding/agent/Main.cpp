#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/Utils.h>
#include <unistd.h>

#include <thread>

#include "RoutesService.h"

using namespace embedding;

// Serves and makes one call, and prints the reply: the libraries, the messages and the stubs are
// linked, found and work.
int main() {
  const auto address = "unix-abstract:embedding-" + std::to_string(getpid());
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  VornSdkRpc::ServerProperties properties;
  VornSdkRpc::GrpcServer server(builder, {std::make_shared<RoutesService>()}, properties);
  std::jthread serving([&server] { server.run(); });

  const auto stub =
      Routes::NewStub(grpc::CreateChannel(address, grpc::InsecureChannelCredentials()));
  grpc::ClientContext context;
  context.set_wait_for_ready(true);
  name_msg wanted;
  wanted.set_name("core");
  pb::ip_route_msg route;
  const auto status = stub->Find(&context, wanted, &route);
  server.stop();
  return status.ok() && pb::toString(route).find("core") != std::string::npos ? 0 : 1;
}
