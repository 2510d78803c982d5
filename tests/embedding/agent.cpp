#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/Utils.h>

// Builds a server without services and stops it: the library is linked, found and works.
int main() {
  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  VornSdkRpc::GrpcServer server(builder, {}, properties);
  server.stop();
  server.run();
}
