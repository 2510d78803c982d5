#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/Utils.h>

// Builds a server without services and stops it, and prints a message: the libraries are linked,
// found and work.
int main() {
  grpc::ServerBuilder builder;
  VornSdkRpc::ServerProperties properties;
  VornSdkRpc::GrpcServer server(builder, {}, properties);
  server.stop();
  server.run();

  VornSdkRpc::pb::ip_address_msg address;
  address.set_addr("\x7f\x00\x00\x01", 4);
  const auto text = VornSdkRpc::pb::toString(address);
  return text.find("127.0.0.1") == std::string::npos;
}
