// What the guide says about tests.
#include <VornSdkRpc/Testing.h>
#include <gtest/gtest.h>

#include "examples/snippets/ChangeService.h"

namespace snippets {
namespace {

// [testing]
TEST(Changes, ARouteIsProgrammedAndAccounted) {
  RouteTable table;
  VornSdkRpc::testing::TestServer server({std::make_shared<ChangeService>(table)});
  const auto stub = server.stub<Changes>();
  const auto answer = VornSdkRpc::testing::call(*stub, &Changes::Stub::Program, ip_route_msg());
  EXPECT_TRUE(answer.status.ok());
  EXPECT_EQ(table.after(0).size(), 1U);
  EXPECT_EQ(server.records().at(0).rpc, "/snippets.Changes/Program");
  EXPECT_EQ(server.finish(), "");
}
// [testing]

// [identities]
TEST(Changes, AreAccountedToTheirUser) {
  RouteTable table;
  VornSdkRpc::testing::TestServer server({std::make_shared<ChangeService>(table)},
                                         {.socket = true});
  const auto alice = server.stub<Changes>({{"peer-authenticated", "alice"}});
  EXPECT_TRUE(
      VornSdkRpc::testing::call(*alice, &Changes::Stub::Accept, ip_route_msg()).status.ok());
  EXPECT_EQ(server.records().at(0).user, "alice");
}
// [identities]

}  // namespace
}  // namespace snippets
