#include "examples/snippets/Calls.h"

#include <VornSdkRpc/CallAccounting.h>
#include <VornSdkRpc/CallJson.h>
#include <VornSdkRpc/GrpcServer.h>
#include <VornSdkRpc/InsecureCredentials.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "examples/snippets/Client.h"
#include "examples/snippets/RouteService.h"
#include "examples/snippets/UserOfConnection.h"

namespace snippets {

namespace {

void loadOneRoute(const std::string& address) {
  grpc::ClientContext context;
  context.set_wait_for_ready(true);
  count_msg count;
  ip_route_msg route;
  route.mutable_prefix()->set_addr("1234");
  const auto stub =
      Routes::NewStub(grpc::CreateChannel(address, grpc::InsecureChannelCredentials()));
  const auto routes = stub->Load(&context, &count);
  routes->Write(route);
  routes->WritesDone();
  require(routes->Finish().ok(), "a load of one route is answered");
}

}  // namespace

void recordCalls(const std::string& address) {
  const auto identity = std::make_shared<UserOfConnection>();
  RouteTable table;
  {
    grpc::ServerBuilder builder;
    // [calls]
    VornSdkRpc::CallAccounting calls({.log = {.memory = 64 << 20}});
    calls.add(VornSdkRpc::accountingLines());
    calls.add(std::make_unique<VornSdkRpc::CallJsonFile>("calls.json"));
    calls.install(builder);
    builder.AddListeningPort(address,
                             VornSdkRpc::insecureServerCredentials(calls.recorded(identity)));
    // [calls]
    VornSdkRpc::ServerProperties properties;
    VornSdkRpc::GrpcServer server(
        builder, {std::make_shared<RouteService>(table, nullptr, nullptr)}, properties);
    std::jthread client([&] {
      loadOneRoute(address);
      server.stop();
    });
    server.run();
  }
  std::ifstream file("calls.json");
  std::string record;
  std::getline(file, record);
  require(record.find(R"("operation":"load","object":"routes","count":1)") != std::string::npos,
          "a call is recorded with what its handler has noted");
  std::filesystem::remove("calls.json");
}

}  // namespace snippets
