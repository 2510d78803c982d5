#include <VornSdkRpc/Testing.h>

#include "RoutesService.h"

using namespace embedding;

// Tests the agent's service as its own tests would.
int main() {
  VornSdkRpc::testing::TestServer server({std::make_shared<RoutesService>()});
  const auto stub = server.stub<Routes>();
  name_msg wanted;
  wanted.set_name("core");
  const auto found = VornSdkRpc::testing::call(*stub, &Routes::Stub::Find, wanted);
  const bool accounted =
      server.records().size() == 1 && server.records()[0].rpc == "/embedding.Routes/Find";
  const bool passed = found.status.ok() && found.reply.nexthop_group() == "core" && accounted;
  return passed && server.finish().empty() ? 0 : 1;
}
